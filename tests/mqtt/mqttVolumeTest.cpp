/* Volume on one MQTT session: twenty thousand messages in the three delivery
 * modes through the broker leave the message pool's live records where they
 * were, and every QoS 1 one is acknowledged once. */
#include "support/brokerClient.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

} // namespace

TEST(MqttVolume, TwentyThousandMessagesLeaveNoRecordBehind)
{
    constexpr std::size_t kMessages = 20000, kBacklog = 5000, kBatch = 500;
    constexpr velClient_uint32_t kModes[] = {VELCLIENT_DELIVERY_MODE_DIRECT, VELCLIENT_DELIVERY_MODE_PERSISTENT,
                                             VELCLIENT_DELIVERY_MODE_NONPERSISTENT};
    const veltest::LiveCounts before;
    {
        Client c;
        ASSERT_TRUE(connectAll(c));
        std::string topic = unique("volume/t");
        c.subscribeAndSync(topic);
        c.keepMessages(false);
        for (std::size_t i = 0; i < kMessages; ++i) {
            velClient_opaqueMsg_pt m = makeMessage(topic, false, kModes[i % 3], std::to_string(i));
            ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(c.session(), m)) << veltest::lastErrorText();
            velClient_msg_free(&m);
            /* At most kBacklog on their way, so that neither side piles them up. */
            if (i % kBatch == 0 && i >= kBacklog) {
                ASSERT_TRUE(c.waitReceived(i - kBacklog, 60s)) << c.received() << " of " << i;
            }
        }
        ASSERT_TRUE(c.waitReceived(kMessages, 60s)) << c.received() << " of " << kMessages;
        const std::size_t guaranteed = kMessages - (kMessages + 2) / 3;
        ASSERT_TRUE(c.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, guaranteed, 60s));
        c.sync();
        EXPECT_EQ(kMessages, c.received());
        EXPECT_EQ(guaranteed, c.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    }
    before.expectBalanced();
}
