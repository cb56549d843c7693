/* What a plain AMQP 1.0 client reads of the messages this library sends: the
 * standard header and properties, typed application properties, a byte
 * attachment as a data section and an attachment map as an amqp-value map. */
#include <iomanip>
#include <map>
#include <sstream>

#include <proton/codec.h>
#include <proton/message.h>

#include "broker/brokerFixture.h"
#include "broker/foreignReader.h"

namespace {

using namespace veltest::broker;

/* "type:value" of the value at the cursor: maps as {key=value, ...}, binary in hex. */
std::string typed(pn_data_t *d)
{
    pn_type_t type = pn_data_type(d);
    std::string name = pn_type_name(type);
    for (char &c : name)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::ostringstream out;
    out << name.substr(3) << ':';
    switch (type) {
    case PN_NULL: break;
    case PN_BOOL: out << (pn_data_get_bool(d) ? "true" : "false"); break;
    case PN_UBYTE: out << +pn_data_get_ubyte(d); break;
    case PN_BYTE: out << +pn_data_get_byte(d); break;
    case PN_USHORT: out << pn_data_get_ushort(d); break;
    case PN_SHORT: out << pn_data_get_short(d); break;
    case PN_UINT: out << pn_data_get_uint(d); break;
    case PN_INT: out << pn_data_get_int(d); break;
    case PN_CHAR: out << "U+" << std::hex << std::uppercase << pn_data_get_char(d); break;
    case PN_ULONG: out << pn_data_get_ulong(d); break;
    case PN_LONG: out << pn_data_get_long(d); break;
    case PN_FLOAT: out << pn_data_get_float(d); break;
    case PN_DOUBLE: out << pn_data_get_double(d); break;
    case PN_STRING: out << std::string(pn_data_get_string(d).start, pn_data_get_string(d).size); break;
    case PN_SYMBOL: out << std::string(pn_data_get_symbol(d).start, pn_data_get_symbol(d).size); break;
    case PN_BINARY: {
        pn_bytes_t b = pn_data_get_binary(d);
        for (std::size_t i = 0; i < b.size; ++i)
            out << std::hex << std::setw(2) << std::setfill('0') << (static_cast<unsigned>(b.start[i]) & 0xffu);
        break;
    }
    case PN_MAP: {
        pn_data_enter(d);
        for (const char *sep = "{"; pn_data_next(d); sep = ", ") {
            out << sep << typed(d);
            pn_data_next(d);
            out << '=' << typed(d);
        }
        out << '}';
        pn_data_exit(d);
        break;
    }
    default: out << '?'; break;
    }
    return out.str();
}

/* The value in data, or "none" when it holds nothing. */
std::string typedValue(pn_data_t *data)
{
    pn_data_rewind(data);
    return pn_data_next(data) ? typed(data) : "none";
}

/* Every field of the message a plain client would look at, as text. */
std::map<std::string, std::string> fieldsOf(const std::string &bytes)
{
    pn_message_t *m = pn_message();
    std::map<std::string, std::string> f;
    if (pn_message_decode(m, bytes.data(), bytes.size()) != 0) {
        pn_message_free(m);
        return {{"decode", "failed"}};
    }
    f["to"] = pn_message_get_address(m) ? pn_message_get_address(m) : "none";
    f["durable"] = pn_message_is_durable(m) ? "true" : "false";
    f["ttl"] = std::to_string(pn_message_get_ttl(m));
    f["priority"] = std::to_string(pn_message_get_priority(m));
    f["reply-to"] = pn_message_get_reply_to(m) ? pn_message_get_reply_to(m) : "none";
    f["content-type"] = pn_message_get_content_type(m) ? pn_message_get_content_type(m) : "none";
    f["message-id"] = typedValue(pn_message_id(m));
    f["correlation-id"] = typedValue(pn_message_correlation_id(m));
    f["application-properties"] = typedValue(pn_message_properties(m));
    /* Proton marks a body read from data sections as inferred. */
    f["body"] = (pn_message_is_inferred(m) ? "data " : "amqp-value ") + typedValue(pn_message_body(m));
    pn_message_free(m);
    return f;
}

/* A persistent message with every standard property, typed user properties and a byte attachment. */
velClient_opaqueMsg_pt propertiesMessage(const std::string &queue)
{
    velClient_opaqueMsg_pt m = makeMessage(queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::string("\0\x01\xff", 3));
    velClient_opaqueContainer_pt p = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m, &p, 256));
    addOneOfEachType(p);
    velClient_msg_setApplicationMessageId(m, "app-id-1");
    velClient_msg_setCorrelationId(m, "corr-1");
    velClient_msg_setHttpContentType(m, "text/plain");
    velClient_msg_setTimeToLive(m, 60000);
    velClient_msg_setClassOfService(m, VELCLIENT_COS_3);
    velClient_destination_t reply{VELCLIENT_TOPIC_DESTINATION, "replies/here"};
    velClient_msg_setReplyTo(m, &reply, sizeof reply);
    return m;
}

