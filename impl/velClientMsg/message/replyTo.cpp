/*
 * replyTo.cpp - the reply-to destination, kept as field "rt" of the private
 * header map, and the two helpers that work relative to a session's
 * point-to-point inbox topic base: the reply-to suffix and the destination
 * topic suffix.
 */
#include <cstdio>
#include <cstring>

#include "velClientMsg/message/destinationText.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientSession/sessionPrivate.h"

namespace {

/* The reply-to topic "base/suffix" ("base/#" for the empty suffix), cut
 * silently at its 250 characters. */
void replyTopic(char (&topic)[kSessionMaxTopic + 1], const char *base, const char *suffix)
{
    std::size_t n = 0;
    for (const char *part : {base, "/", *suffix != '\0' ? suffix : "#"})
        for (; *part != '\0' && n < kSessionMaxTopic; ++part)
            topic[n++] = *part;
    topic[n] = '\0';
}

constexpr const char *kReplyToKey = "rt";

/* The destination's text is lent to the header map setter, so that one read
 * back from this message's header map is kept before the old entry goes. */
velClient_returnCode_t setReplyTo(_velClient_msg *msg, const velClient_destination_t *given)
{
    velClient_destination_t dest = *given;
    const char *text = dest.dest;
    return vel::hdr::set(
        msg, kReplyToKey, _VELCLIENT_MSG_FLAG_REPLY_TO, _VELCLIENT_MSG_FLAG_REPLY_TO,
        [&](_velClient_container *map) {
            dest.dest = text;
            return vel::container::addDestination(map, &dest, sizeof dest, kReplyToKey);
        },
        &text);
}

} // namespace

VEL_DESTINATION_EXPORT(velClient_msg_setReplyTo, const, "Bad msg_p pointer (%p) in velClient_msg_setReplyTo",
                       "velClient_destination_t", setReplyTo)
VEL_DESTINATION_EXPORT(velClient_msg_getReplyTo, , "Bad msg_p pointer (%p) in velClient_msg_getReplyTo",
                       "velClient_destination_t", vel::msg::replyTo)

velClient_returnCode_t vel::msg::replyTo(_velClient_msg *msg, velClient_destination_t *dest_p)
{
    if (msg->hdrMap_p == nullptr) {
        velClient_returnCode_t rc = _velClient_msg_getOrCreateHeaderMaps(msg, 0);
        if (rc != VELCLIENT_OK)
            return rc;
        if (msg->hdrMap_p == nullptr)
            return VELCLIENT_NOT_FOUND;
    }
    return vel::container::getDestination(msg->hdrMap_p, dest_p, kReplyToKey);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_deleteReplyTo(velClient_opaqueMsg_pt msg_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_deleteReplyTo");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return vel::hdr::remove(msg, kReplyToKey, _VELCLIENT_MSG_FLAG_REPLY_TO);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setReplyToSuffix(velClient_opaqueMsg_pt msg_p,
                                                                              velClient_opaqueSession_pt session_p,
                                                                              const char *suffix_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setReplyToSuffix");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    _velClient_session *session =
        vel::sessionOrFail(session_p, "Bad session pointer (%p) in velClient_msg_setReplyToSuffix");
    if (session == nullptr)
        return VELCLIENT_FAIL;
    if (suffix_p == nullptr)
        return VEL_FAIL_NULL("Null suffix pointer in velClient_msg_setReplyToSuffix");
    if (vel::hdr::openForWrite(msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    char topic[kSessionMaxTopic + 1];
    replyTopic(topic, session->p2pTopicBase, suffix_p);
    velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, topic};
    return setReplyTo(msg, &dest);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getDestinationTopicSuffix(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueSession_pt session_p, const char **suffix_p)
{
    if (suffix_p == nullptr)
        return VEL_FAIL_NULL("Null reference to suffix pointer in velClient_msg_getDestinationTopicSuffix");
    _velClient_session *session =
        vel::sessionOrFail(session_p, "Bad session pointer (%p) in velClient_msg_getDestinationTopicSuffix");
    if (session == nullptr)
        return VELCLIENT_FAIL;
    /* The message is checked as the destination getter checks it. */
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getDestination");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    velClient_destination_t dest{};
    velClient_returnCode_t rc = vel::msg::destination(msg, &dest);
    if (rc != VELCLIENT_OK)
        return rc;
    if (dest.destType != VELCLIENT_TOPIC_DESTINATION)
        return VELCLIENT_NOT_FOUND;
    std::size_t baseLength = std::strlen(session->p2pTopicBase);
    if (std::strncmp(dest.dest, session->p2pTopicBase, baseLength) != 0 || dest.dest[baseLength] != '/')
        return VELCLIENT_NOT_FOUND;
    const char *suffix = dest.dest + baseLength + 1;
    *suffix_p = std::strcmp(suffix, "#") == 0 ? suffix + 1 : suffix;
    return VELCLIENT_OK;
}
