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
    constexpr std::size_t kMessages = 100000;
    const veltest::LiveCounts before;
    {
        Client c;
        ASSERT_TRUE(connectAll(c));
        std::string topic = unique("volume/t");
        c.subscribeAndSync(topic);
        c.keepMessages(false);
        std::size_t synced = c.received();
        pumpThrough(c, topic, kMessages, {VELCLIENT_DELIVERY_MODE_DIRECT});
        ASSERT_FALSE(HasFatalFailure());
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(synced + kMessages, c.received());
    }
    before.expectBalanced();
}
