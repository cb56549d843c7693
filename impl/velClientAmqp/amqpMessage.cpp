/*
 * amqpMessage.cpp - a message, as the send path has prepared it, encoded as
 * one AMQP 1.0 message. Standard fields go where any AMQP client looks for
 * them (header, properties, application-properties, body); what has no
 * standard place travels as message annotations (amqpFields.h lists the
 * keys). The private header map goes whole in an annotation, so that a
 * receiver of this library reads every field of it byte for byte; its fields
 * with a standard counterpart are written there too. docs/amqp.md has the
 * table.
 */
#include <proton/message.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "velClientAmqp/amqpCodec.h"
#include "velClientAmqp/amqpFields.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

using vel::msg::HeaderProperty;

/* Bytes of a part, or an empty view. */
struct Bytes {
    const std::uint8_t *p = nullptr;
    std::uint32_t n = 0;
};

Bytes partOf(const _velClient_msg *msg, int part)
{
    const velClient_bufInfo_t &info = msg->bufInfo_a[part];
    if (info.buf_p == nullptr || info.bufSize == 0)
        return {};
    return {static_cast<const std::uint8_t *>(info.buf_p), info.bufSize};
}

/* The entries of a finalised map or stream held at offset in a part; empty
 * view when the part holds none. */
Bytes entriesOf(const _velClient_msg *msg, int part, std::uint32_t offset)
{
    Bytes b = partOf(msg, part);
    const std::uint32_t header = offset + vel::tlv::kContainerHeaderSize;
    if (b.n < header || vel::tlv::getBE(b.p + offset + 1, 4) + offset != b.n)
        return {};
    return {b.p + header, b.n - header};
}

pn_bytes_t bytesOf(Bytes b)
{
    return pn_bytes(b.n, reinterpret_cast<const char *>(b.p));
}

/* The annotation map being written (data positioned inside it). */
class Annotations {
  public:
    explicit Annotations(pn_data_t *data) : data_(data)
    {
        pn_data_put_map(data_);
        pn_data_enter(data_);
    }
    ~Annotations() { pn_data_exit(data_); }
    Annotations(const Annotations &) = delete;
    Annotations &operator=(const Annotations &) = delete;

    pn_data_t *key(const char *name)
    {
        pn_data_put_symbol(data_, pn_bytes(std::strlen(name), name));
        return data_;
    }
    void binary(const char *name, Bytes b)
    {
        if (b.n > 0)
            pn_data_put_binary(key(name), bytesOf(b));
    }
    void text(const char *name, Bytes b)
    {
        if (b.n > 0)
            pn_data_put_string(key(name), bytesOf(b));
    }

  private:
    pn_data_t *data_;
};

/* One encode: the message read, the Proton message written. */
struct Encoder {
    _velClient_msg *msg;
    const vel::amqp::Addressing &rules;
    pn_message_t *out;
    const std::string *address; /* the destination's, when the caller has it */
};

/* The address of a destination; empty for a kind byte that names no known
 * type (a received header map may hold any). */
std::string addressOf(const vel::amqp::Addressing &rules, const velClient_destination_t &dest)
{
    switch (vel::enumValue(dest.destType)) {
    case VELCLIENT_TOPIC_DESTINATION:
    case VELCLIENT_TOPIC_TEMP_DESTINATION: return vel::amqp::topicAddress(rules, dest.dest, false);
    case VELCLIENT_QUEUE_DESTINATION:
    case VELCLIENT_QUEUE_TEMP_DESTINATION: return vel::amqp::queueAddress(rules, dest.dest);
    default: return {};
    }
}

bool namesKnownType(const velClient_destination_t &dest)
{
    switch (vel::enumValue(dest.destType)) {
    case VELCLIENT_TOPIC_DESTINATION:
    case VELCLIENT_TOPIC_TEMP_DESTINATION:
    case VELCLIENT_QUEUE_DESTINATION:
    case VELCLIENT_QUEUE_TEMP_DESTINATION: return true;
    default: return false;
    }
}

