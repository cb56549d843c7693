/* Volume on one broker session: a hundred thousand small messages sent and
 * received leave the message pool's live records where they were. */
#include "broker/brokerFixture.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

} // namespace

TEST(BrokerVolume, AHundredThousandMessagesLeaveNoRecordBehind)
{
    constexpr std::size_t kMessages = 100000, kBacklog = 10000, kBatch = 1000;
    const veltest::LiveCounts before;
    {
        Client c;
        ASSERT_TRUE(connectAll(c));
        std::string topic = unique("volume/t");
        c.subscribeAndSync(topic);
        c.keepMessages(false);
        std::size_t synced = c.received();
        for (std::size_t i = 0; i < kMessages; ++i) {
            velClient_opaqueMsg_pt m = makeMessage(topic, false, VELCLIENT_DELIVERY_MODE_DIRECT, std::to_string(i));
            ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(c.session(), m));
            velClient_msg_free(&m);
            /* At most kBacklog on their way, so that neither side piles them up. */
            if (i % kBatch == 0 && i >= kBacklog) {
                ASSERT_TRUE(c.waitReceived(synced + i - kBacklog, 60s)) << c.received() - synced << " of " << i;
            }
        }
        ASSERT_TRUE(c.waitReceived(synced + kMessages, 60s)) << c.received() - synced << " of " << kMessages;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(synced + kMessages, c.received());
    }
    before.expectBalanced();
}
