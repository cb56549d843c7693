/*
 * destinations.cpp - a message's destination: stored as text in the topic
 * part, or in the queue-name part with its network prefix in the
 * destination-prefix part, each copied with its NUL into the message's own
 * block; and read back into the application's velClient_destination.
 */
#include <cstring>

#include "velClientMsg/message/destinationText.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using namespace vel::dest;

/* Copies text (length bytes and a NUL) into part; its size excludes the NUL.
 * A text that ends there (endsThere) brings its own NUL: a byte stored over
 * the end of the copy just made would keep the encoder's wider reads of the
 * part from being served by those stores (a stall of some 20 cycles). */
velClient_returnCode_t copyText(_velClient_msg *msg, int part, const char *text, std::size_t length, bool endsThere)
{
    if (vel::msg::copyIntoOwnPart(msg, part, text, static_cast<std::uint32_t>(length + 1)) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (!endsThere)
        static_cast<char *>(msg->bufInfo_a[part].buf_p)[length] = '\0';
    msg->bufInfo_a[part].bufSize = static_cast<std::uint32_t>(length);
    return VELCLIENT_OK;
}

velClient_returnCode_t tooLong(std::size_t length, std::size_t limit, int type)
{
    return VEL_FAIL_RANGE("Destination string length of %d exceeds maximum of %d for destination type %d in "
                          "velClient_msg_setDestination",
                          static_cast<int>(length), static_cast<int>(limit), type);
}

/* Copies name (at most limit characters) into part, clears otherPart and
 * marks the destination temporary or not by its type. */
[[gnu::always_inline]] inline velClient_returnCode_t putName(_velClient_msg *msg, const char *name, std::size_t limit,
                                                             int type, int part, int otherPart)
{
    std::size_t length = std::strlen(name);
    if (length > limit)
        return tooLong(length, limit, type);
    if (copyText(msg, part, name, length, true) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    vel::msg::clearPart(msg, otherPart);
    setTemporary(msg, type == VELCLIENT_TOPIC_TEMP_DESTINATION || type == VELCLIENT_QUEUE_TEMP_DESTINATION);
    return VELCLIENT_OK;
}

velClient_returnCode_t setTopic(_velClient_msg *msg, const char *text, int type)
{
    if (putName(msg, text, kMaxTopic, type, VELCLIENT_BUFINFO_TOPIC_PART, VELCLIENT_BUFINFO_QUEUENAME_PART) !=
        VELCLIENT_OK)
        return VELCLIENT_FAIL;
    vel::msg::clearPart(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART);
    return VELCLIENT_OK;
}

velClient_returnCode_t setTempQueue(_velClient_msg *msg, const char *text)
{
    _velClient_msg_setBufinfoPtr(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, nullptr, 0);
    return putName(msg, text, kMaxTopic, VELCLIENT_QUEUE_TEMP_DESTINATION, VELCLIENT_BUFINFO_QUEUENAME_PART,
                   VELCLIENT_BUFINFO_TOPIC_PART);
}

velClient_returnCode_t setQueue(_velClient_msg *msg, const char *text)
{
    const char *name = text;
    if (startsWith(text, kQueuePrefix)) {
        name = queueNameAfterPrefix(text);
        if (name == nullptr)
            return VEL_FAIL_RANGE("Invalid string dest pointer (%s) in velClient_msg_setDestination", text);
        copyText(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, text, static_cast<std::size_t>(name - text), false);
    } else {
        _velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, nullptr, 0, 0);
    }
    return putName(msg, name, kMaxQueue, VELCLIENT_QUEUE_DESTINATION, VELCLIENT_BUFINFO_QUEUENAME_PART,
                   VELCLIENT_BUFINFO_TOPIC_PART);
}

const char *partText(const _velClient_msg *msg, int part)
{
    const velClient_bufInfo_t &p = msg->bufInfo_a[part];
    return p.buf_p != nullptr && p.bufSize != 0 ? static_cast<const char *>(p.buf_p) : nullptr;
}

velClient_returnCode_t setDestination(_velClient_msg *msg, const velClient_destination_t *dest_p)
{
    std::int64_t type = vel::enumValue(dest_p->destType);
    if (type == VELCLIENT_NULL_DESTINATION) {
        if (dest_p->dest != nullptr)
            return VEL_FAIL_RANGE(
                    "Non-null dest pointer with VELCLIENT_NULL_DESTINATION type in velClient_msg_setDestination");
        for (int part : {int{VELCLIENT_BUFINFO_TOPIC_PART}, int{VELCLIENT_BUFINFO_QUEUENAME_PART},
                         _VELCLIENT_BUFINFO_DEST_PREFIX_PART})
            _velClient_msg_setBufinfoPtr(msg, part, nullptr, 0);
        return VELCLIENT_OK;
    }
    const char *text = dest_p->dest;
    if (text == nullptr)
        return VEL_FAIL_NULL("Null dest pointer in velClient_msg_setDestination");
    if (text[0] == '\0')
        return VEL_FAIL_RANGE("Empty string dest pointer in velClient_msg_setDestination");
    if (startsWith(text, kTempQueuePrefix)) {
        /* A temporary-queue name overrides the type the caller gave (and tells the caller). */
        const_cast<velClient_destination_t *>(dest_p)->destType = VELCLIENT_QUEUE_TEMP_DESTINATION;
        return setTempQueue(msg, text);
    }
    switch (type) {
    case VELCLIENT_TOPIC_DESTINATION:
    case VELCLIENT_TOPIC_TEMP_DESTINATION: return setTopic(msg, text, static_cast<int>(type));
    case VELCLIENT_QUEUE_TEMP_DESTINATION: return setTempQueue(msg, text);
    case VELCLIENT_QUEUE_DESTINATION: return setQueue(msg, text);
    default:
        return VEL_FAIL_RANGE(
                "Unsupported destination type of %d in velClient_msg_setDestination", static_cast<int>(type));
    }
}

} // namespace

VEL_DESTINATION_EXPORT(velClient_msg_setDestination, const, "Bad msg_p pointer in velClient_msg_setDestination",
                       "velClient_destination_t", setDestination)
VEL_DESTINATION_EXPORT(velClient_msg_getDestination, , "Bad msg_p pointer (%p) in velClient_msg_getDestination",
                       "dest_p", vel::msg::destination)

velClient_returnCode_t vel::msg::destination(_velClient_msg *msg, velClient_destination_t *dest_p)
{
    if (const char *topic = partText(msg, VELCLIENT_BUFINFO_TOPIC_PART)) {
        if (startsWith(topic, kTempTopicPrefix))
            *dest_p = {VELCLIENT_TOPIC_TEMP_DESTINATION, topic};
        else if (startsWith(topic, kQueuePrefix))
            *dest_p = {VELCLIENT_QUEUE_DESTINATION, topic + kQueuePrefixLength};
        else if (startsWith(topic, kTempQueuePrefix))
            *dest_p = {VELCLIENT_QUEUE_TEMP_DESTINATION, topic};
        else
            *dest_p = {VELCLIENT_TOPIC_DESTINATION, topic};
        return VELCLIENT_OK;
    }
    if (const char *queue = partText(msg, VELCLIENT_BUFINFO_QUEUENAME_PART)) {
        *dest_p = {startsWith(queue, kTempQueuePrefix) ? VELCLIENT_QUEUE_TEMP_DESTINATION : VELCLIENT_QUEUE_DESTINATION,
                   queue};
        return VELCLIENT_OK;
    }
    return VELCLIENT_NOT_FOUND;
}
