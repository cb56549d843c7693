/*
 * destinationText.h - the fixed texts and limits of destinations, shared by
 * the topic and queue-name setters and by setting a destination: network
 * prefixes, length limits, splitting a "#P2P/QUE/..." name, and the
 * temporary-destination mark.
 */
#pragma once

#include <cstring>

#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::dest {

inline constexpr std::size_t kMaxTopic = 250;
inline constexpr std::size_t kMaxQueue = 200;
inline constexpr char kQueuePrefix[] = "#P2P/QUE/";
inline constexpr char kTempTopicPrefix[] = "#P2P/TTMP/";
inline constexpr char kTempQueuePrefix[] = "#P2P/QTMP/";
inline constexpr std::size_t kQueuePrefixLength = sizeof kQueuePrefix - 1;

/* prefix is one of the non-empty prefixes above: most names differ from it in
 * their first character, which is tested before any call. */
inline bool startsWith(const char *text, const char *prefix)
{
    return text[0] == prefix[0] && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

/* For a name that begins with the queue prefix: the queue name after the
 * "/" that ends its network part, or nullptr when there is no such "/" or
 * nothing follows it. */
inline const char *queueNameAfterPrefix(const char *text)
{
    if (std::strlen(text) <= kQueuePrefixLength)
        return nullptr;
    const char *slash = std::strchr(text + kQueuePrefixLength, '/');
    return slash != nullptr && slash[1] != '\0' ? slash + 1 : nullptr;
}

inline void setTemporary(_velClient_msg *msg, bool temporary)
{
    if (temporary)
        msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_TEMP_DEST;
    else
        msg->msgInfo.flags &= ~_VELCLIENT_RX_FLAG_TEMP_DEST;
}

/* The checks made on an application's velClient_destination argument: not
 * null, and of this library's size; each with its caller's text. */
inline velClient_returnCode_t checkArgument(const void *dest_p, size_t destSize, Format<> nullText,
                                            Format<int, int> sizeText)
{
    if (dest_p == nullptr)
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, nullText);
    if (destSize != sizeof(velClient_destination_t))
        return VEL_FAIL_F(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, VELCLIENT_LOG_WARNING, sizeText,
                          static_cast<int>(destSize), static_cast<int>(sizeof(velClient_destination_t)));
    return VELCLIENT_OK;
}

/* The texts of a call that takes a destination argument, after its bad-handle text. */
#define VEL_DESTINATION_TEXTS(nullName, function)                                                         \
    "Null " nullName " pointer in " function,                                                              \
        "Unsupported destination structure size (received %d, expected %d) in " function

/* A call that takes a destination argument: resolves msg_p and checks the
 * argument, recording what is wrong with either, then answers op(msg, dest_p). */
template <typename Dest, typename Op>
velClient_returnCode_t withDestination(velClient_opaqueMsg_pt msg_p, Dest *dest_p, size_t destSize,
                                       HandleFormat badHandle, Format<> nullText, Format<int, int> sizeText, Op op)
{
    _velClient_msg *msg = msgOrFail(msg_p, badHandle);
    if (msg == nullptr || checkArgument(dest_p, destSize, nullText, sizeText) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    return op(msg, dest_p);
}

} // namespace vel::dest

/* An export taking a message and a destination argument (const or not, as
 * qualifier says): its bad-handle text, the name its null text gives the
 * argument, and the record function it calls once both are good. */
#define VEL_DESTINATION_EXPORT(function, qualifier, badHandle, nullName, op)                                   \
    extern "C" VELCLIENT_API velClient_returnCode_t function(                                                  \
            velClient_opaqueMsg_pt msg_p, qualifier velClient_destination_t *dest_p, size_t destSize)          \
    {                                                                                                          \
        return vel::dest::withDestination(msg_p, dest_p, destSize, badHandle,                                   \
                                          VEL_DESTINATION_TEXTS(nullName, #function), op);                      \
    }
