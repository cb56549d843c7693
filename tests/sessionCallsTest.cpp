/* The session calls without a broker: the broker properties checked at
 * creation, loopback and null sessions answering connect and subscribe at
 * once, the refusals of bad handles and arguments, the inbox topic base of a
 * broker session, and the names of events. Connecting to a closed port is
 * tested with the broker tests and through the velclient command. */
#include "support/velTestSupport.h"

namespace {

velClient_returnCode_t create(std::vector<const char *> props, velClient_opaqueSession_pt *s)
{
    props.push_back(nullptr);
    return velClient_session_create(props.data(), nullptr, nullptr, s);
}

} // namespace

TEST(SessionCalls, BrokerPropertiesAreCheckedAtCreation)
{
    using Rows = std::vector<std::pair<const char *, const char *>>;
    const std::string longName(251, 'n'); /* the text is cut at 255 characters, in the value */
    const Rows refused = {
        {"SESSION_TRANSPORT", "mqtt5"},          {"SESSION_HOST", ""},
        {"SESSION_HOST", "a,,b"},                {"SESSION_HOST", "host:0"},
        {"SESSION_HOST", "host:65536"},          {"SESSION_HOST", "host:12x"},
        {"SESSION_HOST", "::1"},                 {"SESSION_HOST", "[::1"},
        {"SESSION_SSL", "yes"},                  {"SESSION_SSL_VALIDATE_CERTIFICATE", "2"},
        {"SESSION_CONNECT_TIMEOUT_MS", "0"},     {"SESSION_CONNECT_TIMEOUT_MS", "-5"},
        {"SESSION_RECONNECT_RETRIES", "-2"},     {"SESSION_RECONNECT_RETRY_WAIT_MS", "1e3"},
        {"SESSION_KEEPALIVE_MS", ""},            {"SESSION_SEND_BLOCKING", "true"},
        {"SESSION_SEND_TIMEOUT_MS", "99999999999"}, {"SESSION_PUB_WINDOW_SIZE", "0"},
        {"SESSION_PUB_WINDOW_SIZE", "256"},      {"SESSION_RECEIVE_ACK_MODE", "manual"},
        {"SESSION_AMQP_TOPIC_PREFIX", ""},       {"SESSION_AMQP_LEVEL_SEPARATOR", ""},
        {"SESSION_AMQP_WILDCARD_MORE", nullptr}, {"SESSION_P2P_TOPIC_BASE", nullptr},
        {"SESSION_GENERATE_SENDER_ID", "yes"},   {"SESSION_CLIENT_NAME", longName.c_str()},
    };
    const Rows accepted = {
        {"SESSION_TRANSPORT", "amqp"}, {"SESSION_HOST", "a.example:1,b,[::1]:5671,[fe80::1]"},
        {"SESSION_USERNAME", "guest"}, {"SESSION_PASSWORD", ""}, {"SESSION_SSL", "1"},
        {"SESSION_SSL_TRUST_STORE", "/nowhere/ca.pem"}, {"SESSION_SSL_VALIDATE_CERTIFICATE", "0"},
        {"SESSION_CONNECT_TIMEOUT_MS", "1"}, {"SESSION_RECONNECT_RETRIES", "-1"},
        {"SESSION_RECONNECT_RETRY_WAIT_MS", "0"}, {"SESSION_KEEPALIVE_MS", "0"}, {"SESSION_SEND_BLOCKING", "0"},
        {"SESSION_SEND_TIMEOUT_MS", "86400000"}, {"SESSION_PUB_WINDOW_SIZE", "255"}, {"SESSION_PUB_WINDOW_SIZE", "1"},
        {"SESSION_RECEIVE_ACK_MODE", "client"}, {"SESSION_AMQP_QUEUE_PREFIX", "q/"}, {"SESSION_AMQP_WILDCARD_ONE", "+"},
    };
    for (auto [name, value] : accepted) {
        velClient_opaqueSession_pt s = nullptr;
        EXPECT_EQ(VELCLIENT_OK, create({name, value}, &s)) << name << "=" << value;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&s));
    }
    for (auto [name, value] : refused) {
        const std::string shown = value != nullptr ? value : "(null)";
        velClient_opaqueSession_pt s = nullptr;
        EXPECT_EQ(VELCLIENT_FAIL, create({name, value}, &s)) << name << "=" << shown;
        EXPECT_EQ(nullptr, s);
        const std::string text = std::string("Invalid value for property ") + name + " in velClient_session_create: '";
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, (text + shown + "'").substr(0, 255));
    }
}

