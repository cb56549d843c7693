/* What only MQTT sessions have: queue calls refused, and plain MQTT 5 clients
 * beside them (mosquitto_sub and mosquitto_pub, each a child process bounded
 * by a message count and a timeout): what the foreign client sends reaches a
 * session with its expiry mapped, and the session's reply reaches the
 * foreign client's response topic showing the payload, the response topic,
 * the correlation data, the content type, the expiry and the string user
 * properties as MQTT's own. */
#include <chrono>
#include <regex>

#include "support/brokerSupport.h"
#include "support/toolProcess.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;

/* The wall clock to the millisecond, as the library reads it (std::time reads
 * a clock that lags it by up to a scheduler tick). */
std::int64_t wallClockMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

TEST(MqttForeign, MosquittoPubReachesASessionAndItsReplyComesBack)
{
    const std::string root = unique("foreign"), name = unique("responder-");
    Client responder({"SESSION_CLIENT_NAME", name});
    ASSERT_TRUE(connectAll(responder));
    /* The responder answers to the reply-to with the request's correlation id, a content type, a time to live,
     * user properties (only the string one is MQTT's own) and its inbox as reply-to. */
    responder.onMessage = [](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request) {
        velClient_destination_t replyTo{};
        const char *correlation = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(request, &replyTo, sizeof replyTo));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(request, &correlation));
        velClient_opaqueMsg_pt answer = makeMessage(replyTo.dest, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "reply");
        velClient_msg_setCorrelationId(answer, correlation);
        velClient_msg_setHttpContentType(answer, "text/plain");
        velClient_msg_setTimeToLive(answer, 60000);
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(answer, s, "r/1"));
        velClient_opaqueContainer_pt props = nullptr;
        velClient_msg_createUserPropertyMap(answer, &props, 128);
        velClient_container_addString(props, "v1", "s1");
        velClient_container_addInt32(props, 5, "n");
        velClient_container_closeMapStream(&props);
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, answer));
        velClient_msg_free(&answer);
    };
    responder.subscribe(root + "/requests");
    /* mosquitto_sub on the response topic, for one message or 20 s, printing its topic, payload, response topic,
     * correlation data, content type, expiry interval, user properties and QoS; it has subscribed when it says so.
     * A reserved character of the topic levels travels percent-encoded in the topic name. */
    veltest::ToolProcess replies("stdbuf", "-oL mosquitto_sub -V 5 -h 127.0.0.1 -p " + std::to_string(broker().port) +
                                               " -q 1 -d -C 1 -W 20 -t '" + root +
                                               "/re%2Bplies' -F 'MSG|%t|%p|%R|%D|%C|%E|%P|%q'");
    bool subscribed = false;
    for (std::string line; !subscribed && replies.readLine(line);)
        subscribed = line.rfind("Subscribed (mid: 1): 1", 0) == 0;
    ASSERT_TRUE(subscribed) << "mosquitto_sub did not subscribe: " << replies.finish().err;
    const std::int64_t sentAt = wallClockMs();
    veltest::ToolResult pub = veltest::runTool(
        "mosquitto_pub", "-V 5 -h 127.0.0.1 -p " + std::to_string(broker().port) + " -q 1 -t '" + root +
                             "/requests' -m 'the question' -D publish response-topic '" + root +
                             "/re%2Bplies' -D publish correlation-data corr-9 -D publish message-expiry-interval 60");
    ASSERT_EQ(0, pub.status) << pub.err;

    /* Its expiration is 60 s after the publish (how the rest of a plain client's publish maps, the codec test shows;
     * the reply below carries its correlation id and goes to its response topic). */
    ASSERT_TRUE(responder.waitMessages(1));
    std::vector<velClient_opaqueMsg_pt> got = responder.messages();
    ASSERT_EQ(1u, got.size());
    velClient_int64_t expiration = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(got[0], &expiration));
    EXPECT_GE(expiration, sentAt + 58000);
    EXPECT_LE(expiration, wallClockMs() + 60000);
    EXPECT_EQ("the question", attachmentOf(got[0]));
    freeAll(got);
    /* The reply as MQTT's own fields, its expiry 59 or 60 s, and the frame property that carries the rest. */
    std::vector<std::string> printed;
    for (std::string line; replies.readLine(line);)
        if (line.rfind("MSG|", 0) == 0)
            printed.push_back(line);
    EXPECT_EQ(0, replies.finish().status) << replies.finish().err;
    ASSERT_EQ(1u, printed.size());
    const std::string re = R"(MSG\|)" + root + R"(/re%2Bplies\|reply\|%23P2P/v:127\.0\.0\.1/)" + name +
                           R"(/r/1\|corr-9\|text/plain\|(59|60)\|s1:v1 x-vel-frame:[A-Za-z0-9+/]+=*\|1)";
    EXPECT_TRUE(std::regex_match(printed[0], std::regex(re))) << printed[0] << "\ndoes not match " << re;
}

} // namespace

TEST(MqttHostilePeers, QueueCallsAndAPublishTheBrokerRefusesAndOneThatDoesNotConvertAreReportedAndTrafficGoesOn)
{
    /* The access list of the login listener lets its user write anywhere but under velclient-denied/: the
     * refusal comes back as an event. */
    Client c({"SESSION_HOST", "127.0.0.1:" + std::to_string(broker().loginPort), "SESSION_USERNAME", "velclient",
              "SESSION_PASSWORD", "secret"});
    ASSERT_TRUE(connectAll(c));
    /* Queue calls and sends to a queue are refused at once. */
    velClient_opaqueMsg_pt m = makeMessage(unique("q"), true, VELCLIENT_DELIVERY_MODE_PERSISTENT);
    const auto R = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE;
    const char *noQueues = "Queues are not available on an MQTT session";
    veltest::expectRefusals({
        REFUSE_IN(velClient_session_queueSubscribe, (c.session(), "orders"), R, noQueues),
        REFUSE_IN(velClient_session_queueUnsubscribe, (c.session(), "orders"), R, noQueues),
        REFUSE_IN(velClient_session_sendMsg, (c.session(), m), R, noQueues),
    });
    velClient_msg_free(&m);
    ASSERT_EQ(VELCLIENT_OK, send(c, "velclient-denied/x", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "refused"));
    ASSERT_TRUE(c.waitEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 1));
    for (const Event &e : c.events(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR))
        EXPECT_EQ("Not authorized", e.info); /* the one of the denied publish, none of the queue send */
    /* A frame property that is not base64: the publish is dropped, the subscription goes on receiving. */
    const std::string topic = unique("hostile");
    c.subscribe(topic);
    const std::string args = "-V 5 -h 127.0.0.1 -p " + std::to_string(broker().port) + " -q 1 -t '" + topic +
                             "' -m bad -D publish user-property x-vel-frame '*'";
    veltest::ToolResult pub = veltest::runTool("mosquitto_pub", args);
    ASSERT_EQ(0, pub.status) << pub.err;
    ASSERT_EQ(VELCLIENT_OK, send(c, topic, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "good"));
    EXPECT_EQ(std::multiset<std::string>{"good"}, c.bodies(1));
}