/* The reply-to address. A requester names the same inbox in every request:
 * the last one worked out on this thread is kept. */
const std::string &replyToAddress(const vel::amqp::Addressing &rules, const velClient_destination_t &dest)
{
    struct Last {
        vel::amqp::Addressing rules;
        int type = -1;
        std::string name;
        std::string address;
    };
    thread_local Last last;
    int type = vel::enumValue(dest.destType);
    if (type != last.type || last.name != dest.dest || !(last.rules == rules)) {
        last.address = addressOf(rules, dest);
        last.type = type;
        last.name = dest.dest;
        last.rules = rules;
    }
    return last.address;
}

/* Sets an address property unless the address is empty. */
void setAddress(pn_message_t *out, int (*set)(pn_message_t *, const char *), const std::string &address)
{
    if (!address.empty())
        set(out, address.c_str());
}

/* The address property: the one the caller worked out, if any, else worked out here. */
void writeAddress(Encoder &e)
{
    velClient_destination_t dest{};
    if (vel::msg::destination(e.msg, &dest) != VELCLIENT_OK || dest.dest == nullptr)
        return;
    if (e.address != nullptr && namesKnownType(dest))
        setAddress(e.out, pn_message_set_address, *e.address);
    else
        setAddress(e.out, pn_message_set_address, addressOf(e.rules, dest));
}

void writeDestination(Encoder &e, Annotations &notes)
{
    writeAddress(e);
    notes.text(vel::amqp::kKeyTopic, partOf(e.msg, VELCLIENT_BUFINFO_TOPIC_PART));
    notes.text(vel::amqp::kKeyDestPrefix, partOf(e.msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART));
}

void writeHeader(Encoder &e, Annotations &notes)
{
    const std::uint32_t flags = e.msg->msgInfo.flags;
    const std::uint32_t mode = flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK;
    pn_message_set_durable(e.out, mode == VELCLIENT_DELIVERY_MODE_PERSISTENT);
    if (mode != VELCLIENT_DELIVERY_MODE_PERSISTENT && mode != VELCLIENT_DELIVERY_MODE_DIRECT)
        pn_data_put_ubyte(notes.key(vel::amqp::kKeyDeliveryMode), static_cast<std::uint8_t>(mode));
    pn_message_set_priority(e.out, static_cast<std::uint8_t>(vel::amqp::kPriorityOfCos1 +
                                                             (flags & _VELCLIENT_RX_FLAG_COS_MASK)));
    const std::uint64_t ttl = e.msg->timeToLive;
    if (ttl > UINT32_MAX)
        pn_data_put_ulong(notes.key(vel::amqp::kKeyTimeToLive), ttl);
    pn_message_set_ttl(e.out, static_cast<pn_millis_t>(ttl > UINT32_MAX ? UINT32_MAX : ttl));
    if (flags & _VELCLIENT_RX_FLAG_TOPIC_SEQ_NUM)
        pn_data_put_ulong(notes.key(vel::amqp::kKeyTopicSequenceNumber), e.msg->topicSeqNo);
    for (const vel::amqp::MarkKey &mark : vel::amqp::kMarkKeys)
        if (flags & mark.flag)
            pn_data_put_bool(notes.key(mark.key), true);
}

void setStringId(pn_message_t *out, int (*set)(pn_message_t *, pn_msgid_t), const char *text)
{
    pn_atom_t id{};
    id.type = PN_STRING;
    id.u.as_bytes = pn_bytes(std::strlen(text), text);
    set(out, id);
}

