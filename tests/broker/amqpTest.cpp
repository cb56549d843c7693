/* What only AMQP sessions have: queues with client acknowledgement, TLS and
 * its trust store, links the broker refuses, what a plain AMQP 1.0
 * client reads of the messages this library sends (the standard header and
 * properties, typed application properties, a byte attachment as a data
 * section, an attachment map as an amqp-value map), and a message no sender
 * of this library would make. */
#include <map>

#include <proton/codec.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/disposition.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include "support/brokerSupport.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;

/* A plain Qpid Proton-C client on the broker, to see what this library sends
 * as any other AMQP 1.0 client sees it and to send what this library never
 * would: a link to address (sending) or from it, which accepts every message
 * and keeps its encoded bytes; durable asks for a durable terminus, as this
 * library does for queues. Its events are handled on the test's thread, in pump(). */
class AmqpPeer {
public:
    AmqpPeer(const std::string &address, bool sending, bool durable)
        : address_(address), sending_(sending), durable_(durable), proactor_(pn_proactor()),
          connection_(pn_connection())
    {
        char addr[PN_MAX_ADDR];
        pn_proactor_addr(addr, sizeof addr, "127.0.0.1", std::to_string(broker().port).c_str());
        pn_proactor_connect2(proactor_, connection_, nullptr, addr);
    }
    ~AmqpPeer()
    {
        /* The wake closes the connection; the broker's answer, or 5 s, ends the wait. */
        closing_ = true;
        pn_connection_wake(connection_);
        pump([this] { return closed_; }, 5s);
        pn_proactor_free(proactor_);
    }
    AmqpPeer(const AmqpPeer &) = delete;
    AmqpPeer &operator=(const AmqpPeer &) = delete;

    /* Handles events until done() holds, or for at most timeout; done(). */
    bool pump(const std::function<bool()> &done, std::chrono::milliseconds timeout = 20s)
    {
        for (auto deadline = std::chrono::steady_clock::now() + timeout;
             !done() && !closed_ && std::chrono::steady_clock::now() < deadline;) {
            pn_event_batch_t *batch = pn_proactor_get(proactor_);
            while (pn_event_t *event = batch != nullptr ? pn_event_batch_next(batch) : nullptr)
                handle(event);
            if (batch != nullptr)
                pn_proactor_done(proactor_, batch);
            else
                std::this_thread::sleep_for(5ms);
        }
        return done();
    }
    /* Sends the message that fill builds, pre-settled, once the link has credit; false when it could not. */
    bool send(const std::function<void(pn_message_t *)> &fill)
    {
        pn_message_t *message = pn_message();
        fill(message);
        pending_.resize(1 << 16);
        std::size_t size = pending_.size();
        const bool encoded = pn_message_encode(message, pending_.data(), &size) == 0;
        pn_message_free(message);
        pending_.resize(encoded ? size : 0);
        pn_connection_wake(connection_);
        return encoded && pump([this] { return pending_.empty(); });
    }

    bool attached = false; /* the broker has answered the attach: a topic routes to it from then on */
    std::vector<std::string> received;

private:
    void handle(pn_event_t *event)
    {
        switch (pn_event_type(event)) {
        case PN_CONNECTION_INIT: {
            pn_connection_set_container(connection_, "velclient-plain-peer");
            pn_connection_open(connection_);
            pn_session_t *session = pn_session(connection_);
            pn_session_open(session);
            link_ = (sending_ ? pn_sender : pn_receiver)(session, "velclient-plain-peer");
            pn_terminus_t *terminus = sending_ ? pn_link_target(link_) : pn_link_source(link_);
            pn_terminus_set_address(terminus, address_.c_str());
            if (durable_)
                pn_terminus_set_durability(terminus, PN_CONFIGURATION);
            pn_link_open(link_);
            if (!sending_)
                pn_link_flow(link_, 100);
            break;
        }
        case PN_LINK_REMOTE_OPEN: attached = true; break;
        case PN_CONNECTION_WAKE:
        case PN_LINK_FLOW:
            if (closing_) {
                pn_connection_close(connection_);
            } else if (sending_ && !pending_.empty() && pn_link_credit(link_) > 0) {
                pn_delivery_t *d = pn_delivery(link_, pn_dtag("1", 1));
                pn_link_send(link_, pending_.data(), pending_.size());
                pn_link_advance(link_);
                pn_delivery_settle(d);
                pending_.clear();
            }
            break;
        case PN_DELIVERY: {
            pn_delivery_t *delivery = pn_event_delivery(event);
            if (sending_ || !pn_delivery_readable(delivery) || pn_delivery_partial(delivery))
                break;
            std::string bytes(pn_delivery_pending(delivery), '\0');
            pn_link_recv(link_, bytes.data(), bytes.size());
            pn_link_advance(link_);
            pn_delivery_update(delivery, PN_ACCEPTED);
            pn_delivery_settle(delivery);
            received.push_back(std::move(bytes));
            break;
        }
        case PN_TRANSPORT_CLOSED: closed_ = true; break;
        default: break;
        }
    }

