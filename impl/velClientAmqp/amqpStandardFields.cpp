/*
 * amqpStandardFields.cpp - the header map of a message from another AMQP
 * client, built from the standard properties where this library's own
 * sender would have put its header map whole into an annotation.
 */
#include <cinttypes>
#include <cstdio>
#include <string>

#include "velClientAmqp/amqpFields.h"
#include "velClientAmqp/amqpReceived.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using vel::amqp::refuse;
using vel::msg::HeaderProperty;

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

} // namespace

velClient_returnCode_t vel::amqp::setStandardFields(_velClient_msg *msg, pn_message_t *pm, const vel::amqp::Addressing &rules,
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
