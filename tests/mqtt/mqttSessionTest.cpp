/* MQTT sessions on mosquitto through the public API: connecting and its
 * failures, messages that read back as on a loopback session in every
 * delivery mode, topic wildcards and the characters MQTT reserves, request
 * and reply through the inbox, queue calls refused, the PUBACK as the
 * acknowledgement, and calls from inside the callbacks. */
#include <cstring>
#include <set>
#include <thread>

#include "support/brokerClient.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

constexpr velClient_uint32_t kModes[] = {VELCLIENT_DELIVERY_MODE_DIRECT, VELCLIENT_DELIVERY_MODE_PERSISTENT,
                                         VELCLIENT_DELIVERY_MODE_NONPERSISTENT};

/* The attachments of what c received: waits for expected messages, then a
 * little longer for any beyond them; checks each destination is its topic. */
std::multiset<std::string> receivedBodies(Client &c, std::size_t expected, const std::string &root)
{
    EXPECT_TRUE(c.waitMessages(expected)) << "expected " << expected;
    std::this_thread::sleep_for(200ms);
    std::multiset<std::string> seen;
    std::vector<velClient_opaqueMsg_pt> got = c.messages();
    for (velClient_opaqueMsg_pt m : got) {
        seen.insert(attachmentOf(m));
        velClient_destination_t d{};
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m, &d, sizeof d));
        EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, d.destType);
        EXPECT_EQ(attachmentOf(m)[0] == '$' ? attachmentOf(m) : root + "/" + attachmentOf(m), d.dest);
    }
    freeAll(got);
    return seen;
}

} // namespace

TEST(MqttConnect, FailuresNameTheHostAndTheReason)
{
    std::string closed = "127.0.0.1:" + std::to_string(closedPort());
    std::string other = "127.0.0.1:" + std::to_string(closedPort());
    const std::vector<std::string> rows[] = {
        {closed},
        {closed, other},
    };
    for (const auto &hosts : rows) {
        std::string list = hosts[0] + (hosts.size() > 1 ? "," + hosts[1] : "");
        Client c({"SESSION_HOST", list, "SESSION_CONNECT_TIMEOUT_MS", "3000"});
        velClient_resetLastErrorInfo();
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_connect(c.session())) << list;
        EXPECT_EQ(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, veltest::lastSubCode()) << veltest::lastErrorText();
        for (const std::string &h : hosts)
            EXPECT_NE(std::string::npos, veltest::lastErrorText().find(h + " (Connection refused)"))
                << h << " not in " << veltest::lastErrorText();
        EXPECT_EQ(0u, c.countEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE));
    }
}

TEST(MqttConnect, FailoverComesUpOnTheNextHost)
{
    std::string closed = "127.0.0.1:" + std::to_string(closedPort());
    Client c({"SESSION_HOST", closed + "," + host()});
    ASSERT_TRUE(connectAll(c));
    EXPECT_TRUE(c.waitEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE, 1));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_connect(c.session())); /* already up */
    std::string root = unique("failover");
    c.subscribeAndSync(root + "/over");
    ASSERT_EQ(VELCLIENT_OK, send(c, root + "/over", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "over"));
    EXPECT_EQ((std::multiset<std::string>{"over"}), receivedBodies(c, 1, root));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
}

TEST(MqttMessages, ReadBackAsOnALoopbackSessionInEveryDeliveryMode)
{
    Client receiver, sender;
    ASSERT_TRUE(connectAll(receiver, sender));
    std::string topic = unique("fidelity/t");
    receiver.subscribeAndSync(topic);
    for (velClient_uint32_t mode : kModes) {
        velClient_opaqueMsg_pt m = richMessage(topic, false, mode);
        std::string expected = loopbackDump(m);
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m)) << veltest::lastErrorText();
        velClient_msg_free(&m);
        ASSERT_TRUE(receiver.waitMessages(1)) << "mode " << mode;
        std::vector<velClient_opaqueMsg_pt> got = receiver.messages();
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(expected, dumpWithoutReceiveLines(got[0])) << "mode " << mode;
        velClient_int64_t received = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(got[0], &received));
        EXPECT_GT(received, 0);
        EXPECT_FALSE(velClient_msg_isRedelivered(got[0]));
        freeAll(got);
    }
}