    std::string address_;
    bool sending_, durable_;
    pn_proactor_t *proactor_;
    pn_connection_t *connection_;
    pn_link_t *link_ = nullptr;
    std::vector<char> pending_; /* the encoded message to send */
    bool closing_ = false, closed_ = false;
};

TEST(AmqpQueues, ClientAcknowledgementKeepsWhatWasNotAcknowledged)
{
    const std::string queue = unique("ack-q");
    Client sender, first({"SESSION_RECEIVE_ACK_MODE", "client"});
    velClient_msgId_t ids[3] = {};
    first.onMessage = [&ids, n = 0](velClient_opaqueSession_pt, velClient_opaqueMsg_pt m) mutable {
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m, &ids[n++ % 3]));
    };
    ASSERT_TRUE(connectAll(sender, first));
    first.subscribe(queue, true);
    for (const char *body : {"one", "two", "three"})
        ASSERT_EQ(VELCLIENT_OK, send(sender, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, body));
    EXPECT_EQ((std::multiset<std::string>{"one", "two", "three"}), first.bodies(3));
    EXPECT_EQ(ids[0] + 1, ids[1]);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_ack(first.session(), ids[1]));
    for (velClient_msgId_t id : {ids[1], ids[2] + 100}) {
        velClient_resetLastErrorInfo();
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_ack(first.session(), id));
        EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, veltest::lastSubCode());
        EXPECT_EQ("No message with id " + std::to_string(id) + " awaits acknowledgement in velClient_session_ack",
                  veltest::lastErrorText());
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_session_disconnect(first.session()));
    /* The messages not acknowledged come back, marked redelivered; the acknowledged one does not. */
    Client second;
    second.onMessage = [](velClient_opaqueSession_pt, velClient_opaqueMsg_pt m) {
        EXPECT_TRUE(velClient_msg_isRedelivered(m));
    };
    ASSERT_TRUE(connectAll(second));
    second.subscribe(queue, true);
    EXPECT_EQ((std::multiset<std::string>{"one", "three"}), second.bodies(2));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_disconnect(second.session()));
    /* Accepted automatically: nothing left for a third reader (one that takes no events). */
    Client third;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_setEventCallback(third.session(), nullptr, nullptr));
    ASSERT_TRUE(connectAll(third));
    third.subscribe(queue, true);
    EXPECT_FALSE(third.waitMessages(1, 500ms));
}

