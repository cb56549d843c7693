/*
 * amqpDecode.cpp - a received AMQP 1.0 message as a new message of this
 * library, built the way the wire parser builds one: parts copied into the
 * message's own blocks, receive flags and record fields set directly, the
 * header map and the user property map as parts the getters open. What a
 * sender of this library wrote in annotations reads back exactly; a message
 * from another client has its standard fields mapped. Nothing is trusted
 * before it is checked: the nesting of the AMQP bytes before Proton decodes
 * them, structured data carried whole before it becomes a part.
 */
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "velClientAmqp/amqpCodec.h"
#include "velClientAmqp/amqpFields.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using vel::msg::HeaderProperty;

velClient_returnCode_t refuse(const char *what)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_PROTOCOL_ERROR, VELCLIENT_LOG_WARNING,
                    "Invalid AMQP message (%s) in the AMQP receive path", what);
}

/* The annotations this library reads, as found in the message. */
struct Notes {
    pn_bytes_t topic{}, destPrefix{}, headerMap{}, userProperties{}, userData{}, xml{}, consumerIds{};
    pn_bytes_t senderId{}, attachment{};
    bool hasHeaderMap = false, hasUserProperties = false, hasSenderId = false, hasSequenceNumber = false;
    bool hasTopicSeqNum = false, hasTtl = false, hasDeliveryMode = false;
    std::int64_t sequenceNumber = 0;
    std::uint64_t topicSeqNum = 0, ttl = 0;
    std::uint8_t deliveryMode = 0;
    std::uint32_t marks = 0;
};

bool keyIs(pn_bytes_t key, const char *name)
{
    return key.size == std::strlen(name) && std::memcmp(key.start, name, key.size) == 0;
}

/* A binary (or, for texts, string) value into *out; false for another type. */
bool takeBytes(pn_data_t *d, pn_bytes_t *out, bool *present = nullptr)
{
    pn_type_t t = pn_data_type(d);
    if (t != PN_BINARY && t != PN_STRING && t != PN_SYMBOL)
        return false;
    *out = pn_data_get_bytes(d);
    if (present != nullptr)
        *present = true;
    return true;
}

template <typename T>
bool takeNumber(pn_data_t *d, pn_type_t type, T (*get)(pn_data_t *), T *out, bool *present)
{
    if (pn_data_type(d) != type)
        return false;
    *out = get(d);
    *present = true;
    return true;
}

/* One annotation (data at its value); unknown keys are ignored, a known key
 * with a value of the wrong type refuses the message. */
bool readNote(pn_bytes_t key, pn_data_t *d, Notes &n)
{
    using namespace vel::amqp;
    const struct {
        const char *key;
        pn_bytes_t *out;
        bool *present;
    } kByteNotes[] = {{kKeyTopic, &n.topic, nullptr},
                      {kKeyDestPrefix, &n.destPrefix, nullptr},
                      {kKeyHeaderMap, &n.headerMap, &n.hasHeaderMap},
                      {kKeyUserProperties, &n.userProperties, &n.hasUserProperties},
                      {kKeyUserData, &n.userData, nullptr},
                      {kKeyXml, &n.xml, nullptr},
                      {kKeyConsumerIds, &n.consumerIds, nullptr},
                      {kKeySenderId, &n.senderId, &n.hasSenderId},
                      {kKeyAttachment, &n.attachment, nullptr}};
    for (const auto &note : kByteNotes)
        if (keyIs(key, note.key))
            return takeBytes(d, note.out, note.present);
    if (keyIs(key, kKeySequenceNumber))
        return takeNumber(d, PN_LONG, pn_data_get_long, &n.sequenceNumber, &n.hasSequenceNumber);
    if (keyIs(key, kKeyTopicSequenceNumber))
        return takeNumber(d, PN_ULONG, pn_data_get_ulong, &n.topicSeqNum, &n.hasTopicSeqNum);
    if (keyIs(key, kKeyTimeToLive))
        return takeNumber(d, PN_ULONG, pn_data_get_ulong, &n.ttl, &n.hasTtl);
    if (keyIs(key, kKeyDeliveryMode))
        return takeNumber(d, PN_UBYTE, pn_data_get_ubyte, &n.deliveryMode, &n.hasDeliveryMode);
    for (const MarkKey &mark : kMarkKeys)
        if (keyIs(key, mark.key)) {
            if (pn_data_type(d) != PN_BOOL)
                return false;
            n.marks |= pn_data_get_bool(d) ? mark.flag : 0;
            return true;
        }
    return true;
}

