/* Broker sessions against a real broker, through the public API: connecting
 * and its failures, messages that read back as on a loopback session, topic
 * wildcards and unsubscribing, queues with automatic and client
 * acknowledgement, the broker's outcome of guaranteed messages, and sends
 * from several threads and from inside the callbacks. */
#include <cstring>
#include <set>
#include <thread>

#include <proton/codec.h>
#include <proton/message.h>

#include "broker/brokerFixture.h"
#include "broker/foreignSender.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

std::string lastText()
{
    return velClient_getLastErrorInfo()->errorStr;
}

/* Waits for exactly one message (nothing more within 300 ms) and checks its attachment. */
void expectOneMessage(Client &c, const std::string &attachment)
{
    ASSERT_TRUE(c.waitMessages(1));
    std::this_thread::sleep_for(300ms);
    std::vector<velClient_opaqueMsg_pt> got = c.messages();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(attachment, attachmentOf(got[0]));
    freeAll(got);
}

} // namespace

TEST(BrokerConnect, FailuresNameTheHostAndTheReason)
{
    std::string closed = "127.0.0.1:" + std::to_string(closedPort());
    struct Row {
        std::vector<std::string> props;
        velClient_subCode_t subCode;
        std::vector<std::string> inText;
    };
    const Row rows[] = {
        {{"SESSION_HOST", closed}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {"Could not connect to " + closed + " ("}},
        {{"SESSION_USERNAME", "guest", "SESSION_PASSWORD", "wrong"}, VELCLIENT_SUBCODE_LOGIN_FAILURE, {host()}},
        {{"SESSION_USERNAME", "nobody", "SESSION_PASSWORD", "guest"}, VELCLIENT_SUBCODE_LOGIN_FAILURE, {host()}},
        {{"SESSION_HOST", closed + "," + closed}, VELCLIENT_SUBCODE_COMMUNICATION_ERROR, {closed + " (", "; " + closed}},
    };
    for (const Row &row : rows) {
        Client c(row.props);
        velClient_resetLastErrorInfo();
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_connect(c.session())) << row.props[1];
        EXPECT_EQ(row.subCode, velClient_getLastErrorInfo()->subCode) << lastText();
        for (const std::string &part : row.inText)
            EXPECT_NE(std::string::npos, lastText().find(part)) << part << " not in " << lastText();
        EXPECT_EQ(0u, c.countEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE));
    }
}

TEST(BrokerConnect, PlainLoginAnonymousAndFailoverComeUp)
{
    std::string closed = "127.0.0.1:" + std::to_string(closedPort());
    const std::vector<std::string> rows[] = {
        {},
        {"SESSION_USERNAME", "guest", "SESSION_PASSWORD", "guest"},
        {"SESSION_HOST", closed + "," + host()},
    };
    for (const auto &props : rows) {
        Client c(props);
        ASSERT_TRUE(connectAll(c));
        EXPECT_TRUE(c.waitEvents(VELCLIENT_SESSION_EVENT_UP_NOTICE, 1));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_connect(c.session())); /* already up */
        EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(c.session()));
    }
}

TEST(BrokerMessages, ReadBackAsOnALoopbackSession)
{
    Client receiver, sender;
    ASSERT_TRUE(connectAll(receiver, sender));
    std::string topic = unique("fidelity/t"), queue = unique("fidelity-q");
    receiver.subscribeAndSync(topic);
    receiver.subscribeAndSync(queue, true);
    struct Row {
        bool queue;
        velClient_uint32_t mode;
    };
    for (Row row : {Row{false, VELCLIENT_DELIVERY_MODE_DIRECT}, Row{false, VELCLIENT_DELIVERY_MODE_PERSISTENT},
                    Row{true, VELCLIENT_DELIVERY_MODE_DIRECT}, Row{true, VELCLIENT_DELIVERY_MODE_PERSISTENT},
                    Row{true, VELCLIENT_DELIVERY_MODE_NONPERSISTENT}}) {
        velClient_opaqueMsg_pt m = richMessage(row.queue ? queue : topic, row.queue, row.mode);
        std::string expected = loopbackDump(m);
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m)) << lastText();
        velClient_msg_free(&m);
        ASSERT_TRUE(receiver.waitMessages(1)) << "queue " << row.queue << " mode " << row.mode;
        std::vector<velClient_opaqueMsg_pt> got = receiver.messages();
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(expected, dumpWithoutReceiveLines(got[0])) << "queue " << row.queue << " mode " << row.mode;
        velClient_int64_t received = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getRcvTimestamp(got[0], &received));
        EXPECT_GT(received, 0);
        freeAll(got);
    }
    /* The two guaranteed messages were acknowledged, the direct ones not. */
    EXPECT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 3));
    EXPECT_EQ(3u, sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
}