TEST(MqttTopics, WildcardsAndReservedCharactersArriveUnchanged)
{
    Client receiver, sender;
    ASSERT_TRUE(connectAll(receiver, sender));
    std::string root = unique("w");
    std::string dollar = "$" + root + "/d";
    /* "*" and ">" are wildcards only as whole levels; "+" and "#" are never wildcards. */
    for (const std::string &sub : {root + "/*/new", root + "/stock/>", root + "/a+b/#c/%d", root + "/+/p",
                                   root + "/h/#", root + "/x*/lit", dollar})
        receiver.subscribeAndSync(sub);
    std::vector<std::string> topics = {"orders/new", "x/new", "orders/new/more", "stock/a", "stock/a/b", "stock",
                                       "a+b/#c/%d", "a+b/#c/%25d", "aXb/#c/%d", "+/p", "q/p", "h/#", "h/z",
                                       "x*/lit", "xy/lit"};
    for (const std::string &t : topics)
        ASSERT_EQ(VELCLIENT_OK, send(sender, root + "/" + t, false, VELCLIENT_DELIVERY_MODE_DIRECT, t));
    ASSERT_EQ(VELCLIENT_OK, send(sender, dollar, false, VELCLIENT_DELIVERY_MODE_DIRECT, dollar));
    EXPECT_EQ((std::multiset<std::string>{"orders/new", "x/new", "stock/a", "stock/a/b", "a+b/#c/%d", "+/p", "h/#",
                                          "x*/lit", dollar}),
              receivedBodies(receiver, 9, root));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(receiver.session(), (root + "/*/new").c_str()));
    receiver.sync();
    ASSERT_EQ(VELCLIENT_OK, send(sender, root + "/orders/new", false, VELCLIENT_DELIVERY_MODE_DIRECT, "orders/new"));
    ASSERT_EQ(VELCLIENT_OK, send(sender, root + "/stock/z", false, VELCLIENT_DELIVERY_MODE_DIRECT, "stock/z"));
    EXPECT_EQ((std::multiset<std::string>{"stock/z"}), receivedBodies(receiver, 1, root));
}

TEST(MqttInbox, ARequestIsAnsweredThroughTheRequestersInbox)
{
    std::string name = unique("requester-");
    Client requester({"SESSION_CLIENT_NAME", name}), responder;
    ASSERT_TRUE(connectAll(requester, responder));
    std::string service = unique("service/t");
    /* The responder answers to the reply-to with the request's correlation id, from inside its callback. */
    responder.onMessage = [](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request) {
        reply(s, request, VELCLIENT_DELIVERY_MODE_DIRECT, "answer");
    };
    responder.subscribeAndSync(service);
    velClient_opaqueMsg_pt request = makeMessage(service, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "question");
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(request, requester.session(), "calls/1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(request, "call-1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(requester.session(), request));
    velClient_msg_free(&request);
    ASSERT_TRUE(requester.waitMessages(1));
    std::vector<velClient_opaqueMsg_pt> got = requester.messages();
    EXPECT_EQ("answer", attachmentOf(got[0]));
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(got[0], &d, sizeof d));
    EXPECT_EQ("#P2P/v:127.0.0.1/" + name + "/calls/1", std::string(d.dest));
    const char *correlation = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(got[0], &correlation));
    EXPECT_STREQ("call-1", correlation);
    EXPECT_TRUE(velClient_msg_isReplyMsg(got[0]));
    freeAll(got);
}

