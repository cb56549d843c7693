/*
 * amqpFields.h - the codec's shared vocabulary: the annotation keys this
 * library writes, and the conversions between structured data (maps and
 * streams of typed fields) and AMQP 1.0 values held in a Proton pn_data_t.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <proton/codec.h>
#include <proton/message.h>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::amqp {

/* Message-annotation keys (symbols); docs/amqp.md describes each. */
inline constexpr char kKeyTopic[] = "x-opt-vel-topic";
inline constexpr char kKeyDestPrefix[] = "x-opt-vel-dest-prefix";
inline constexpr char kKeyHeaderMap[] = "x-opt-vel-header-map";
inline constexpr char kKeyUserProperties[] = "x-opt-vel-user-properties";
inline constexpr char kKeyAttachment[] = "x-opt-vel-attachment";
inline constexpr char kKeySenderId[] = "x-opt-vel-sender-id";
inline constexpr char kKeySequenceNumber[] = "x-opt-vel-sequence-number";
inline constexpr char kKeyTopicSequenceNumber[] = "x-opt-vel-topic-sequence-number";
inline constexpr char kKeyUserData[] = "x-opt-vel-user-data";
inline constexpr char kKeyXml[] = "x-opt-vel-xml";
inline constexpr char kKeyConsumerIds[] = "x-opt-vel-consumer-ids";
inline constexpr char kKeyDeliveryMode[] = "x-opt-vel-delivery-mode";
inline constexpr char kKeyTimeToLive[] = "x-opt-vel-ttl";
/* Values of kKeyAttachment: the data section holds a map or a stream. */
inline constexpr char kAttachmentIsMap[] = "map";
inline constexpr char kAttachmentIsStream[] = "stream";

/* Receive flags that travel as boolean annotations, present when set. */
struct MarkKey {
    const char *key;
    std::uint32_t flag;
};
inline constexpr MarkKey kMarkKeys[] = {
    {"x-opt-vel-deliver-to-one", _VELCLIENT_RX_FLAG_DELIVER_TO_ONE},
    {"x-opt-vel-temporary-destination", _VELCLIENT_RX_FLAG_TEMP_DEST},
    {"x-opt-vel-dmq-eligible", _VELCLIENT_RX_FLAG_DMQ_ELIGIBLE},
    {"x-opt-vel-eliding-eligible", _VELCLIENT_RX_FLAG_ELIDING_ELIGIBLE},
    {"x-opt-vel-ack-immediately", _VELCLIENT_RX_FLAG_ACK_IMMEDIATELY},
    {"x-opt-vel-cache-suspect", _VELCLIENT_RX_FLAG_CACHE_SUSPECT},
    {"x-opt-vel-cache-message", _VELCLIENT_RX_FLAG_CACHE_MSG},
    {"x-opt-vel-reply-message", _VELCLIENT_RX_FLAG_REPLY_MSG},
    {"x-opt-vel-discard-indication", _VELCLIENT_RX_FLAG_DISCARD_INDICATION},
};

/* header.priority of class of service 1 (2 and 3 follow it). */
inline constexpr std::uint8_t kPriorityOfCos1 = 4;
/* Header map keys of the HTTP content type and encoding. */
inline constexpr char kHttpContentTypeKey[] = "ct";
inline constexpr char kHttpContentEncodingKey[] = "ce";

/* Deepest nesting of AMQP compound values the codec writes or reads: a
 * message section counts one, each map or list inside it one more. */
inline constexpr int kMaxDepth = 32;

/* Deepest nesting of structured data the decoder accepts in bytes carried whole. */
inline constexpr int kMaxFieldDepth = 512;

/* This thread's Proton message, cleared, for one encode or decode; nullptr
 * when it cannot be allocated. */
pn_message_t *scratchMessage();

/* Writes the fields in [p, end) - the entries of a map (keyed) or the values
 * of a stream - into data, which is positioned inside a map or list. false,
 * with data left part written, when AMQP cannot hold them so that they read
 * back byte for byte: a field of a type without an AMQP counterpart, a map
 * entry without a name or with a name met before, a field not in the form a
 * writer of this library gives it, a scalar where scalarsOnly, or nesting
 * deeper than depth allows. */
bool putFields(pn_data_t *data, const std::uint8_t *p, const std::uint8_t *end, bool keyed, int depth,
               bool scalarsOnly);

/* Appends the structured-data bytes of the map (keyed) or stream whose
 * entries are the children of the current node of data: a 5-byte header and
 * the fields. false when a value has no counterpart (a described value, a
 * decimal, a character beyond 16 bits, text holding a NUL, a key that is
 * not a string or symbol, a too deep nesting). */
bool writeContainer(pn_data_t *data, bool keyed, int depth, std::vector<std::uint8_t> &out);

/* The type byte of a text attachment: a string with a 4-byte length. */
inline constexpr std::uint8_t kAttachmentStringType = vel::tlv::kTypeString | 0x03;

/* Appends a text attachment: kAttachmentStringType, the 4-byte length, the
 * n bytes of text and a NUL. */
void appendAttachmentString(std::vector<std::uint8_t> &out, const char *text, std::size_t n);

/* true when [p, end) is a well-formed map (keyed) or stream body, with every
 * nested container well formed too, no deeper than depth. */
bool wellFormedFields(const std::uint8_t *p, const std::uint8_t *end, bool keyed, int depth);

/* true when size bytes at p hold AMQP values (the sections of a message)
 * whose compound nesting stays within kMaxDepth, so that decoding them does
 * not recurse without bound. Only structure is checked. */
bool shallowAmqp(const std::uint8_t *p, std::size_t size);

/* true when the message in size bytes at p opens with a header section that
 * counts an earlier delivery: first-acquirer false or delivery-count above 0.
 * Read from the bytes without decoding the message; false when the header is
 * absent, and every field encoding AMQP allows is understood. */
bool headerSaysRedelivered(const std::uint8_t *p, std::size_t size);

} // namespace vel::amqp
