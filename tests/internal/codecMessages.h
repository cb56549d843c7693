/* Messages for the codec tests: one with every part, header property, mark
 * and a user property map or attachment of every field type, as a loopback
 * session receives it, and its dump without the lines the receive path owns. */
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "velClientMsg/velClientMsgPrivate.h"
#include "velclient/velClient.h"

namespace codectest {

struct Owned {
    velClient_opaqueMsg_pt h = nullptr;
    Owned() = default;
    explicit Owned(_velClient_msg *m) : h(m != nullptr ? m->opaqueMsg_p : nullptr) {}
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned()
    {
        if (h != nullptr)
            velClient_msg_free(&h);
    }
    _velClient_msg *rec() const { return vel::msgOf(h); }
};

/* ---- Building the messages --------------------------------------------------- */

enum class Attachment { none, bytes, text, map, stream, mapAmqpCannotHold };
enum class Props { none, empty, scalars, nested };

struct Case {
    const char *name;
    velClient_uint32_t mode;
    bool queue;
    Attachment attachment;
    Props props;
};

/* Every scalar type, named when keyed (a map). */
inline void fillScalars(velClient_opaqueContainer_pt c, bool keyed)
{
    auto n = [keyed](const char *name) { return keyed ? name : nullptr; };
    const velClient_uint8_t bytes[] = {0, 1, 0xFE, 0xFF};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(c, 1, n("bool")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(c, 250, n("u8")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(c, -7, n("i8")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(c, 65000, n("u16")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt16(c, -300, n("i16")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint32(c, 4000000000u, n("u32")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(c, -70000, n("i32")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint64(c, 18000000000000000000ull, n("u64")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt64(c, -5000000000ll, n("i64")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addWchar(c, L'W', n("wchar")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addFloat(c, 1.5f, n("float")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDouble(c, -2.25, n("double")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "text", n("string")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "", n("empty")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addByteArray(c, bytes, sizeof bytes, n("bytes")));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addNull(c, n("null")));
}

/* The scalars, then a stream holding the scalars and a map of them. */
inline void fillNested(velClient_opaqueContainer_pt c, bool keyed)
{
    auto n = [keyed](const char *name) { return keyed ? name : nullptr; };
    fillScalars(c, keyed);
    velClient_opaqueContainer_pt stream = nullptr, inner = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(c, &stream, n("stream")));
    fillScalars(stream, false);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(stream, &inner, nullptr));
    fillScalars(inner, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&inner));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&stream));
}

inline void setAttachment(velClient_opaqueMsg_pt m, Attachment kind)
{
    velClient_opaqueContainer_pt c = nullptr;
    const velClient_uint8_t raw[] = {0x2B, 0, 1, 2, 3, 0xFF};
    switch (kind) {
    case Attachment::none: return;
    case Attachment::bytes: ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(m, raw, sizeof raw)); return;
    case Attachment::text: ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentString(m, "hello")); return;
    case Attachment::map:
    case Attachment::mapAmqpCannotHold: ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m, &c, 64)); break;
    case Attachment::stream: ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentStream(m, &c, 64)); break;
    }
    fillNested(c, kind != Attachment::stream);
    if (kind == Attachment::mapAmqpCannotHold) {
        const velClient_destination_t d{VELCLIENT_QUEUE_DESTINATION, "q"};
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(c, &d, sizeof d, "dest"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(c, "again", "string")); /* repeated name */
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&c));
}

inline void setProps(velClient_opaqueMsg_pt m, Props props)
{
    if (props == Props::none)
        return;
    velClient_opaqueContainer_pt c = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m, &c, 64));
    if (props == Props::scalars)
        fillScalars(c, true);
    else if (props == Props::nested)
        fillNested(c, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&c));
}

/* Every header property, part and mark, then the case's own choices. */
inline void build(velClient_opaqueMsg_pt m, const Case &c)
{
    velClient_destination_t dest{c.queue ? VELCLIENT_QUEUE_DESTINATION : VELCLIENT_TOPIC_DESTINATION,
                                 c.queue ? "orders.eu" : "orders/eu.west/50%/*/new"};
    velClient_destination_t replyTo{VELCLIENT_TOPIC_DESTINATION, "replies/desk.7"};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m, &dest, sizeof dest));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setReplyTo(m, &replyTo, sizeof replyTo));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m, c.mode));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setClassOfService(m, VELCLIENT_COS_2));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMessageId(m, "app-id-1"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setApplicationMsgType(m, "order"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m, "corr-9"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m, "sender-a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m, 41));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderTimestamp(m, 1700000000123));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setExpiration(m, 1900000000456));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTimeToLive(m, 60000));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentType(m, "application/json"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setHttpContentEncoding(m, "gzip"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setUserData(m, "ud\0x", 4));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m, "<a/>", 4));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDMQEligible(m, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setElidingEligible(m, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDeliverToOne(m, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAckImmediately(m, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setDiscardIndication(m, 1));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setAsReplyMsg(m, 1));
    _velClient_msg *rec = vel::msgOf(m);
    const std::uint8_t ids[] = {0, 0, 0, 7, 0, 1, 0, 2};
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setBufinfo(rec, VELCLIENT_BUFINFO_CONSUMER_ID_PART, ids, sizeof ids, 0));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setTopicSequenceNumber(m, 77));
    setProps(m, c.props);
    setAttachment(m, c.attachment);
}

/* ---- Receiving on loopback, dumping -------------------------------------------- */

inline velClient_rxMsgCallback_returnCode_t keep(velClient_opaqueSession_pt, velClient_opaqueMsg_pt m, void *user)
{
    *static_cast<velClient_opaqueMsg_pt *>(user) = m;
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

/* The message as a loopback session receives it (owned by the caller). */
inline velClient_opaqueMsg_pt receivedOnLoopback(const Case &c)
{
    Owned sent;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&sent.h));
    build(sent.h, c);
    velClient_opaqueMsg_pt got = nullptr;
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", nullptr};
    EXPECT_EQ(VELCLIENT_OK, velClient_session_create(props, keep, &got, &s));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, sent.h));
    velClient_session_destroy(&s);
    return got;
}

/* The full dump without the lines the receive path owns. */
inline std::string dumpOf(velClient_opaqueMsg_pt m);

/* Case c's message as a loopback session receives it, into received, and its dump, checked to run to its
 * last line. */
inline std::string receivedWithDump(const Case &c, Owned &received)
{
    received.h = receivedOnLoopback(c);
    if (received.h == nullptr)
        return {};
    const std::string dump = dumpOf(received.h);
    EXPECT_NE(std::string::npos, dump.find("XML:")) << "the dump ran to its last line:\n" << dump;
    return dump;
}

inline std::string dumpOf(velClient_opaqueMsg_pt m)
{
    std::vector<char> buf(1 << 16);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(m, buf.data(), buf.size()));
    std::string out, all(buf.data());
    for (std::size_t at = 0; at < all.size();) {
        std::size_t end = all.find('\n', at);
        std::string line = all.substr(at, end - at);
        at = end == std::string::npos ? all.size() : end + 1;
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            out += line + "\n";
    }
    return out;
}

} // namespace codectest
