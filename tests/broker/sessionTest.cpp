/* Broker sessions on either transport, through the public API: connecting and
 * its failures, TLS and its trust store, messages that read back as they
 * were sent in every delivery mode without a record left behind, and topic
 * wildcards and the characters the transport reserves, sends from several
 * threads and calls from inside both callbacks with the broker's outcome of
 * guaranteed messages. (Request and reply through the inbox: the broker
 * example.) */
#include <thread>

#include "support/brokerSupport.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;

TEST(BrokerConnect, FailuresNameTheHostAndTheReasonPlainLoginTlsAndFailoverComeUp)
{
    const std::string closed = "127.0.0.1:1", self = broker().host(); /* nothing listens on port 1 */
    const std::string refused = closed + (broker().amqp ? " (proton:io: Connection refused" : " (Connection refused)");
    struct Row {
        std::vector<std::string> props;
        velClient_subCode_t subCode; /* OK: it comes up */
        std::vector<std::string> inText;
    };
    std::vector<Row> rows = {
        {{"SESSION_HOST", closed}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {"Could not connect to " + refused}},
        {{"SESSION_HOST", closed + "," + closed}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {refused, "; " + refused}},
        {{"SESSION_HOST", closed + "," + self}, VELCLIENT_SUBCODE_OK, {}},
        {{"SESSION_KEEPALIVE_MS", "0"}, VELCLIENT_SUBCODE_OK, {}}, /* no keepalive at all */
    };
    /* RabbitMQ's user guest, or the mosquitto listener that admits only velclient. */
    const std::string user = broker().amqp ? "guest" : "velclient", password = broker().amqp ? "guest" : "secret";
    const std::string login = broker().amqp ? self : "127.0.0.1:" + std::to_string(broker().loginPort);
    rows.insert(rows.end(), {
        {{"SESSION_HOST", login, "SESSION_USERNAME", user, "SESSION_PASSWORD", "wrong"},
         VELCLIENT_SUBCODE_LOGIN_FAILURE, {login}},
        {{"SESSION_HOST", login, "SESSION_USERNAME", "nobody", "SESSION_PASSWORD", password},
         VELCLIENT_SUBCODE_LOGIN_FAILURE, {login}},
        {{"SESSION_HOST", login, "SESSION_USERNAME", user, "SESSION_PASSWORD", password}, VELCLIENT_SUBCODE_OK, {}},
        /* No user at all: RabbitMQ's default user, while the mosquitto listener wants one. */
        {{"SESSION_HOST", login}, broker().amqp ? VELCLIENT_SUBCODE_OK : VELCLIENT_SUBCODE_LOGIN_FAILURE, {}},
    });
    /* TLS, where the trust store decides: the run's CA signed the listener's certificate, which names 127.0.0.1
     * and localhost; another CA, a missing file or the system's CAs ("") did not. */
    const std::string tlsHost = "127.0.0.1:" + std::to_string(broker().tlsPort);
    auto tls = [&](const std::string &host, const char *trustStore, const char *validate) {
        return std::vector<std::string>{"SESSION_HOST", host, "SESSION_SSL", "1",
                                        "SESSION_SSL_VALIDATE_CERTIFICATE", validate, "SESSION_SSL_TRUST_STORE",
                                        *trustStore ? broker().tlsFile(trustStore) : ""};
    };
    rows.insert(rows.end(), {
        {tls(tlsHost, "ca.pem", "1"), VELCLIENT_SUBCODE_OK, {}},
        {tls("localhost:" + std::to_string(broker().tlsPort), "ca.pem", "1"), VELCLIENT_SUBCODE_OK, {}},
        {tls(tlsHost, "other-ca.pem", "0"), VELCLIENT_SUBCODE_OK, {}},
        {tls(tlsHost, "other-ca.pem", "1"), VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {tlsHost}},
        {tls(tlsHost, "missing.pem", "1"), VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {tlsHost}},
        {tls(tlsHost, "", "1"), VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {tlsHost}},
    });
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.props));
        Client c(row.props);
        velClient_resetLastErrorInfo();
        const bool up = row.subCode == VELCLIENT_SUBCODE_OK;
        EXPECT_EQ(up ? VELCLIENT_OK : VELCLIENT_FAIL, velClient_session_connect(c.session()));
        EXPECT_EQ(row.subCode, veltest::lastSubCode()) << veltest::lastErrorText();
        for (const std::string &part : row.inText)
            EXPECT_NE(std::string::npos, veltest::lastErrorText().find(part)) << veltest::lastErrorText();
        EXPECT_TRUE(up ? c.waitEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE, 1)
                       : c.countEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE) == 0);
        if (!up)
            continue;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_connect(c.session())); /* already up */
        const std::string topic = unique("up/t");
        c.subscribe(topic);
        ASSERT_EQ(VELCLIENT_OK, send(c, topic, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "over"));
        EXPECT_EQ(std::multiset<std::string>{"over"}, c.bodies(1));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
    }
}

