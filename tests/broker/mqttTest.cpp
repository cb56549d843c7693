/* What only MQTT sessions have: queue calls refused, and plain MQTT 5 clients
 * beside them (mosquitto_sub and mosquitto_pub, each a child process bounded
 * by a message count and a timeout): what a session sends shows the payload,
 * the response topic, the correlation data, the content type, the expiry and
 * the string user properties as MQTT's own; what the foreign client sends
 * reaches a session with those fields mapped, and the session's reply reaches
 * the foreign client's response topic. */
#include <sys/time.h>

#include <sstream>

#include "support/brokerSupport.h"
#include "support/toolProcess.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;

/* The fields mosquitto_sub prints of each message, in this order. */
const char kFormat[] = "MSG|%t|%p|%R|%D|%C|%E|%P|%q";
enum Field { topicField = 1, payloadField, responseTopicField, correlationField, contentTypeField, expiryField,
             userPropertiesField, qosField };

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '|');)
        fields.push_back(field);
    return fields;
}

/* mosquitto_sub on a topic filter, for count messages or 20 s; it has
 * subscribed when the constructor returns. */
class ForeignSubscriber {
public:
    ForeignSubscriber(const std::string &filter, int count)
        : tool_("stdbuf", "-oL mosquitto_sub -V 5 -h 127.0.0.1 -p " + std::to_string(broker().port) + " -q 1 -d -C " +
                              std::to_string(count) + " -W 20 -t '" + filter + "' -F '" + kFormat + "'")
    {
        for (std::string line; tool_.readLine(line);)
            if (line.rfind("Subscribed (mid: 1): 1", 0) == 0)
                return;
        ADD_FAILURE() << "mosquitto_sub did not subscribe: " << tool_.finish().err;
    }
    /* The fields of each message it printed, once it has ended. */
    std::vector<std::vector<std::string>> messages()
    {
        std::vector<std::vector<std::string>> out;
        for (std::string line; tool_.readLine(line);)
            if (line.rfind("MSG|", 0) == 0)
                out.push_back(split(line));
        EXPECT_EQ(0, tool_.finish().status) << tool_.finish().err;
        return out;
    }

private:
    veltest::ToolProcess tool_;
};

std::int64_t nowMs()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<std::int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

std::string stringProperty(velClient_opaqueMsg_pt m, const char *name)
{
    velClient_opaqueContainer_pt map = nullptr;
    if (velClient_msg_getUserPropertyMap(m, &map) != VELCLIENT_OK)
        return "(no user property map)";
    const char *value = nullptr;
    std::string text = velClient_container_getStringPtr(map, &value, name) == VELCLIENT_OK && value != nullptr
                           ? value
                           : std::string("(no string ") + name + ")";
    velClient_container_closeMapStream(&map);
    return text;
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

TEST(MqttForeign, MosquittoSubSeesWhatASessionSends)
{
    std::string name = unique("foreign-");
    Client sender({"SESSION_CLIENT_NAME", name});
    ASSERT_TRUE(connectAll(sender));
    std::string root = unique("foreign");
    ForeignSubscriber sub(root + "/#", 2);
    velClient_opaqueMsg_pt m = makeMessage(root + "/plain", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "hello there");
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyToSuffix(m, sender.session(), "r/1"));
    velClient_msg_setCorrelationId(m, "corr-1");
    velClient_msg_setHttpContentType(m, "text/plain");
    velClient_msg_setTimeToLive(m, 60000);
    velClient_opaqueContainer_pt props = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m, &props, 128));
    velClient_container_addString(props, "v1", "s1");
    velClient_container_addInt32(props, 5, "n");
    velClient_container_addString(props, "v 2", "s2");
    velClient_container_closeMapStream(&props);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
    velClient_msg_free(&m);
    m = makeMessage(root + "/a+b/#c/%d", false, VELCLIENT_DELIVERY_MODE_DIRECT, "x");
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
    velClient_msg_free(&m);

    std::vector<std::vector<std::string>> got = sub.messages();
    ASSERT_EQ(2u, got.size());
    if (got[0].size() > topicField && got[0][topicField] != root + "/plain")
        std::swap(got[0], got[1]);
    ASSERT_EQ(9u, got[0].size()) << "fields of the first message";
    EXPECT_EQ(root + "/plain", got[0][topicField]);
    EXPECT_EQ("hello there", got[0][payloadField]);
    EXPECT_EQ("%23P2P/v:127.0.0.1/" + name + "/r/1", got[0][responseTopicField]);
    EXPECT_EQ("corr-1", got[0][correlationField]);
    EXPECT_EQ("text/plain", got[0][contentTypeField]);
    int expiry = std::atoi(got[0][expiryField].c_str());
    EXPECT_TRUE(expiry == 59 || expiry == 60) << got[0][expiryField];
    const std::string &userProperties = got[0][userPropertiesField];
    for (const char *pair : {"s1:v1", "s2:v 2"})
        EXPECT_NE(std::string::npos, userProperties.find(pair)) << pair << " not in " << userProperties;
    EXPECT_EQ("1", got[0][qosField]);
    /* A direct message at QoS 0, its topic with the reserved characters percent-encoded. */
    ASSERT_LE(3u, got[1].size());
    EXPECT_EQ(root + "/a%2Bb/%23c/%25d", got[1][topicField]);
    EXPECT_EQ("x", got[1][payloadField]);
    EXPECT_EQ("0", got[1].back());
}

