/* Volume on one MQTT session: twenty thousand messages in the three delivery
 * modes through the broker leave the message pool's live records where they
 * were, and every QoS 1 one is acknowledged once. */
#include "support/brokerClient.h"
#include "support/velTestSupport.h"

using namespace veltest::broker;

TEST(MqttVolume, TwentyThousandMessagesLeaveNoRecordBehind)
{
    constexpr std::size_t kMessages = 20000, kGuaranteed = kMessages * 2 / 3;
    const veltest::LiveCounts before;
    {
        Client c;
        ASSERT_TRUE(connectAll(c));
        std::string topic = unique("volume/t");
        c.subscribeAndSync(topic);
        c.keepMessages(false);
        pumpThrough(c, topic, kMessages,
                    {VELCLIENT_DELIVERY_MODE_DIRECT, VELCLIENT_DELIVERY_MODE_PERSISTENT,
                     VELCLIENT_DELIVERY_MODE_NONPERSISTENT});
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(c.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, kGuaranteed, std::chrono::seconds(60)));
        c.sync();
        EXPECT_EQ(kMessages, c.received());
        EXPECT_EQ(kGuaranteed, c.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    }
    before.expectBalanced();
}