TEST(BrokerMessages, ReadBackAsSentInEveryDeliveryModeAndLeaveNoRecord)
{
    const veltest::LiveCounts before;
    {
        Client receiver, sender;
        ASSERT_TRUE(connectAll(receiver, sender));
        const std::string topic = unique("fidelity/t"), queue = unique("fidelity-q");
        receiver.subscribe(topic);
        if (broker().amqp)
            receiver.subscribe(queue, true);
        for (int n = 0; n < (broker().amqp ? 2 : 1); ++n) {
            const bool toQueue = n == 1;
            for (velClient_uint32_t mode : kModes) {
                SCOPED_TRACE(std::string(toQueue ? "queue" : "topic") + " mode " + std::to_string(mode));
                velClient_opaqueMsg_pt m = richMessage(toQueue ? queue : topic, toQueue, mode);
                const std::string expected = dumpWithoutReceiveLines(m);
                ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m)) << veltest::lastErrorText();
                velClient_msg_free(&m);
                ASSERT_TRUE(receiver.waitMessages(1));
                std::vector<velClient_opaqueMsg_pt> got = receiver.messages();
                ASSERT_EQ(1u, got.size());
                EXPECT_EQ(expected, dumpWithoutReceiveLines(got[0]));
                velClient_int64_t received = 0;
                EXPECT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(got[0], &received));
                EXPECT_GT(received, 0);
                EXPECT_FALSE(velClient_msg_isRedelivered(got[0]));
                freeAll(got);
            }
        }
    }
    before.expectBalanced();
}

TEST(BrokerCallbacks, SendsFromThreadsAndCallsFromInsideBothCallbacksAreEachAcknowledgedOnceWithTheirTag)
{
    Client worker, peer;
    ASSERT_TRUE(connectAll(worker, peer));
    const std::string root = unique("cb");
    constexpr int kThreads = 4, kEach = 20, kCount = kThreads * kEach;
    /* Each request: an answer sent, a topic of its own subscribed (and unsubscribed again when odd), and a
     * destroy of the session refused. */
    worker.onMessage = [&](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg) {
        const std::string body = attachmentOf(msg), own = root + "/own/" + body;
        if (destinationOf(msg) != root + "/requests")
            return;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(s, own.c_str()));
        if (std::stoi(body) % 2 == 1) {
            EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(s, own.c_str()));
        }
        EXPECT_EQ(VELCLIENT_OK, send(worker, root + "/answers", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, body));
        velClient_opaqueSession_pt self = s;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_destroy(&self));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT,
                          "Session destroyed from inside its own callback in velClient_session_destroy");
    };
    /* Each acknowledgement of an answer: a notice sent, and the same topic subscribed and dropped again, before
     * the broker has seen the last drop. */
    worker.onEvent = [&](velClient_opaqueSession_pt s, const Event &e) {
        if (e.event != VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT)
            return;
        const std::string scratch = root + "/scratch";
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(s, scratch.c_str()));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(s, scratch.c_str()));
        EXPECT_EQ(VELCLIENT_OK, send(worker, root + "/notices", false, VELCLIENT_DELIVERY_MODE_DIRECT, "acked"));
    };
    worker.subscribe(root + "/requests");
    peer.subscribe(root + "/answers");
    peer.subscribe(root + "/notices");
    static int tags[kCount];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = t * kEach; i < (t + 1) * kEach; ++i) {
                const std::string body = std::to_string(i);
                EXPECT_EQ(VELCLIENT_OK, send(peer, root + "/requests", false, kModes[i % 3], body, &tags[i]));
            }
        });
    for (std::thread &t : threads)
        t.join();
    /* Each guaranteed request is acknowledged once, with its tag, and no direct one is. */
    const std::size_t guaranteed = kCount - (kCount + 2) / 3;
    EXPECT_TRUE(peer.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, guaranteed));
    std::multiset<std::string> bodies = peer.bodies(2 * kCount, 60s);
    std::multiset<void *> acknowledged;
    for (const Event &e : peer.events(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT))
        acknowledged.insert(e.correlation_p);
    EXPECT_EQ(guaranteed, acknowledged.size());
    for (int i = 0; i < kCount; ++i)
        EXPECT_EQ(kModes[i % 3] == VELCLIENT_DELIVERY_MODE_DIRECT ? 0u : 1u, acknowledged.count(&tags[i])) << i;
    std::multiset<std::string> answersAndNotices;
    for (int i = 0; i < kCount; ++i)
        answersAndNotices.insert({std::to_string(i), "acked"});
    EXPECT_EQ(answersAndNotices, bodies);
    /* The even topics subscribed from the callback are held, the odd ones not. */
    worker.sync();
    for (int n : {kCount - 2, kCount - 1})
        ASSERT_EQ(VELCLIENT_OK, send(peer, root + "/own/" + std::to_string(n), false, VELCLIENT_DELIVERY_MODE_DIRECT,
                                     "own" + std::to_string(n)));
    std::multiset<std::string> own = worker.bodies(kCount + 1);
    EXPECT_EQ(static_cast<std::size_t>(kCount + 1), own.size());
    EXPECT_EQ(1u, own.count("own" + std::to_string(kCount - 2)));
    EXPECT_EQ(0u, worker.countEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
}