TEST(MqttQueues, QueueCallsAndQueueSendsAreRefused)
{
    Client c;
    ASSERT_TRUE(connectAll(c));
    velClient_opaqueMsg_pt m = makeMessage(unique("q"), true, VELCLIENT_DELIVERY_MODE_PERSISTENT);
    velClient_opaqueSession_pt s = c.session();
    veltest::expectRefusals({
        {[s] { return velClient_session_queueSubscribe(s, "orders"); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         "Queues are not available on an MQTT session in velClient_session_queueSubscribe"},
        {[s] { return velClient_session_queueUnsubscribe(s, "orders"); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         "Queues are not available on an MQTT session in velClient_session_queueUnsubscribe"},
        {[s, m] { return velClient_session_sendMsg(s, m); }, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
         "Queues are not available on an MQTT session in velClient_session_sendMsg"},
    });
    velClient_msg_free(&m);
    EXPECT_EQ(0u, c.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
}

TEST(MqttSends, EachQos1MessageIsAcknowledgedWithItsTagAndNoDirectOneIs)
{
    Client sender;
    ASSERT_TRUE(connectAll(sender));
    std::string topic = unique("outcome/t");
    static int tags[30];
    for (int i = 0; i < 30; ++i) {
        velClient_opaqueMsg_pt m = makeMessage(topic, false, kModes[i % 3]);
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTagPtr(m, &tags[i], 0));
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
        velClient_msg_free(&m);
    }
    ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 20));
    sender.sync(); /* any acknowledgement of a direct message would have come by now */
    std::multiset<void *> seen;
    for (const Event &e : sender.events())
        if (e.event == VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT)
            seen.insert(e.correlation_p);
    EXPECT_EQ(20u, seen.size());
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ(kModes[i % 3] == VELCLIENT_DELIVERY_MODE_DIRECT ? 0u : 1u, seen.count(&tags[i])) << i;
    EXPECT_EQ(0u, sender.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(sender.session()));
}

TEST(MqttCallbacks, SendSubscribeAndUnsubscribeFromInsideBothCallbacks)
{
    Client worker, peer;
    ASSERT_TRUE(connectAll(worker, peer));
    std::string root = unique("cb");
    constexpr int kCount = 40;
    /* Each request: an answer sent and a topic of its own subscribed, and unsubscribed again when odd. */
    worker.onMessage = [&](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg) {
        std::string body = attachmentOf(msg);
        if (body.rfind("req", 0) != 0)
            return;
        std::string own = root + "/own/" + body.substr(3);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(s, own.c_str()));
        if (std::stoi(body.substr(3)) % 2 == 1) {
            EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(s, own.c_str()));
        }
        velClient_opaqueMsg_pt answer = makeMessage(root + "/answers", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, body);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, answer));
        velClient_msg_free(&answer);
    };
    /* Each acknowledgement of an answer: a notice sent, and a subscription taken and dropped. */
    worker.onEvent = [&](velClient_opaqueSession_pt s, const Event &e) {
        if (e.event != VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT)
            return;
        std::string scratch = root + "/scratch";
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(s, scratch.c_str()));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(s, scratch.c_str()));
        velClient_opaqueMsg_pt notice = makeMessage(root + "/notices", false, VELCLIENT_DELIVERY_MODE_DIRECT, "acked");
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, notice));
        velClient_msg_free(&notice);
    };
    worker.subscribeAndSync(root + "/requests");
    peer.subscribeAndSync(root + "/answers");
    peer.subscribeAndSync(root + "/notices");
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(VELCLIENT_OK, send(peer, root + "/requests", false, kModes[i % 3], "req" + std::to_string(i)));
    ASSERT_TRUE(peer.waitMessages(2 * kCount, 30s)) << "answers and notices: " << peer.received();
    std::multiset<std::string> bodies;
    std::vector<velClient_opaqueMsg_pt> got = peer.messages();
    for (velClient_opaqueMsg_pt m : got)
        bodies.insert(attachmentOf(m));
    freeAll(got);
    EXPECT_EQ(static_cast<std::size_t>(kCount), bodies.count("acked"));
    EXPECT_EQ(static_cast<std::size_t>(2 * kCount), bodies.size());
    /* The even topics subscribed from the callback are held, the odd ones not. */
    worker.sync();
    for (int n : {kCount - 2, kCount - 1})
        ASSERT_EQ(VELCLIENT_OK, send(peer, root + "/own/" + std::to_string(n), false, VELCLIENT_DELIVERY_MODE_DIRECT,
                                     "own" + std::to_string(n)));
    ASSERT_TRUE(worker.waitMessages(kCount + 1));
    std::this_thread::sleep_for(200ms);
    got = worker.messages();
    EXPECT_EQ(static_cast<std::size_t>(kCount + 1), got.size());
    EXPECT_EQ("own" + std::to_string(kCount - 2), attachmentOf(got.back()));
    freeAll(got);
}
