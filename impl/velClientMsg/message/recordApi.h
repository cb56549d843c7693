/*
 * recordApi.h - the message module's internal functions on records: what an
 * exported getter or setter does once its handle has resolved. The exports
 * resolve their handles (recording a bad one) and call these; the library
 * itself calls only these, never an export. Output pointers are the caller's
 * and not null; each function leaves the same results (return code, last
 * error, log lines) as the export it serves.
 */
#pragma once

#include "velClientMsg/message/partCopy.h" /* copying into a part, inline */
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::msg {

/* Gives a message built from received bytes its handle; the out-of-memory
 * failure's text names caller. */
velClient_returnCode_t issueHandle(_velClient_msg *msg, const char *caller);

/* Closes the message's container in *slot for good, or only finalises it
 * (its handle then stays valid). */
inline void closeOrFinalise(_velClient_container **slot, bool close)
{
    if (close)
        _velClient_container_closeForGood(slot);
    else
        _velClient_container_closeMapStream(slot, false, false, false);
}

/* Closes the message's open containers (and forgets them): the header map
 * always; the attachment and the user property map with closeAll, else they
 * are only finalised and their handles stay valid. Three tests, not a loop
 * over a list of the slots, which the compiler builds on the stack. */
inline void closeContainers(_velClient_msg *msg, bool closeAll)
{
    if (msg->binaryAttachContainer_p != nullptr)
        closeOrFinalise(&msg->binaryAttachContainer_p, closeAll);
    if (msg->hdrMap_p != nullptr)
        _velClient_container_closeForGood(&msg->hdrMap_p);
    if (msg->userPropertyMap_p != nullptr)
        closeOrFinalise(&msg->userPropertyMap_p, closeAll);
}

/* Empties a part, as _velClient_msg_setBufinfoPtr(msg, part, nullptr, 0)
 * does; the usual part to clear holds no block and needs no call. */
inline void clearPart(_velClient_msg *msg, int part)
{
    if (msg->bufDatab_p[part] != nullptr) {
        _velClient_msg_setBufinfoPtr(msg, part, nullptr, 0);
        return;
    }
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    msg->bufInfo_a[part] = velClient_bufInfo_t{nullptr, 0};
}

/* ---- Delivery properties kept in the record -------------------------------- */
velClient_returnCode_t classOfService(_velClient_msg *msg, velClient_uint32_t *cos_p);
velClient_returnCode_t deliveryMode(_velClient_msg *msg, velClient_uint32_t *mode_p);
velClient_returnCode_t timeToLive(_velClient_msg *msg, velClient_int64_t *ttl_p);
/* NOT_FOUND (value 0) when the message carries none. */
velClient_returnCode_t msgId(_velClient_msg *msg, velClient_msgId_t *msgId_p);
velClient_returnCode_t topicSequenceNumber(_velClient_msg *msg, velClient_int64_t *seqNum_p);
velClient_returnCode_t cacheRequestId(_velClient_msg *msg, velClient_uint64_t *cacheRequestId_p);
velClient_returnCode_t rcvTimestamp(_velClient_msg *msg, velClient_int64_t *timestamp_p);
/* Before initialisation this logs a warning and answers INVALID_MESSAGE. */
velClient_cacheStatus_t cacheStatus(const _velClient_msg *msg);
bool isRedelivered(const _velClient_msg *msg);

/* The yes/no marks of the receive-flags word. */
enum class Mark { deliverToOne, dmqEligible, discardIndication, elidingEligible, ackImmediately, replyMsg };
bool isMarked(const _velClient_msg *msg, Mark mark);
template <Mark mark>
bool marked(const _velClient_msg *msg)
{
    return isMarked(msg, mark);
}

/* ---- Properties kept in the header map ------------------------------------- */
enum class HeaderProperty { senderId, appMsgType, appMsgId, correlationId, sequenceNumber, senderTimestamp };
/* The string (senderId .. correlationId) or number (the others) property. */
velClient_returnCode_t headerString(_velClient_msg *msg, HeaderProperty property, const char **value_p);
velClient_returnCode_t headerInt64(_velClient_msg *msg, HeaderProperty property, velClient_int64_t *value_p);
velClient_returnCode_t setHeaderString(_velClient_msg *msg, HeaderProperty property, const char *value);
velClient_returnCode_t setHeaderInt64(_velClient_msg *msg, HeaderProperty property, velClient_int64_t value);
template <HeaderProperty property>
velClient_returnCode_t headerString(_velClient_msg *msg, const char **value_p)
{
    return headerString(msg, property, value_p);
}
template <HeaderProperty property>
velClient_returnCode_t headerInt64(_velClient_msg *msg, velClient_int64_t *value_p)
{
    return headerInt64(msg, property, value_p);
}
/* A generic string property of the header map (the HTTP content fields). */
velClient_returnCode_t headerMapString(_velClient_msg *msg, const char *key, const char **value_p);
velClient_returnCode_t expiration(_velClient_msg *msg, velClient_int64_t *timestamp_p);

/* ---- Destinations ---------------------------------------------------------- */
/* dest_p is a well-sized destination record. */
velClient_returnCode_t destination(_velClient_msg *msg, velClient_destination_t *dest_p);
velClient_returnCode_t replyTo(_velClient_msg *msg, velClient_destination_t *dest_p);

/* ---- Parts and containers -------------------------------------------------- */
/* The consumer ids held in part 2 of parts (a null parts is refused). */
velClient_returnCode_t consumerIdCount(const velClient_bufInfo_t *parts, velClient_uint32_t *count_p);
velClient_returnCode_t consumerId(const velClient_bufInfo_t *parts, velClient_uint32_t index,
                                  velClient_consumerId_t *id_p);
/* The open user property map (reference count raised), opened when needed. */
velClient_returnCode_t userPropertyMap(_velClient_msg *msg, _velClient_container **map_p);
/* The attachment as an open container of kind (MAP or STREAM); NOT_FOUND
 * when it holds the other kind or none. */
velClient_returnCode_t attachmentContainer(_velClient_msg *msg, velClient_fieldType_t kind,
                                           _velClient_container **cont_p);
/* Opens the container that part 0 or 7 holds: NOT_FOUND when it holds none;
 * OK with *cont_p null (and nothing left open) when it holds the kind other
 * than wanted (VELCLIENT_MAP or VELCLIENT_STREAM). */
velClient_returnCode_t openPartContainer(_velClient_msg *msg, int part, velClient_fieldType_t wanted,
                                         _velClient_container **cont_p);
/* openPartContainer(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, VELCLIENT_MAP, cont_p). */
velClient_returnCode_t openUserPropertyContainer(_velClient_msg *msg, _velClient_container **cont_p);
/* The attachment as text: *text_p is nullptr when the string lacks its NUL. */
velClient_returnCode_t attachmentString(_velClient_msg *msg, const char **text_p);

} // namespace vel::msg

namespace vel::container {

/* The encoded size of the container's written bytes. */
inline std::size_t size(const _velClient_container *c) noexcept
{
    return static_cast<std::size_t>(c->curWrPtr - c->startPtr);
}
velClient_returnCode_t deleteField(_velClient_container *c, const char *name);
velClient_returnCode_t addString(_velClient_container *c, const char *value, const char *name);
velClient_returnCode_t addInt64(_velClient_container *c, velClient_int64_t value, const char *name);
velClient_returnCode_t addDestination(_velClient_container *c, const velClient_destination_t *value, size_t destSize,
                                      const char *name);
velClient_returnCode_t getDestination(_velClient_container *c, velClient_destination_t *value, const char *name);
velClient_returnCode_t getUint64(_velClient_container *c, velClient_uint64_t *value, const char *name);

} // namespace vel::container