TEST(SessionCalls, LoopbackAndNullSessionsAreUpAtOnce)
{
    for (const char *transport : {"loopback", "null"}) {
        velClient_opaqueSession_pt s = nullptr;
        veltest::Msg m; /* sent with no callback to take it */
        ASSERT_EQ(VELCLIENT_OK, create({"SESSION_TRANSPORT", transport, "SESSION_RECEIVE_ACK_MODE", "client"}, &s));
        for (velClient_returnCode_t rc :
             {velClient_session_connect(s), velClient_session_sendMsg(s, m.h),
              velClient_session_topicSubscribe(s, "a/*/c"), velClient_session_topicUnsubscribe(s, "a/>"),
              velClient_session_queueSubscribe(s, "q1"), velClient_session_queueUnsubscribe(s, "q1"),
              velClient_session_disconnect(s)})
            EXPECT_EQ(VELCLIENT_OK, rc) << transport;
        EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&s));
    }
}

TEST(SessionCalls, BadHandlesAndArgumentsAreRefused)
{
    velClient_opaqueSession_pt s = nullptr, broker = nullptr, destroyed = nullptr, none = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, nullptr, nullptr, &destroyed));
    void *const stale = destroyed; /* its entry goes to the next session, s */
    velClient_session_destroy(&destroyed);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, nullptr, nullptr, &s));
    ASSERT_EQ(VELCLIENT_OK, create({"SESSION_TRANSPORT", "amqp", "SESSION_HOST", "broker1.example:5673,b2",
                                    "SESSION_CLIENT_NAME", "me"},
                                   &broker));
    veltest::expectBadHandleRefusals({reinterpret_cast<void *>(0x4242), stale}, {{"Bad session pointer (%p) in %s", {
        VEL_BAD_CALL(velClient_session_connect), VEL_BAD_CALL(velClient_session_disconnect),
        VEL_BAD_CALL(velClient_session_topicSubscribe, "t"), VEL_BAD_CALL(velClient_session_topicUnsubscribe, "t"),
        VEL_BAD_CALL(velClient_session_queueSubscribe, "q"), VEL_BAD_CALL(velClient_session_queueUnsubscribe, "q"),
        VEL_BAD_CALL(velClient_session_ack, 1), VEL_BAD_CALL(velClient_session_setEventCallback, nullptr, nullptr),
    }}});
    const auto N = VELCLIENT_SUBCODE_PARAM_NULL_PTR, R = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
               E = VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED;
    const std::string tooLong(251, 't');
    const char *colour[] = {"SESSION_TRANSPORT", "null", "SESSION_COLOUR", "red", nullptr}; /* a good one first */
    veltest::Msg m;
    veltest::expectRefusals({
        REFUSE_IN(velClient_session_create, (colour, nullptr, nullptr, &none), R, "Unknown property SESSION_COLOUR"),
        REFUSE_IN(velClient_session_topicSubscribe, (s, nullptr), N, "Null topic pointer"),
        REFUSE_IN(velClient_session_queueUnsubscribe, (s, nullptr), N, "Null queueName pointer"),
        REFUSE_IN(velClient_session_topicUnsubscribe, (s, ""), R, "Empty topic"),
        REFUSE_IN(velClient_session_queueSubscribe, (s, tooLong.c_str()), R,
                  "queueName length of 251 exceeds maximum of 250"),
        REFUSE_IN(velClient_session_ack, (s, 1), R, "No message with id 1 awaits acknowledgement"),
        REFUSE_IN(velClient_session_topicSubscribe, (broker, "t"), E, "Session not connected"),
        REFUSE_IN(velClient_session_queueSubscribe, (broker, "q"), E, "Session not connected"),
        REFUSE_IN(velClient_session_sendMsg, (broker, m.h), E, "Session not connected"),
    });
    /* The inbox topic base of a broker session names its first host. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(m.h, broker, "r/1"));
    velClient_destination_t reply{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m.h, &reply, sizeof reply));
    EXPECT_STREQ("#P2P/v:broker1.example/me/r/1", reply.dest);
    /* A broker session that is not connected disconnects at once. */
    EXPECT_EQ(VELCLIENT_OK, velClient_session_disconnect(broker));
    velClient_session_destroy(&broker);
    velClient_session_destroy(&s);
}

TEST(SessionCalls, EventNames)
{
    const char *names[] = {"Unknown", "UP_NOTICE", "DOWN_ERROR", "RECONNECTING_NOTICE", "RECONNECTED_NOTICE",
                           "ACKNOWLEDGEMENT", "REJECTED_MSG_ERROR", "CAN_SEND", "SUBSCRIPTION_ERROR", "Unknown"};
    for (int e = -1; e <= 8; ++e)
        EXPECT_STREQ(names[e + 1], velClient_session_eventToString(static_cast<velClient_session_event_t>(e)));
}