TEST(AmqpTls, TheTrustStoreDecides)
{
    const std::string tlsHost = "127.0.0.1:" + std::to_string(broker().tlsPort);
    const std::string localhost = "localhost:" + std::to_string(broker().tlsPort);
    struct Row {
        std::string host;
        const char *trustStore;
        const char *validate;
        velClient_returnCode_t rc;
    };
    for (const Row &row : {Row{tlsHost, "ca.pem", "1", VELCLIENT_OK}, Row{localhost, "ca.pem", "1", VELCLIENT_OK},
                           Row{tlsHost, "other-ca.pem", "1", VELCLIENT_FAIL},
                           Row{tlsHost, "missing.pem", "1", VELCLIENT_FAIL},
                           Row{tlsHost, "other-ca.pem", "0", VELCLIENT_OK}}) {
        SCOPED_TRACE(row.host + " " + row.trustStore + " validate " + row.validate);
        Client c({"SESSION_HOST", row.host, "SESSION_SSL_TRUST_STORE", broker().tlsFile(row.trustStore),
                  "SESSION_SSL_VALIDATE_CERTIFICATE", row.validate, "SESSION_SSL", "1", "SESSION_CONNECT_TIMEOUT_MS",
                  "5000"});
        velClient_resetLastErrorInfo();
        const velClient_returnCode_t rc = velClient_session_connect(c.session());
        EXPECT_EQ(row.rc, rc) << veltest::lastErrorText();
        if (rc == VELCLIENT_FAIL) {
            EXPECT_EQ(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, veltest::lastSubCode());
            EXPECT_NE(std::string::npos, veltest::lastErrorText().find(row.host)) << veltest::lastErrorText();
            continue;
        }
        /* Messages go round over TLS. */
        const std::string topic = unique("tls/t");
        c.subscribe(topic);
        EXPECT_EQ(VELCLIENT_OK, send(c, topic, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "secret"));
        EXPECT_EQ(std::multiset<std::string>{"secret"}, c.bodies(1));
    }
}

TEST(AmqpHostilePeers, ARefusedAttachAndAMessageThatDoesNotConvertAreReportedAndTrafficGoesOn)
{
    /* A prefix naming an exchange that does not exist makes every topic address a bad one. */
    Client bad({"SESSION_AMQP_TOPIC_PREFIX", "/exchange/velclient-missing/"});
    ASSERT_TRUE(connectAll(bad));
    const std::string queue = unique("hostile-q");
    bad.subscribe(queue, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(bad.session(), "some/topic"));
    /* The inbox subscription is refused as well. */
    ASSERT_TRUE(bad.waitEvents(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, 2));
    bool named = false;
    for (const Event &e : bad.events())
        named |= e.event == VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR &&
                 e.info.find("/exchange/velclient-missing/some.topic") == 0;
    EXPECT_TRUE(named);
    /* A message to such a topic is refused with the sender's attach, its tag in the event. */
    static int tag;
    velClient_opaqueMsg_pt m = makeMessage("some/topic", false, VELCLIENT_DELIVERY_MODE_PERSISTENT);
    velClient_msg_setCorrelationTagPtr(m, &tag, 0);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(bad.session(), m));
    velClient_msg_free(&m);
    ASSERT_TRUE(bad.waitEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 1));
    EXPECT_EQ(&tag, bad.events().back().correlation_p);
    /* An amqp-value body holding an int: no message of this library has such a body. */
    ASSERT_TRUE(AmqpPeer("/queue/" + queue, true, true).send([](pn_message_t *m) {
        pn_data_put_int(pn_message_body(m), 7);
    }));
    /* The queue subscription goes on receiving. */
    ASSERT_EQ(VELCLIENT_OK, send(bad, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "good"));
    EXPECT_EQ(std::multiset<std::string>{"good"}, bad.bodies(1));
    /* Rejected, not left on the queue: a new reader finds nothing. */
    Client next;
    ASSERT_TRUE(connectAll(next));
    next.subscribe(queue, true);
    EXPECT_FALSE(next.waitMessages(1, 500ms));
}

/* The value in data as Proton prints it, then the type of each value in it, depth first; "none" when empty. */
std::string typedValue(pn_data_t *d)
{
    pn_data_rewind(d);
    if (!pn_data_next(d))
        return "none";
    std::string text(4096, '\0'), types;
    std::size_t size = text.size();
    pn_data_format(d, text.data(), &size);
    text.resize(size);
    for (pn_data_rewind(d);;) {
        if (pn_data_next(d)) {
            types.append(" ").append(pn_type_name(pn_data_type(d)) + 3);
            if (pn_data_type(d) == PN_CHAR) /* which Proton does not print */
                types.append("=").append(std::to_string(pn_data_get_char(d)));
            if (pn_data_type(d) == PN_MAP)
                pn_data_enter(d);
        } else if (!pn_data_exit(d)) {
            break;
        }
    }
    return text + types;
}

