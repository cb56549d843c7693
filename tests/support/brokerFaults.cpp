/* The network-fault scenarios both transports run (see brokerFaults.h). */
#include "support/brokerFaults.h"

#include <set>

#include "support/brokerClient.h"
#include "support/brokerProxy.h"

namespace veltest::broker {

namespace {

using namespace std::chrono_literals;

std::string firstRejection(Client &c)
{
    for (const Event &e : c.events())
        if (e.event == VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR)
            return e.info;
    return "";
}

} // namespace

void resetConnectionResendsAndRestores(bool queue)
{
    Proxy proxy(port());
    Client through({"SESSION_HOST", proxy.host(), "SESSION_RECONNECT_RETRY_WAIT_MS", "100"});
    Client reader;
    ASSERT_TRUE(connectAll(through, reader));
    std::string target = queue ? unique("resend-q") : unique("resend/t"), topic = unique("restored/t");
    reader.subscribeAndSync(target, queue);
    through.subscribeAndSync(topic);
    constexpr int kCount = 200;
    for (int i = 0; i < kCount; ++i) {
        if (i == kCount / 2)
            proxy.cut();
        ASSERT_EQ(VELCLIENT_OK, send(through, target, queue, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::to_string(i)))
            << velClient_getLastErrorInfo()->errorStr;
    }
    ASSERT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1));
    EXPECT_EQ(1u, through.countEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, kCount));
    EXPECT_EQ(0u, through.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR))
        << "the first refused: " << firstRejection(through);
    /* None lost; duplicates are allowed. */
    EXPECT_TRUE(reader.waitMessages(kCount, 30s)) << reader.received();
    std::this_thread::sleep_for(300ms);
    std::set<std::string> seen;
    std::vector<velClient_opaqueMsg_pt> got = reader.messages();
    for (velClient_opaqueMsg_pt m : got)
        seen.insert(attachmentOf(m));
    freeAll(got);
    EXPECT_EQ(static_cast<std::size_t>(kCount), seen.size()) << got.size() - seen.size() << " duplicates";
    /* The topic subscription came back with the connection. */
    ASSERT_EQ(VELCLIENT_OK, send(reader, topic, false, VELCLIENT_DELIVERY_MODE_DIRECT, "after"));
    ASSERT_TRUE(through.waitMessages(1));
    std::vector<velClient_opaqueMsg_pt> after = through.messages();
    EXPECT_EQ("after", attachmentOf(after[0]));
    freeAll(after);
}

void brokerThatStaysAwayEndsInDownError(bool queue)
{
    Proxy proxy(port());
    Client through({"SESSION_HOST", proxy.host(), "SESSION_RECONNECT_RETRY_WAIT_MS", "50",
                    "SESSION_RECONNECT_RETRIES", "3"});
    ASSERT_TRUE(connectAll(through));
    static int tag;
    proxy.pause(true); /* the message below stays unacknowledged */
    velClient_opaqueMsg_pt m =
        makeMessage(queue ? unique("down-q") : unique("down/t"), queue, VELCLIENT_DELIVERY_MODE_PERSISTENT);
    velClient_msg_setCorrelationTagPtr(m, &tag, 0);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(through.session(), m));
    proxy.refuse(true);
    proxy.cut();
    ASSERT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_DOWN_ERROR, 1));
    std::vector<Event> events = through.events();
    auto rejected = std::find_if(events.begin(), events.end(), [](const Event &e) {
        return e.event == VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR;
    });
    ASSERT_NE(events.end(), rejected);
    EXPECT_EQ(&tag, rejected->correlation_p);
    EXPECT_EQ("session down", rejected->info);
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_session_sendMsg(through.session(), m));
    EXPECT_EQ(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, velClient_getLastErrorInfo()->subCode);
    velClient_msg_free(&m);
}

void silentBrokerIsNoticed(const std::string &keepaliveMs, std::chrono::seconds within)
{
    Proxy proxy(port());
    Client through({"SESSION_HOST", proxy.host(), "SESSION_KEEPALIVE_MS", keepaliveMs});
    ASSERT_TRUE(connectAll(through));
    proxy.pause(true);
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, 1, within));
    proxy.pause(false);
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 30s));
}

} // namespace veltest::broker