TEST(BrokerTopics, WildcardsAndReservedCharactersArriveUnchanged)
{
    const std::string root = unique("w");
    Client receiver, sender;
    ASSERT_TRUE(connectAll(receiver, sender));
    /* Levels under root ("$x": "$" before root); each message's attachment is its level. */
    auto topic = [&](const std::string &t) { return t[0] == '$' ? "$" + root + "/" + t.substr(1) : root + "/" + t; };
    /* "*" and ">" are wildcards only as whole levels; "+", "#" and "." are never wildcards. */
    std::vector<std::string> subs = {"*/new", "stock/>", "x*/lit"};
    std::vector<std::string> sent = {"orders/new", "x/new", "orders/new/more", "stock/a", "stock/a/b",
                                     "stock",      "x*/lit", "xy/lit"};
    std::multiset<std::string> expected = {"orders/new", "x/new", "stock/a", "stock/a/b", "x*/lit"};
    if (broker().amqp) {
        subs.insert(subs.end(), {"a.b/%/x"});
        sent.insert(sent.end(), {"a.b/%/x", "a/b/%/x", "a.b/%25/x"});
        expected.insert("a.b/%/x");
    } else {
        subs.insert(subs.end(), {"a+b/#c/%d", "+/p", "h/#", "$d"});
        sent.insert(sent.end(), {"a+b/#c/%d", "a+b/#c/%25d", "aXb/#c/%d", "+/p", "q/p", "h/#", "h/z", "$d"});
        expected.insert({"a+b/#c/%d", "+/p", "h/#", "$d"});
    }
    for (const std::string &s : subs)
        receiver.subscribe(topic(s));
    receiver.onMessage = [&](velClient_opaqueSession_pt, velClient_opaqueMsg_pt m) {
        EXPECT_EQ(topic(attachmentOf(m)), destinationOf(m));
    };
    auto publishAndCheck = [&](const std::vector<std::string> &levels, const std::multiset<std::string> &arrive) {
        for (const std::string &t : levels)
            ASSERT_EQ(VELCLIENT_OK, send(sender, topic(t), false, VELCLIENT_DELIVERY_MODE_DIRECT, t));
        EXPECT_EQ(arrive, receiver.bodies(arrive.size()));
    };
    publishAndCheck(sent, expected);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(receiver.session(), topic("*/new").c_str()));
    receiver.sync();
    /* Direct messages, the last to an address new to the sender, still go out when it disconnects at once.
     * A broker may drop a direct message that arrives just before the close (at most once), so a guaranteed
     * one follows on the same link: the disconnect waits for its acknowledgement, which the broker gives only
     * once it has routed what came before it. */
    for (const char *t : {"orders/new", "stock/z"})
        ASSERT_EQ(VELCLIENT_OK, send(sender, topic(t), false, VELCLIENT_DELIVERY_MODE_DIRECT, t));
    ASSERT_EQ(VELCLIENT_OK, send(sender, topic("stock/z"), false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "stock/z"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_disconnect(sender.session()));
    EXPECT_EQ((std::multiset<std::string>{"stock/z", "stock/z"}), receiver.bodies(2));
}

} // namespace