TEST(BrokerTopics, WildcardsLevelsAndUnsubscribe)
{
    Client receiver, sender;
    ASSERT_TRUE(connectAll(receiver, sender));
    std::string root = unique("w");
    receiver.subscribeAndSync(root + "/*/new");
    receiver.subscribeAndSync(root + "/stock/>");
    receiver.subscribeAndSync(root + "/a.b/%/x");
    auto publish = [&](const std::vector<std::string> &topics) {
        for (const std::string &t : topics) {
            velClient_opaqueMsg_pt m = makeMessage(root + "/" + t, false, VELCLIENT_DELIVERY_MODE_DIRECT, t);
            ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
            velClient_msg_free(&m);
        }
    };
    auto receivedSet = [&](std::size_t expected) {
        EXPECT_TRUE(receiver.waitMessages(expected));
        std::this_thread::sleep_for(300ms); /* anything beyond the expected */
        std::multiset<std::string> seen;
        std::vector<velClient_opaqueMsg_pt> got = receiver.messages();
        for (velClient_opaqueMsg_pt m : got) {
            seen.insert(attachmentOf(m));
            velClient_destination_t d{};
            EXPECT_EQ(VELCLIENT_OK, velClient_msg_getDestination(m, &d, sizeof d));
            EXPECT_EQ(root + "/" + attachmentOf(m), d.dest);
        }
        freeAll(got);
        return seen;
    };
    publish({"orders/new", "x/new", "orders/new/more", "stock/a", "stock/a/b", "stock", "a.b/%/x", "a/b/%/x",
             "a.b/%25/x"});
    EXPECT_EQ((std::multiset<std::string>{"orders/new", "x/new", "stock/a", "stock/a/b", "a.b/%/x"}), receivedSet(5));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(receiver.session(), (root + "/*/new").c_str()));
    receiver.subscribeAndSync(root + "/sync"); /* the unsubscribe has taken effect */
    publish({"orders/new", "stock/z"});
    EXPECT_EQ((std::multiset<std::string>{"stock/z"}), receivedSet(1));
}

TEST(BrokerQueues, ClientAcknowledgementKeepsWhatWasNotAcknowledged)
{
    std::string queue = unique("ack-q");
    Client sender;
    ASSERT_TRUE(connectAll(sender));
    std::vector<std::string> bodies = {"one", "two", "three"};
    {
        Client first({"SESSION_RECEIVE_ACK_MODE", "client"});
        ASSERT_TRUE(connectAll(first));
        first.subscribeAndSync(queue, true);
        for (const std::string &b : bodies) {
            velClient_opaqueMsg_pt m = makeMessage(queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, b);
            ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
            velClient_msg_free(&m);
        }
        ASSERT_TRUE(first.waitMessages(3));
        std::vector<velClient_opaqueMsg_pt> got = first.messages();
        ASSERT_EQ(3u, got.size());
        velClient_msgId_t ids[3] = {};
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(got[i], &ids[i]));
            EXPECT_EQ(bodies[i], attachmentOf(got[i]));
        }
        EXPECT_EQ(ids[0] + 1, ids[1]);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_ack(first.session(), ids[1]));
        velClient_resetLastErrorInfo();
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_ack(first.session(), ids[1]));
        EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, velClient_getLastErrorInfo()->subCode);
        EXPECT_EQ("No message with id " + std::to_string(ids[1]) + " awaits acknowledgement in velClient_session_ack",
                  lastText());
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_ack(first.session(), ids[2] + 100));
        freeAll(got);
    }
    /* The messages not acknowledged come back, marked redelivered; the acknowledged one does not. */
    {
        Client second;
        ASSERT_TRUE(connectAll(second));
        second.subscribeAndSync(queue, true);
        ASSERT_TRUE(second.waitMessages(2));
        std::this_thread::sleep_for(300ms);
        std::vector<velClient_opaqueMsg_pt> again = second.messages();
        ASSERT_EQ(2u, again.size());
        EXPECT_EQ("one", attachmentOf(again[0]));
        EXPECT_EQ("three", attachmentOf(again[1]));
        for (velClient_opaqueMsg_pt m : again)
            EXPECT_TRUE(velClient_msg_isRedelivered(m));
        freeAll(again);
    }
    /* Accepted automatically: nothing left for a third reader. */
    Client third;
    ASSERT_TRUE(connectAll(third));
    third.subscribeAndSync(queue, true);
    EXPECT_FALSE(third.waitMessages(1, 500ms));
}

