/*
 * amqpReceived.h - the steps of decoding a received AMQP message that live
 * in files of their own: the annotations this library reads, and the header
 * map of a message from another client built from its standard fields.
 */
#pragma once

#include <cstdint>
#include <string>

#include <proton/message.h>

#include "velClientAmqp/amqpCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::amqp {

/* Records what makes a received message unusable (PROTOCOL_ERROR) and
 * returns VELCLIENT_FAIL. */
velClient_returnCode_t refuse(const char *what);

/* The annotations this library reads, as found in a message (the bytes
 * point into the Proton message). */
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

/* true when key holds exactly the text name. */
bool keyIs(pn_bytes_t key, const char *name);

/* Fills n from the message-annotations map in d; false when a known key
 * holds a value of another type. Unknown keys are passed over. */
bool readNotes(pn_data_t *d, Notes &n);

/* The header map of a message without x-opt-vel-header-map: its properties
 * (message-id, correlation-id, subject, content type and encoding, reply-to,
 * creation and expiry time) and the sender id and sequence number notes. */
velClient_returnCode_t setStandardFields(_velClient_msg *msg, pn_message_t *pm, const Addressing &rules,
                                         const Notes &n);

} // namespace vel::amqp