/* A direct message whose attachment is a map with a nested map. */
velClient_opaqueMsg_pt mapMessage(const std::string &topic)
{
    velClient_opaqueMsg_pt m = makeMessage(topic, false, VELCLIENT_DELIVERY_MODE_DIRECT);
    velClient_opaqueContainer_pt map = nullptr, inner = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m, &map, 256));
    velClient_container_addInt32(map, 7, "count");
    velClient_container_addString(map, "eu", "region");
    EXPECT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &inner, "price"));
    velClient_container_addDouble(inner, 9.5, "bid");
    velClient_container_closeMapStream(&inner);
    velClient_container_addByteArray(map, reinterpret_cast<const velClient_uint8_t *>("\x01"), 1, "raw");
    velClient_container_closeMapStream(&map);
    return m;
}

} // namespace

TEST(BrokerForeignClient, APlainAmqpReaderSeesTheStandardFields)
{
    std::string queue = unique("foreign-q"), leaf = unique("t"), topic = "foreign/" + leaf;
    ForeignReader queueReader("/queue/" + queue, true), topicReader("/topic/foreign." + leaf, false);
    ASSERT_TRUE(queueReader.waitAttached());
    ASSERT_TRUE(topicReader.waitAttached());
    Client sender;
    ASSERT_TRUE(connectAll(sender));
    for (velClient_opaqueMsg_pt m : {propertiesMessage(queue), mapMessage(topic)}) {
        EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(sender.session(), m));
        velClient_msg_free(&m);
    }
    std::vector<std::string> fromQueue = queueReader.waitMessages(1), fromTopic = topicReader.waitMessages(1);
    ASSERT_EQ(1u, fromQueue.size());
    ASSERT_EQ(1u, fromTopic.size());
    std::map<std::string, std::string> props = fieldsOf(fromQueue[0]), map = fieldsOf(fromTopic[0]);
    struct Row {
        const std::map<std::string, std::string> &message;
        const char *field;
        std::string expected;
    };
    const Row rows[] = {
        {props, "to", "/queue/" + queue},
        {props, "durable", "true"},
        {props, "ttl", "60000"},
        {props, "priority", "6"},
        {props, "message-id", "string:app-id-1"},
        {props, "correlation-id", "string:corr-1"},
        {props, "reply-to", "/topic/replies.here"},
        {props, "content-type", "text/plain"},
        {props, "application-properties",
         "map:{string:bool=bool:true, string:u8=ubyte:200, string:i8=byte:-8, string:u16=ushort:60000, "
         "string:i16=short:-300, string:u32=uint:4000000000, string:i32=int:-42, string:u64=ulong:10000000000, "
         "string:i64=long:-5000000000, string:wchar=char:U+263A, string:float=float:1.5, "
         "string:double=double:2.25, string:string=string:text, string:bytes=binary:007f, string:null=null:}"},
        {props, "body", "data binary:0001ff"},
        {map, "to", "/topic/foreign." + leaf},
        {map, "durable", "false"},
        {map, "ttl", "0"},
        {map, "message-id", "none"},
        {map, "reply-to", "none"},
        {map, "application-properties", "none"},
        {map, "body", "amqp-value map:{string:count=int:7, string:region=string:eu, "
                      "string:price=map:{string:bid=double:9.5}, string:raw=binary:01}"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.expected, row.message.at(row.field)) << row.field;
}
