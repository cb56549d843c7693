/* Volume on one broker session: a hundred thousand small messages sent and
 * received leave the message pool's live records where they were. */
#include "broker/brokerFixture.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

/* The pool counters of live messages, containers and data blocks of each size class. */
std::vector<velClient_uint64_t> liveRecords()
{
    std::vector<std::pair<velClient_msg_stats_t, velClient_uint32_t>> counters = {
        {VELCLIENT_MSG_STATS_ALLOC_MSGS, 0}, {VELCLIENT_MSG_STATS_ALLOC_CONTAINERS, 0}};
    for (velClient_uint32_t sizeClass = 0; sizeClass <= 5; ++sizeClass)
        counters.emplace_back(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, sizeClass);
    std::vector<velClient_uint64_t> values;
    for (auto [type, index] : counters) {
        velClient_uint64_t value = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getStat(type, index, &value));
        values.push_back(value);
    }
    return values;
}

} // namespace

TEST(BrokerVolume, AHundredThousandMessagesLeaveNoRecordBehind)
{
    constexpr std::size_t kMessages = 100000, kBacklog = 10000, kBatch = 1000;
    std::vector<velClient_uint64_t> before = liveRecords();
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
    EXPECT_EQ(before, liveRecords()) << "live messages, containers, then data blocks by size class";
}