TEST(MqttForeign, MosquittoPubReachesASessionAndItsReplyComesBack)
{
    std::string root = unique("foreign");
    Client responder;
    ASSERT_TRUE(connectAll(responder));
    /* The responder answers to the reply-to with the request's correlation id. */
    responder.onMessage = [](velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request) {
        reply(s, request, VELCLIENT_DELIVERY_MODE_PERSISTENT, "reply");
    };
    responder.subscribe(root + "/requests");
    ForeignSubscriber replies(root + "/replies", 1);
    const std::int64_t sentAt = nowMs();
    veltest::ToolResult pub = veltest::runTool(
        "mosquitto_pub", "-V 5 -h 127.0.0.1 -p " + std::to_string(broker().port) + " -q 1 -t '" + root +
                             "/requests' -m 'the question' -D publish user-property k1 v1 -D publish user-property "
                             "k2 'v 2' -D publish response-topic '" + root + "/replies' -D publish correlation-data "
                             "corr-9 -D publish content-type text/x -D publish message-expiry-interval 60");
    ASSERT_EQ(0, pub.status) << pub.err;

    ASSERT_TRUE(responder.waitMessages(1));
    std::vector<velClient_opaqueMsg_pt> got = responder.messages();
    ASSERT_EQ(1u, got.size());
    velClient_opaqueMsg_pt m = got[0];
    EXPECT_EQ("the question", attachmentOf(m));
    EXPECT_EQ(root + "/requests", destinationOf(m));
    velClient_destination_t d{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(m, &d, sizeof d));
    EXPECT_EQ(VELCLIENT_TOPIC_DESTINATION, d.destType);
    EXPECT_EQ(root + "/replies", d.dest);
    const char *text = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getCorrelationId(m, &text));
    EXPECT_STREQ("corr-9", text);
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getHttpContentType(m, &text));
    EXPECT_STREQ("text/x", text);
    velClient_int64_t expiration = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(m, &expiration));
    EXPECT_GE(expiration, sentAt + 58000);
    EXPECT_LE(expiration, nowMs() + 60000);
    EXPECT_EQ("v1", stringProperty(m, "k1"));
    EXPECT_EQ("v 2", stringProperty(m, "k2"));
    freeAll(got);

    std::vector<std::vector<std::string>> answers = replies.messages();
    ASSERT_EQ(1u, answers.size());
    ASSERT_LE(5u, answers[0].size());
    EXPECT_EQ(root + "/replies", answers[0][topicField]);
    EXPECT_EQ("reply", answers[0][payloadField]);
    EXPECT_EQ("corr-9", answers[0][correlationField]);
}

} // namespace