TEST(BrokerSends, EachGuaranteedMessageGetsOneOutcomeWithItsTag)
{
    Client sender;
    ASSERT_TRUE(connectAll(sender));
    std::string queue = unique("outcome-q");
    static int tags[20];
    for (int i = 0; i < 20; ++i) {
        velClient_opaqueMsg_pt m = makeMessage(queue, true, i % 2 ? VELCLIENT_DELIVERY_MODE_PERSISTENT
                                                                   : VELCLIENT_DELIVERY_MODE_NONPERSISTENT);
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationTagPtr(m, &tags[i], 0));
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
        velClient_msg_free(&m);
    }
    ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 20));
    std::set<void *> seen;
    for (const Event &e : sender.events())
        if (e.event == VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT)
            seen.insert(e.correlation_p);
    EXPECT_EQ(20u, seen.size());
    for (int &t : tags)
        EXPECT_EQ(1u, seen.count(&t));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(sender.session()));
}

TEST(BrokerThreads, SendsFromThreadsAndFromInsideTheCallbacks)
{
    Client echo, sender;
    ASSERT_TRUE(connectAll(echo, sender));
    std::string in = unique("echo/in"), out = unique("echo/out");
    /* The echo session answers every message from inside its receive callback. */
    echo.onMessage = [&](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg) {
        velClient_opaqueMsg_pt reply = makeMessage(out, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, attachmentOf(msg));
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, reply));
        velClient_opaqueSession_pt self = s;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_destroy(&self));
        EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_CONFLICT, velClient_getLastErrorInfo()->subCode);
        velClient_msg_free(&reply);
    };
    echo.subscribeAndSync(in);
    sender.subscribeAndSync(out);
    constexpr int kThreads = 4, kEach = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                velClient_opaqueMsg_pt m = makeMessage(in, false,
                                                       i % 2 ? VELCLIENT_DELIVERY_MODE_PERSISTENT
                                                             : VELCLIENT_DELIVERY_MODE_DIRECT,
                                                       std::to_string(t) + ":" + std::to_string(i));
                EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
                velClient_msg_free(&m);
            }
        });
    for (std::thread &t : threads)
        t.join();
    ASSERT_TRUE(sender.waitMessages(kThreads * kEach, 60s));
    std::set<std::string> seen;
    std::vector<velClient_opaqueMsg_pt> got = sender.messages();
    for (velClient_opaqueMsg_pt m : got)
        seen.insert(attachmentOf(m));
    freeAll(got);
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach), seen.size());
    EXPECT_TRUE(echo.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, kThreads * kEach));
}

TEST(BrokerTls, TheTrustStoreDecides)
{
    std::string tlsHost = "127.0.0.1:" + std::to_string(tlsPort());
    std::string localhost = "localhost:" + std::to_string(tlsPort());
    struct Row {
        std::vector<std::string> props;
        velClient_returnCode_t rc;
    };
    const Row rows[] = {
        {{"SESSION_HOST", tlsHost, "SESSION_SSL_TRUST_STORE", tlsFile("ca.pem")}, VELCLIENT_OK},
        {{"SESSION_HOST", localhost, "SESSION_SSL_TRUST_STORE", tlsFile("ca.pem")}, VELCLIENT_OK},
        {{"SESSION_HOST", tlsHost, "SESSION_SSL_TRUST_STORE", tlsFile("other-ca.pem")}, VELCLIENT_FAIL},
        {{"SESSION_HOST", tlsHost, "SESSION_SSL_TRUST_STORE", tlsFile("missing.pem")}, VELCLIENT_FAIL},
        {{"SESSION_HOST", tlsHost, "SESSION_SSL_TRUST_STORE", tlsFile("other-ca.pem"),
          "SESSION_SSL_VALIDATE_CERTIFICATE", "0"},
         VELCLIENT_OK},
    };
    for (const Row &row : rows) {
        std::vector<std::string> props = row.props;
        props.insert(props.end(), {"SESSION_SSL", "1", "SESSION_CONNECT_TIMEOUT_MS", "5000"});
        Client c(props);
        velClient_resetLastErrorInfo();
        velClient_returnCode_t rc = velClient_session_connect(c.session());
        EXPECT_EQ(row.rc, rc) << row.props[1] << " " << row.props[3] << ": " << lastText();
        if (rc == VELCLIENT_FAIL) {
            EXPECT_EQ(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, velClient_getLastErrorInfo()->subCode);
            EXPECT_NE(std::string::npos, lastText().find(row.props[1])) << lastText();
            continue;
        }
        /* Messages go round over TLS. */
        std::string topic = unique("tls/t");
        c.subscribeAndSync(topic);
        velClient_opaqueMsg_pt m = makeMessage(topic, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "secret");
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(c.session(), m));
        velClient_msg_free(&m);
        expectOneMessage(c, "secret");
    }
}