/* Every field of the message a plain client would look at, as text. */
std::map<std::string, std::string> fieldsOf(const std::string &bytes)
{
    pn_message_t *m = pn_message();
    EXPECT_EQ(0, pn_message_decode(m, bytes.data(), bytes.size()));
    auto text = [](const char *s) { return std::string(s != nullptr ? s : "none"); };
    std::map<std::string, std::string> f = {
        {"to", text(pn_message_get_address(m))},
        {"durable", pn_message_is_durable(m) ? "true" : "false"},
        {"ttl", std::to_string(pn_message_get_ttl(m))},
        {"priority", std::to_string(pn_message_get_priority(m))},
        {"reply-to", text(pn_message_get_reply_to(m))},
        {"content-type", text(pn_message_get_content_type(m))},
        {"message-id", typedValue(pn_message_id(m))},
        {"correlation-id", typedValue(pn_message_correlation_id(m))},
        {"application-properties", typedValue(pn_message_properties(m))},
        /* Proton marks a body read from data sections as inferred. */
        {"body", (pn_message_is_inferred(m) ? "data " : "amqp-value ") + typedValue(pn_message_body(m))},
    };
    pn_message_free(m);
    return f;
}

TEST(AmqpForeignClient, APlainAmqpReaderSeesTheStandardFields)
{
    const std::string queue = unique("foreign-q");
    AmqpPeer queueReader("/queue/" + queue, false, true);
    ASSERT_TRUE(queueReader.pump([&] { return queueReader.attached; }));
    Client sender;
    ASSERT_TRUE(connectAll(sender));
    /* A persistent message with every part and property, a time to live among them; a direct one with bytes. */
    velClient_opaqueMsg_pt m = richMessage(queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT);
    velClient_msg_setTimeToLive(m, 60000);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
    velClient_msg_free(&m);
    EXPECT_EQ(VELCLIENT_OK, send(sender, queue, true, VELCLIENT_DELIVERY_MODE_DIRECT, "\x01\xff"));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(sender.session())); /* which still sends it */
    ASSERT_TRUE(queueReader.pump([&] { return queueReader.received.size() == 2; }));
    /* The user properties, and the nested map of the attachment: one of each type. */
    const std::string scalars =
        R"({"bool"=true, "u8"=200, "i8"=-8, "u16"=60000, "i16"=-300, "u32"=4000000000, "i32"=-42, )"
        R"("u64"=10000000000, "i64"=-5000000000, "wchar"=:, "float"=1.5, "double"=2.25, "string"="text", )"
        R"("bytes"=b"\x00\x7f", "null"=null})";
    const std::string types = "STRING BOOL STRING UBYTE STRING BYTE STRING USHORT STRING SHORT STRING UINT STRING INT "
                              "STRING ULONG STRING LONG STRING CHAR=9786 STRING FLOAT STRING DOUBLE STRING STRING "
                              "STRING BINARY STRING NULL";
    const std::map<std::string, std::string> persistent = {
        {"to", "/queue/" + queue},
        {"durable", "true"},
        {"ttl", "60000"},
        {"priority", "6"},
        {"reply-to", "/topic/replies.here"},
        {"content-type", "text/plain"},
        {"message-id", R"("app-id-1" STRING)"},
        {"correlation-id", R"("corr-1" STRING)"},
        {"application-properties", scalars + " MAP " + types},
        {"body", R"(amqp-value {"level"="outer", "nested"=)" + scalars + "} MAP STRING STRING STRING MAP " + types},
    };
    EXPECT_EQ(persistent, fieldsOf(queueReader.received[0]));
    const std::map<std::string, std::string> direct = fieldsOf(queueReader.received[1]);
    EXPECT_EQ(R"(data b"\x01\xff" BINARY)", direct.at("body"));
    EXPECT_TRUE(direct.at("durable") == "false" && direct.at("priority") == "4" && direct.at("ttl") == "0");
}

} // namespace
