/*
 * amqpNotes.cpp - reading the message annotations this library writes (keys
 * x-opt-vel-...) out of a received AMQP message, each checked for its type,
 * and the refusal every decoding step shares.
 */
#include <cstring>

#include "velClientAmqp/amqpFields.h"
#include "velClientAmqp/amqpReceived.h"

using vel::amqp::Notes;

velClient_returnCode_t vel::amqp::refuse(const char *what)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_PROTOCOL_ERROR, VELCLIENT_LOG_WARNING,
                    "Invalid AMQP message (%s) in the AMQP receive path", what);
}

bool vel::amqp::keyIs(pn_bytes_t key, const char *name)
{
    return key.size == std::strlen(name) && std::memcmp(key.start, name, key.size) == 0;
}

namespace {

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

} // namespace

bool vel::amqp::readNotes(pn_data_t *d, Notes &n)
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
