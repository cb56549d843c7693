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
#include <cstring>
#include <string>

#include "velClientAmqp/amqpCodec.h"
#include "velClientAmqp/amqpFields.h"
#include "velClientAmqp/amqpReceived.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using vel::amqp::keyIs;
using vel::amqp::Notes;
using vel::amqp::refuse;

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

/* A map part (7 or 10): entry key, map header, then the n bytes of entries
 * (none for an empty map, whose part is the header alone). */
velClient_returnCode_t setMapPart(_velClient_msg *msg, int part, char key, const void *entries, std::size_t n)
{
    constexpr std::uint32_t kFront = kMapEntryKeySize + vel::tlv::kContainerHeaderSize;
    if (n > UINT32_MAX - kFront - 16)
        return refuse("map too large");
    std::uint8_t head[kFront] = {vel::tlv::kTypeString, 0x04, static_cast<std::uint8_t>(key), 0x00, vel::tlv::kTypeMap};
    vel::tlv::putBE(head + kMapEntryKeySize + 1, n + vel::tlv::kContainerHeaderSize, 4);
    velClient_returnCode_t rc = n == 0 ? _velClient_msg_setBufinfo(msg, part, head, kFront, 0)
                                       : _velClient_msg_setBufinfo(msg, part, entries, static_cast<std::uint32_t>(n),
                                                                   kFront);
    if (rc == VELCLIENT_OK && n > 0)
        std::memcpy(msg->bufInfo_a[part].buf_p, head, kFront);
    return rc;
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
    thread_local std::string name; /* kept: no allocation per message */
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
        if (text.size > UINT32_MAX - 16)
            return refuse("attachment too large");
        vel::amqp::appendAttachmentString(bytes, text.start, text.size);
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
    } else if (vel::amqp::setStandardFields(msg, pm, rules, n) != VELCLIENT_OK) {
        return VELCLIENT_FAIL;
    }
    setHeader(msg, pm, n);
    if (setParts(msg, n) != VELCLIENT_OK || setDestination(msg, pm, rules, n) != VELCLIENT_OK ||
        setUserProperties(msg, pm, n) != VELCLIENT_OK || setBody(msg, pm, n) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t vel::amqp::decode(const char *bytes, std::size_t size, const Addressing &rules,
                                         _velClient_session *, _velClient_msg **msg_p)
{
    *msg_p = nullptr;
    if (bytes == nullptr || size == 0 || !shallowAmqp(reinterpret_cast<const std::uint8_t *>(bytes), size))
        return refuse("truncated, malformed or nested too deep");
    pn_message_t *pm = scratchMessage();
    if (pm == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Could not allocate an AMQP message in the AMQP receive path");
    if (pn_message_decode(pm, bytes, size) != 0)
        return refuse(pn_error_text(pn_message_error(pm)));
    Notes notes;
    if (!vel::amqp::readNotes(pn_message_annotations(pm), notes))
        return refuse("bad message annotations");
    _velClient_msg *msg = nullptr;
    if (_velClient_msg_alloc(&msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (fill(msg, pm, rules, notes) != VELCLIENT_OK) {
        _velClient_msg_free(msg);
        return VELCLIENT_FAIL;
    }
    if (vel::msg::issueHandle(msg, "the AMQP receive path") != VELCLIENT_OK) {
        _velClient_msg_free(msg);
        return VELCLIENT_FAIL;
    }
    *msg_p = msg;
    return VELCLIENT_OK;
}