bool readNotes(pn_data_t *d, Notes &n)
{
    pn_data_rewind(d);
    if (!pn_data_next(d))
        return true;
    if (pn_data_type(d) != PN_MAP || !pn_data_enter(d))
        return false;
    bool ok = true;
    while (ok && pn_data_next(d)) {
        pn_type_t t = pn_data_type(d);
        pn_bytes_t key = t == PN_SYMBOL || t == PN_STRING ? pn_data_get_bytes(d) : pn_bytes(0, nullptr);
        ok = pn_data_next(d) && readNote(key, d, n);
    }
    pn_data_exit(d);
    return ok;
}

/* ---- Parts ----------------------------------------------------------------- */

velClient_returnCode_t setBytes(_velClient_msg *msg, int part, pn_bytes_t b)
{
    if (b.size == 0)
        return VELCLIENT_OK;
    if (b.size > UINT32_MAX - 16)
        return refuse("part too large");
    return _velClient_msg_setBufinfo(msg, part, b.start, static_cast<std::uint32_t>(b.size), 0);
}

/* A text part: its bytes and a NUL, the part's size not counting the NUL. */
velClient_returnCode_t setText(_velClient_msg *msg, int part, const char *text, std::size_t n)
{
    if (n == 0)
        return VELCLIENT_OK;
    if (n > UINT32_MAX - 16 || std::memchr(text, 0, n) != nullptr)
        return refuse("bad destination text");
    if (_velClient_msg_setBufinfo(msg, part, text, static_cast<std::uint32_t>(n + 1), 0) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    static_cast<char *>(msg->bufInfo_a[part].buf_p)[n] = '\0';
    msg->bufInfo_a[part].bufSize = static_cast<std::uint32_t>(n);
    return VELCLIENT_OK;
}

/* A map part (7 or 10): entry key, map header, then the given entries. */
velClient_returnCode_t setMapPart(_velClient_msg *msg, int part, char key, const void *entries, std::size_t n)
{
    const std::uint32_t front = kMapEntryKeySize + vel::tlv::kContainerHeaderSize;
    if (n > UINT32_MAX - front - 16)
        return refuse("map too large");
    if (_velClient_msg_setBufinfo(msg, part, entries, static_cast<std::uint32_t>(n), front) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    auto *p = static_cast<std::uint8_t *>(msg->bufInfo_a[part].buf_p);
    const std::uint8_t head[front] = {vel::tlv::kTypeString, 0x04, static_cast<std::uint8_t>(key), 0x00,
                                      vel::tlv::kTypeMap};
    std::memcpy(p, head, front);
    vel::tlv::putBE(p + kMapEntryKeySize + 1, n + vel::tlv::kContainerHeaderSize, 4);
    return VELCLIENT_OK;
}

/* Entries carried whole, checked before they become a part. */
velClient_returnCode_t setCarriedMap(_velClient_msg *msg, int part, char key, pn_bytes_t b)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(b.start);
    if (!vel::amqp::wellFormedFields(p, p + b.size, true, vel::amqp::kMaxFieldDepth))
        return refuse("malformed structured data");
    return setMapPart(msg, part, key, b.start, b.size);
}

velClient_returnCode_t setParts(_velClient_msg *msg, const Notes &n)
{
    if (n.consumerIds.size % 4 != 0)
        return refuse("bad consumer ids");
    if (setBytes(msg, VELCLIENT_BUFINFO_CONSUMER_ID_PART, n.consumerIds) != VELCLIENT_OK ||
        setBytes(msg, VELCLIENT_BUFINFO_USER_DATA_PART, n.userData) != VELCLIENT_OK ||
        setBytes(msg, VELCLIENT_BUFINFO_XML_PART, n.xml) != VELCLIENT_OK ||
        setText(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, n.destPrefix.start, n.destPrefix.size) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    return VELCLIENT_OK;
}

velClient_returnCode_t setDestination(_velClient_msg *msg, pn_message_t *pm, const vel::amqp::Addressing &rules,
                                      const Notes &n)
{
    if (n.topic.size > 0)
        return setText(msg, VELCLIENT_BUFINFO_TOPIC_PART, n.topic.start, n.topic.size);
    const char *address = pn_message_get_address(pm);
    velClient_destinationType_t type{};
    std::string name;
    if (address == nullptr || !vel::amqp::destinationOf(rules, address, &type, &name))
        return VELCLIENT_OK;
    int part = type == VELCLIENT_QUEUE_DESTINATION ? VELCLIENT_BUFINFO_QUEUENAME_PART : VELCLIENT_BUFINFO_TOPIC_PART;
    return setText(msg, part, name.data(), name.size());
}

/* ---- Header and receive flags ----------------------------------------------- */

std::uint32_t cosOfPriority(std::uint8_t priority)
{
    if (priority <= vel::amqp::kPriorityOfCos1)
        return 0;
    return priority == vel::amqp::kPriorityOfCos1 + 1 ? 1 : 2;
}

void setHeader(_velClient_msg *msg, pn_message_t *pm, const Notes &n)
{
    std::uint32_t mode = n.hasDeliveryMode ? n.deliveryMode & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK
                         : pn_message_is_durable(pm) ? VELCLIENT_DELIVERY_MODE_PERSISTENT
                                                      : VELCLIENT_DELIVERY_MODE_DIRECT;
    msg->msgInfo.flags = mode | cosOfPriority(pn_message_get_priority(pm)) | n.marks;
    msg->timeToLive = n.hasTtl ? n.ttl : pn_message_get_ttl(pm);
    if (n.hasTopicSeqNum) {
        msg->topicSeqNo = n.topicSeqNum;
        msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_TOPIC_SEQ_NUM;
    }
}

/* ---- A message from another client: the header map from standard fields ---- */

/* An id of any AMQP id type as text (ulong in decimal, uuid in its usual
 * form, binary and strings as they are); empty when there is none. */
std::string idText(pn_msgid_t id)
{
    char buf[40] = {};
    switch (id.type) {
    case PN_STRING:
    case PN_SYMBOL:
    case PN_BINARY: return std::string(id.u.as_bytes.start, id.u.as_bytes.size);
    case PN_ULONG: std::snprintf(buf, sizeof buf, "%" PRIu64, id.u.as_ulong); return buf;
    case PN_UUID: {
        const auto *u = reinterpret_cast<const std::uint8_t *>(id.u.as_uuid.bytes);
        std::snprintf(buf, sizeof buf, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0],
                      u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
        return buf;
    }
    default: return {};
    }
}

velClient_returnCode_t setHeaderText(_velClient_msg *msg, HeaderProperty property, const std::string &text)
{
    if (text.empty())
        return VELCLIENT_OK;
    if (text.find('\0') != std::string::npos)
        return refuse("text property holds a NUL");
    return vel::msg::setHeaderString(msg, property, text.c_str());
}

velClient_returnCode_t setMapText(_velClient_msg *msg, const char *key, std::uint32_t flag, const char *text)
{
    if (text == nullptr)
        return VELCLIENT_OK;
    return vel::hdr::set(msg, key, flag, flag,
                         [&](_velClient_container *map) { return vel::container::addString(map, text, key); });
}

velClient_returnCode_t setReplyTo(_velClient_msg *msg, const char *address, const vel::amqp::Addressing &rules)
{
    velClient_destination_t dest{};
    std::string name;
    if (address == nullptr || !vel::amqp::destinationOf(rules, address, &dest.destType, &name) || name.empty() ||
        name.size() >= vel::tlv::kMaxDestNameWithNul)
        return VELCLIENT_OK; /* an address this library cannot reply to */
    dest.dest = name.c_str();
    constexpr const char *kReplyToKey = "rt";
    return vel::hdr::set(msg, kReplyToKey, _VELCLIENT_MSG_FLAG_REPLY_TO, _VELCLIENT_MSG_FLAG_REPLY_TO,
                         [&](_velClient_container *map) {
                             return vel::container::addDestination(map, &dest, sizeof dest, kReplyToKey);
                         });
}

velClient_returnCode_t setStandardFields(_velClient_msg *msg, pn_message_t *pm, const vel::amqp::Addressing &rules,
                                         const Notes &n)
{
    const char *subject = pn_message_get_subject(pm);
    if (setHeaderText(msg, HeaderProperty::appMsgId, idText(pn_message_get_id(pm))) != VELCLIENT_OK ||
        setHeaderText(msg, HeaderProperty::correlationId, idText(pn_message_get_correlation_id(pm))) != VELCLIENT_OK ||
        setHeaderText(msg, HeaderProperty::appMsgType, subject != nullptr ? subject : "") != VELCLIENT_OK ||
        setMapText(msg, vel::amqp::kHttpContentTypeKey, _VELCLIENT_MSG_FLAG_HTTP_CONTENT_TYPE,
                   pn_message_get_content_type(pm)) != VELCLIENT_OK ||
        setMapText(msg, vel::amqp::kHttpContentEncodingKey, _VELCLIENT_MSG_FLAG_HTTP_CONTENT_ENCODING,
                   pn_message_get_content_encoding(pm)) != VELCLIENT_OK ||
        setReplyTo(msg, pn_message_get_reply_to(pm), rules) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (n.hasSenderId && setHeaderText(msg, HeaderProperty::senderId, std::string(n.senderId.start, n.senderId.size)) !=
                             VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (n.hasSequenceNumber &&
        vel::msg::setHeaderInt64(msg, HeaderProperty::sequenceNumber, n.sequenceNumber) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (pn_message_get_creation_time(pm) != 0 &&
        vel::msg::setHeaderInt64(msg, HeaderProperty::senderTimestamp, pn_message_get_creation_time(pm)) !=
            VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (pn_message_get_expiry_time(pm) > 0) {
        msg->expirationTime = static_cast<std::uint64_t>(pn_message_get_expiry_time(pm));
        return _velClient_msg_setMessageExpiration(msg);
    }
    return VELCLIENT_OK;
}

/* ---- Maps and body ----------------------------------------------------------- */

velClient_returnCode_t setUserProperties(_velClient_msg *msg, pn_message_t *pm, const Notes &n)
{
    if (n.hasUserProperties)
        return setCarriedMap(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, 'p', n.userProperties);
    pn_data_t *props = pn_message_properties(pm);
    pn_data_rewind(props);
    if (!pn_data_next(props))
        return VELCLIENT_OK;
    std::vector<std::uint8_t> map;
    if (pn_data_type(props) != PN_MAP || !vel::amqp::writeContainer(props, true, vel::amqp::kMaxDepth, map))
        return refuse("application-properties this library cannot hold");
    const std::size_t header = vel::tlv::kContainerHeaderSize;
    return setMapPart(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, 'p', map.data() + header, map.size() - header);
}

velClient_returnCode_t setAttachment(_velClient_msg *msg, const std::uint8_t *p, std::size_t n, std::uint8_t kind)
{
    if (n > UINT32_MAX - 16)
        return refuse("attachment too large");
    if (n > 0 && _velClient_msg_setBufinfo(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, p,
                                           static_cast<std::uint32_t>(n), 0) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    msg->binAttachmentType = kind;
    return VELCLIENT_OK;
}

/* A data section that holds a map or stream, checked whole. */
velClient_returnCode_t setCarriedContainer(_velClient_msg *msg, pn_bytes_t b, bool map)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(b.start);
    const std::size_t header = vel::tlv::kContainerHeaderSize;
    if (b.size < header || p[0] != (map ? vel::tlv::kTypeMap : vel::tlv::kTypeStream) ||
        vel::tlv::getBE(p + 1, 4) != b.size ||
        !vel::amqp::wellFormedFields(p + header, p + b.size, map, vel::amqp::kMaxFieldDepth))
        return refuse("malformed structured data");
    return setAttachment(msg, p, b.size, map ? kAttachmentMap : kAttachmentStream);
}

velClient_returnCode_t setBody(_velClient_msg *msg, pn_message_t *pm, const Notes &n)
{
    pn_data_t *body = pn_message_body(pm);
    pn_data_rewind(body);
    if (!pn_data_next(body))
        return VELCLIENT_OK;
    std::vector<std::uint8_t> bytes;
    switch (pn_data_type(body)) {
    case PN_NULL: return VELCLIENT_OK;
    case PN_BINARY: {
        pn_bytes_t b = pn_data_get_binary(body);
        if (keyIs(n.attachment, vel::amqp::kAttachmentIsMap) || keyIs(n.attachment, vel::amqp::kAttachmentIsStream))
            return setCarriedContainer(msg, b, keyIs(n.attachment, vel::amqp::kAttachmentIsMap));
        return setAttachment(msg, reinterpret_cast<const std::uint8_t *>(b.start), b.size, 0);
    }
    case PN_STRING: {
        pn_bytes_t text = pn_data_get_string(body);
        vel::amqp::appendStringField(bytes, text.start, text.size);
        return setAttachment(msg, bytes.data(), bytes.size(), 0);
    }
    case PN_MAP:
    case PN_LIST:
    case PN_ARRAY: {
        bool map = pn_data_type(body) == PN_MAP;
        if (!vel::amqp::writeContainer(body, map, vel::amqp::kMaxDepth, bytes))
            return refuse("a body value this library cannot hold");
        return setAttachment(msg, bytes.data(), bytes.size(), map ? kAttachmentMap : kAttachmentStream);
    }
    default: return refuse("a body value this library cannot hold");
    }
}

velClient_returnCode_t fill(_velClient_msg *msg, pn_message_t *pm, const vel::amqp::Addressing &rules,
                            const Notes &n)
{
    if (n.hasHeaderMap) {
        if (setCarriedMap(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, 'h', n.headerMap) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
    } else if (setStandardFields(msg, pm, rules, n) != VELCLIENT_OK) {
        return VELCLIENT_FAIL;
    }
    setHeader(msg, pm, n);
    if (setParts(msg, n) != VELCLIENT_OK || setDestination(msg, pm, rules, n) != VELCLIENT_OK ||
        setUserProperties(msg, pm, n) != VELCLIENT_OK || setBody(msg, pm, n) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    return VELCLIENT_OK;
}

void dropMessage(_velClient_msg *msg)
{
    if (msg->opaqueMsg_p != nullptr)
        _velClient_safePtr_free(msg->opaqueMsg_p);
    _velClient_msg_free(msg);
}

} // namespace

velClient_returnCode_t vel::amqp::decode(const char *bytes, std::size_t size, const Addressing &rules,
                                         _velClient_session *, _velClient_msg **msg_p)
{
    *msg_p = nullptr;
    if (bytes == nullptr || !shallowAmqp(reinterpret_cast<const std::uint8_t *>(bytes), size))
        return refuse("truncated, malformed or nested too deep");
    pn_message_t *pm = scratchMessage();
    if (pm == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Could not allocate an AMQP message in the AMQP receive path");
    if (pn_message_decode(pm, bytes, size) != 0)
        return refuse(pn_error_text(pn_message_error(pm)));
    Notes notes;
    if (!readNotes(pn_message_annotations(pm), notes))
        return refuse("bad message annotations");
    _velClient_msg *msg = nullptr;
    if (_velClient_msg_alloc(&msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (fill(msg, pm, rules, notes) != VELCLIENT_OK) {
        dropMessage(msg);
        return VELCLIENT_FAIL;
    }
    msg->opaqueMsg_p = _velClient_safePtr_alloc(msg, _MSG_PTR_TYPE);
    if (msg->opaqueMsg_p == nullptr) {
        dropMessage(msg);
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_CRITICAL,
                        "Could not allocate pointer for new velClient_msg in the AMQP receive path");
    }
    *msg_p = msg;
    return VELCLIENT_OK;
}