TEST(BrokerSubscriptions, ARefusedSubscriptionIsReportedAndTrafficGoesOn)
{
    /* A prefix naming an exchange that does not exist makes every topic address a bad one. */
    Client bad({"SESSION_AMQP_TOPIC_PREFIX", "/exchange/velclient-missing/"});
    ASSERT_TRUE(connectAll(bad));
    std::string queue = unique("after-refusal-q");
    ASSERT_EQ(VELCLIENT_OK, velClient_session_queueSubscribe(bad.session(), queue.c_str()));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(bad.session(), "some/topic"));
    /* The inbox subscription is refused as well. */
    ASSERT_TRUE(bad.waitEvents(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, 2));
    bool named = false;
    for (const Event &e : bad.events())
        named |= e.event == VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR &&
                 e.info.find("/exchange/velclient-missing/some.topic") == 0;
    EXPECT_TRUE(named);
    /* The queue subscription goes on receiving. */
    velClient_opaqueMsg_pt m = makeMessage(queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "still");
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(bad.session(), m));
    velClient_msg_free(&m);
    expectOneMessage(bad, "still");
}

TEST(BrokerInbox, AReplyToTheInboxReachesTheRequester)
{
    Client requester, responder;
    ASSERT_TRUE(connectAll(requester, responder));
    std::string service = unique("service/t");
    /* The responder answers to the reply-to of each request (probes have none), from inside its callback. */
    responder.onMessage = [](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request) {
        velClient_destination_t replyTo{};
        if (velClient_msg_getReplyTo(request, &replyTo, sizeof replyTo) != VELCLIENT_OK)
            return;
        velClient_opaqueMsg_pt reply = makeMessage(replyTo.dest, false, VELCLIENT_DELIVERY_MODE_DIRECT, "answer");
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, reply));
        velClient_msg_free(&reply);
    };
    responder.subscribeAndSync(service);
    velClient_opaqueMsg_pt request = makeMessage(service, false, VELCLIENT_DELIVERY_MODE_DIRECT, "question");
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(request, requester.session(), "calls/1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(requester.session(), request));
    velClient_msg_free(&request);
    ASSERT_TRUE(requester.waitMessages(1));
    std::vector<velClient_opaqueMsg_pt> got = requester.messages();
    EXPECT_EQ("answer", attachmentOf(got[0]));
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getDestination(got[0], &d, sizeof d));
    EXPECT_EQ(0, std::strncmp(d.dest, "#P2P/v:127.0.0.1/", 17)) << d.dest;
    freeAll(got);
}

TEST(BrokerHostilePeers, AMessageThatDoesNotConvertIsRefusedAndTheSessionGoesOn)
{
    std::string queue = unique("hostile-q");
    Client reader;
    ASSERT_TRUE(connectAll(reader));
    reader.subscribeAndSync(queue, true);
    /* An amqp-value body holding an int: no message of this library has such a body. */
    ASSERT_TRUE(sendForeign("/queue/" + queue, [](pn_message_t *m) {
        pn_data_put_int(pn_message_body(m), 7);
    }));
    velClient_opaqueMsg_pt good = makeMessage(queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "good");
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(reader.session(), good));
    velClient_msg_free(&good);
    expectOneMessage(reader, "good");
    /* Rejected, not left on the queue: a new reader finds nothing. */
    Client next;
    ASSERT_TRUE(connectAll(next));
    next.subscribeAndSync(queue, true);
    EXPECT_FALSE(next.waitMessages(1, 500ms));
}