/* The standard properties, each read from the header map. */
void writeProperties(Encoder &e)
{
    const char *text = nullptr;
    if (vel::msg::headerString(e.msg, HeaderProperty::appMsgId, &text) == VELCLIENT_OK)
        setStringId(e.out, pn_message_set_id, text);
    if (vel::msg::headerString(e.msg, HeaderProperty::correlationId, &text) == VELCLIENT_OK)
        setStringId(e.out, pn_message_set_correlation_id, text);
    if (vel::msg::headerString(e.msg, HeaderProperty::appMsgType, &text) == VELCLIENT_OK)
        pn_message_set_subject(e.out, text);
    if (vel::msg::headerMapString(e.msg, vel::amqp::kHttpContentTypeKey, &text) == VELCLIENT_OK)
        pn_message_set_content_type(e.out, text);
    if (vel::msg::headerMapString(e.msg, vel::amqp::kHttpContentEncodingKey, &text) == VELCLIENT_OK)
        pn_message_set_content_encoding(e.out, text);
    velClient_int64_t ms = 0;
    if (vel::msg::headerInt64(e.msg, HeaderProperty::senderTimestamp, &ms) == VELCLIENT_OK)
        pn_message_set_creation_time(e.out, ms);
    if (vel::msg::expiration(e.msg, &ms) == VELCLIENT_OK && ms != 0)
        pn_message_set_expiry_time(e.out, ms);
    velClient_destination_t replyTo{};
    if (vel::msg::replyTo(e.msg, &replyTo) == VELCLIENT_OK && replyTo.dest != nullptr)
        setAddress(e.out, pn_message_set_reply_to, replyToAddress(e.rules, replyTo));
}

/* The header map whole, and the two of its fields only annotations can carry. */
void writeHeaderMap(Encoder &e, Annotations &notes)
{
    notes.binary(vel::amqp::kKeyHeaderMap, entriesOf(e.msg, _VELCLIENT_BUFINFO_HDR_MAP_PART, kMapEntryKeySize));
    const char *sender = nullptr;
    if (vel::msg::headerString(e.msg, HeaderProperty::senderId, &sender) == VELCLIENT_OK)
        pn_data_put_string(notes.key(vel::amqp::kKeySenderId), pn_bytes(std::strlen(sender), sender));
    velClient_int64_t seq = 0;
    if (vel::msg::headerInt64(e.msg, HeaderProperty::sequenceNumber, &seq) == VELCLIENT_OK)
        pn_data_put_long(notes.key(vel::amqp::kKeySequenceNumber), seq);
}

/* application-properties when AMQP holds every entry there, else the map whole in an annotation. */
void writeUserProperties(Encoder &e, Annotations &notes)
{
    Bytes part = partOf(e.msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART);
    Bytes entries = entriesOf(e.msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, kMapEntryKeySize);
    if (part.n == 0)
        return;
    pn_data_t *props = pn_message_properties(e.out);
    pn_data_put_map(props);
    pn_data_enter(props);
    bool held = vel::amqp::putFields(props, entries.p, entries.p + entries.n, true, 1, true);
    pn_data_exit(props);
    if (held)
        return;
    pn_data_clear(props);
    pn_data_put_binary(notes.key(vel::amqp::kKeyUserProperties), bytesOf(entries));
}

/* true when the attachment is one string element as the attachment-string
 * setter writes it: 0x1F, a 4-byte length, the text and its only NUL. */
bool isPlainString(const _velClient_msg *msg, Bytes b, const char **text)
{
    if (vel::msg::attachmentString(const_cast<_velClient_msg *>(msg), text) != VELCLIENT_OK || *text == nullptr)
        return false;
    return b.p[0] == vel::amqp::kAttachmentStringType && std::strlen(*text) + 6 == b.n;
}

void writeBody(Encoder &e, Annotations &notes)
{
    Bytes b = partOf(e.msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART);
    if (b.n == 0)
        return;
    pn_data_t *body = pn_message_body(e.out);
    const std::uint8_t kind = e.msg->binAttachmentType;
    if ((kind == kAttachmentMap && b.p[0] == vel::tlv::kTypeMap) ||
        (kind == kAttachmentStream && b.p[0] == vel::tlv::kTypeStream)) {
        bool map = kind == kAttachmentMap;
        Bytes entries = entriesOf(e.msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, 0);
        if (entries.p != nullptr) {
            (map ? pn_data_put_map : pn_data_put_list)(body);
            pn_data_enter(body);
            bool held = vel::amqp::putFields(body, entries.p, entries.p + entries.n, map, vel::amqp::kMaxDepth - 1,
                                             false);
            pn_data_exit(body);
            if (held)
                return;
            pn_data_clear(body);
        }
        const char *form = map ? vel::amqp::kAttachmentIsMap : vel::amqp::kAttachmentIsStream;
        pn_data_put_symbol(notes.key(vel::amqp::kKeyAttachment), pn_bytes(std::strlen(form), form));
    } else {
        const char *text = nullptr;
        if (isPlainString(e.msg, b, &text)) {
            pn_data_put_string(body, pn_bytes(std::strlen(text), text));
            return;
        }
    }
    pn_message_set_inferred(e.out, true);
    pn_data_put_binary(body, bytesOf(b));
}

void writeParts(Encoder &e, Annotations &notes)
{
    notes.binary(vel::amqp::kKeyUserData, partOf(e.msg, VELCLIENT_BUFINFO_USER_DATA_PART));
    notes.binary(vel::amqp::kKeyXml, partOf(e.msg, VELCLIENT_BUFINFO_XML_PART));
    notes.binary(vel::amqp::kKeyConsumerIds, partOf(e.msg, VELCLIENT_BUFINFO_CONSUMER_ID_PART));
}

/* Runs pn_message_encode into out, growing it until the message fits. */
bool encodeInto(pn_message_t *pm, std::vector<char> &out, std::size_t guess)
{
    out.resize(std::max<std::size_t>(guess, 256));
    for (;;) {
        std::size_t size = out.size();
        int rc = pn_message_encode(pm, out.data(), &size);
        if (rc == 0) {
            out.resize(size);
            return true;
        }
        if (rc != PN_OVERFLOW || out.size() > (std::size_t{1} << 33))
            return false;
        out.resize(out.size() * 2);
    }
}

std::size_t sizeGuess(const _velClient_msg *msg)
{
    std::size_t total = 512;
    for (const velClient_bufInfo_t &part : msg->bufInfo_a)
        total += part.bufSize;
    return total;
}

} // namespace

pn_message_t *vel::amqp::scratchMessage()
{
    struct Free {
        void operator()(pn_message_t *m) const { pn_message_free(m); }
    };
    thread_local std::unique_ptr<pn_message_t, Free> scratch(pn_message());
    if (scratch != nullptr)
        pn_message_clear(scratch.get());
    return scratch.get();
}

velClient_returnCode_t vel::amqp::encode(_velClient_msg *msg, const Addressing &rules, std::vector<char> &out,
                                         const std::string *address)
{
    out.clear();
    /* A received message resent keeps its maps inside part 8 until they are taken apart. */
    if (_velClient_msg_getOrCreateHeaderMaps(msg, 0) == VELCLIENT_FAIL)
        return VELCLIENT_FAIL;
    pn_message_t *pm = vel::amqp::scratchMessage();
    if (pm == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Could not allocate an AMQP message in velClient_session_sendMsg");
    Encoder e{msg, rules, pm, address};
    {
        Annotations notes(pn_message_annotations(pm));
        writeDestination(e, notes);
        writeHeader(e, notes);
        writeProperties(e);
        writeHeaderMap(e, notes);
        writeUserProperties(e, notes);
        writeBody(e, notes);
        writeParts(e, notes);
    }
    if (!encodeInto(pm, out, sizeGuess(msg))) {
        out.clear();
        return VEL_FAIL(VELCLIENT_SUBCODE_PROTOCOL_ERROR, VELCLIENT_LOG_WARNING,
                        "Could not encode the message as AMQP (%s) in velClient_session_sendMsg",
                        pn_error_text(pn_message_error(pm)));
    }
    return VELCLIENT_OK;
}
