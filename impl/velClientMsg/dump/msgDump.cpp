/*
 * msgDump.cpp - a whole message as text: one labelled line per present
 * header field, in a fixed order given by a table, then the user property
 * map, consumer ids, correlation tag, user data, binary attachment and XML.
 * The dump reads the message through the getters' internal functions, so it
 * leaves behind what the public getters would.
 */
#include <cstring>
#include <type_traits>

#include "velClientMsg/dump/dumpWriter.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientTime/clock.h"

namespace {

using vel::msg::HeaderProperty;
using vel::msg::Mark;

struct Ctx {
    _velClient_msg *msg;
    char *buf;
    std::size_t size;
    std::size_t left;
    bool fullContent;
};

#define VEL_CTX(c) (c).buf, (c).size, &(c).left

/* "%-40s<milliseconds> <time text>\n". */
void timeLine(Ctx &c, const char *label, long long ms)
{
    char text[80] = {};
    _velClient_formatTime(static_cast<std::int64_t>(ms / 1000), text, sizeof text);
    text[79] = '\0';
    _velClient_dump(VEL_CTX(c), 0, "%-40s%lld %s\n", label, ms, text);
}

template <velClient_returnCode_t (*Get)(_velClient_msg *, const char **)>
void stringLine(Ctx &c, const char *label)
{
    const char *value = nullptr;
    if (Get(c.msg, &value) == VELCLIENT_OK)
        _velClient_dump(VEL_CTX(c), 0, "%-40s%s\n", label, value);
}

enum class Show { present, positive, time };

template <typename T, velClient_returnCode_t (*Get)(_velClient_msg *, T *), Show show = Show::present>
void numberLine(Ctx &c, const char *label)
{
    T value{};
    if (Get(c.msg, &value) != VELCLIENT_OK || (show != Show::present && value <= 0))
        return;
    if constexpr (show == Show::time)
        timeLine(c, label, static_cast<long long>(value));
    else if constexpr (std::is_signed_v<T>)
        _velClient_dump(VEL_CTX(c), 0, "%-40s%lld\n", label, static_cast<long long>(value));
    else
        _velClient_dump(VEL_CTX(c), 0, "%-40s%llu\n", label, static_cast<unsigned long long>(value));
}

template <bool (*Is)(const _velClient_msg *)>
void markLine(Ctx &c, const char *label)
{
    if (Is(c.msg))
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
}

template <velClient_returnCode_t (*Get)(_velClient_msg *, velClient_destination_t *)>
void destinationLine(Ctx &c, const char *label)
{
    velClient_destination_t dest{};
    if (Get(c.msg, &dest) != VELCLIENT_OK)
        return;
    _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
    _velClient_destination_dump(&dest, VEL_CTX(c));
    _velClient_dump(VEL_CTX(c), 0, "\n");
}

/* Picks one of several texts by value, "Unknown (%u)\n" otherwise. */
template <velClient_returnCode_t (*Get)(_velClient_msg *, velClient_uint32_t *), std::uint32_t step>
void choiceLine(Ctx &c, const char *label, const char *const (&names)[3])
{
    velClient_uint32_t value = 0;
    if (Get(c.msg, &value) != VELCLIENT_OK)
        return;
    _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
    if (value % step == 0 && value / step < 3)
        _velClient_dump(VEL_CTX(c), 0, "%s", names[value / step]);
    else
        _velClient_dump(VEL_CTX(c), 0, "Unknown (%u)\n", value);
}

void classOfServiceLine(Ctx &c, const char *label)
{
    static const char *const names[3] = {"COS_1\n", "COS_2\n", "COS_3\n"};
    choiceLine<vel::msg::classOfService, 1>(c, label, names);
}

void deliveryModeLine(Ctx &c, const char *label)
{
    static const char *const names[3] = {"DIRECT\n", "PERSISTENT\n", "NON-PERSISTENT\n"};
    choiceLine<vel::msg::deliveryMode, 0x10>(c, label, names);
}

void cacheLine(Ctx &c, const char *label)
{
    velClient_cacheStatus_t status = vel::msg::cacheStatus(c.msg);
    if (status == VELCLIENT_CACHE_MESSAGE || status == VELCLIENT_CACHE_SUSPECT_MESSAGE)
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
}

/* A map or stream: its fields (full) or its encoded size; the reference the
 * getter gave is dropped after. */
void containerLines(Ctx &c, const char *label, _velClient_container *cont)
{
    if (c.fullContent) {
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
        _velClient_container_dump(cont->opaqueContainer_p, VEL_CTX(c), 2);
    } else {
        _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", label, static_cast<unsigned>(vel::container::size(cont)));
    }
    _velClient_container_closeMapStream(&cont, true, false, false);
}

void userPropertyLines(Ctx &c, const char *label)
{
    _velClient_container *map = nullptr;
    if (vel::msg::userPropertyMap(c.msg, &map) == VELCLIENT_OK)
        containerLines(c, label, map);
}

void consumerIdLines(Ctx &c, const char *)
{
    velClient_uint32_t count = 0;
    if (vel::msg::consumerIdCount(c.msg->bufInfo_a, &count) == VELCLIENT_OK && count > 0)
        _velClient_consumerId_dump(c.msg->bufInfo_a, count, VEL_CTX(c));
}

/* A byte part: a hex dump (both modes when always, else only in full mode). */
template <int part, bool always>
bool bytesLines(Ctx &c, const char *label)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    if (_velClient_msg_getBufinfoPtr(c.msg, part, &p, &len) != VELCLIENT_OK)
        return false;
    if (always || c.fullContent) {
        _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
        _velClient_hex_dump(static_cast<const std::uint8_t *>(p), len, VEL_CTX(c), 2, true);
    } else {
        _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", label, len);
    }
    return true;
}

template <int part>
void partLines(Ctx &c, const char *label)
{
    bytesLines<part, true>(c, label);
}

void attachmentLines(Ctx &c, const char *)
{
    _velClient_container *cont = nullptr;
    if (vel::msg::attachmentContainer(c.msg, VELCLIENT_STREAM, &cont) == VELCLIENT_OK)
        return containerLines(c, "Binary Attachment Stream:", cont);
    if (vel::msg::attachmentContainer(c.msg, VELCLIENT_MAP, &cont) == VELCLIENT_OK)
        return containerLines(c, "Binary Attachment Map:", cont);
    const char *text = nullptr;
    if (vel::msg::attachmentString(c.msg, &text) == VELCLIENT_OK && text != nullptr) {
        auto len = static_cast<std::uint32_t>(std::strlen(text));
        if (c.fullContent) {
            _velClient_dump(VEL_CTX(c), 0, "%-40s", "Binary Attachment String:");
            _velClient_hex_dump(reinterpret_cast<const std::uint8_t *>(text), len, VEL_CTX(c), 2, true);
        } else {
            _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", "Binary Attachment String:", len);
        }
        return;
    }
    bytesLines<VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, false>(c, "Binary Attachment:");
}

void xmlLines(Ctx &c, const char *label)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    if (_velClient_msg_getBufinfoPtr(c.msg, VELCLIENT_BUFINFO_XML_PART, &p, &len) != VELCLIENT_OK)
        return;
    if (!c.fullContent) {
        _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", label, len);
        return;
    }
    _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
    _velClient_char_dump(static_cast<const std::uint8_t *>(p), len, VEL_CTX(c));
}

struct DumpLine {
    const char *label;
    void (*render)(Ctx &, const char *);
};

/* The lines of a dump, in order; each shows only when its item is present. */
/* The generic header map strings by key. */
template <const char *key>
velClient_returnCode_t headerMapString(_velClient_msg *msg, const char **value_p)
{
    return vel::msg::headerMapString(msg, key, value_p);
}
constexpr char kHttpContentType[] = "ct";
constexpr char kHttpContentEncoding[] = "ce";

const DumpLine kDumpLines[] = {
    {"Destination:", destinationLine<vel::msg::destination>},
    {"SenderId:", stringLine<vel::msg::headerString<HeaderProperty::senderId>>},
    {"ApplicationMsgType:", stringLine<vel::msg::headerString<HeaderProperty::appMsgType>>},
    {"ApplicationMessageId:", stringLine<vel::msg::headerString<HeaderProperty::appMsgId>>},
    {"SequenceNumber:", numberLine<velClient_int64_t, vel::msg::headerInt64<HeaderProperty::sequenceNumber>>},
    {"TopicSequenceNumber:", numberLine<velClient_int64_t, vel::msg::topicSequenceNumber>},
    {"CorrelationId:", stringLine<vel::msg::headerString<HeaderProperty::correlationId>>},
    {"HTTP Content Type:", stringLine<headerMapString<kHttpContentType>>},
    {"HTTP Content Encoding:", stringLine<headerMapString<kHttpContentEncoding>>},
    {"SenderTimestamp:",
     numberLine<velClient_int64_t, vel::msg::headerInt64<HeaderProperty::senderTimestamp>, Show::time>},
    {"RcvTimestamp:", numberLine<velClient_int64_t, vel::msg::rcvTimestamp, Show::time>},
    {"Class Of Service:", classOfServiceLine},
    {"DeliveryMode: ", deliveryModeLine},
    {"Message Id:", numberLine<velClient_msgId_t, vel::msg::msgId>},
    {"TimeToLive:", numberLine<velClient_int64_t, vel::msg::timeToLive, Show::positive>},
    {"Expiration:", numberLine<velClient_int64_t, vel::msg::expiration, Show::time>},
    {"DMQ Eligible", markLine<vel::msg::marked<Mark::dmqEligible>>},
    {"Message Re-delivered", markLine<vel::msg::isRedelivered>},
    {"Discard Indication", markLine<vel::msg::marked<Mark::discardIndication>>},
    {"ACK Immediately", markLine<vel::msg::marked<Mark::ackImmediately>>},
    {"Eliding Eligible", markLine<vel::msg::marked<Mark::elidingEligible>>},
    {"Reply Message", markLine<vel::msg::marked<Mark::replyMsg>>},
    {"Reply To:", destinationLine<vel::msg::replyTo>},
    {"Deliver To One", markLine<vel::msg::marked<Mark::deliverToOne>>},
    {"Message from cache", cacheLine},
    {"Cache Request Id:", numberLine<velClient_uint64_t, vel::msg::cacheRequestId>},
    {"User Property Map:", userPropertyLines},
    {"Consumer IDs", consumerIdLines},
    {"Correlation Tag Pointer:", partLines<VELCLIENT_BUFINFO_CORRELATION_TAG_PART>},
    {"User Data:", partLines<VELCLIENT_BUFINFO_USER_DATA_PART>},
    {"Binary Attachment", attachmentLines},
    {"XML:", xmlLines},
};

/* Both dump exports: the message is named velClient_msg_dump in failures. */
velClient_returnCode_t dumpMessage(velClient_opaqueMsg_pt msg_p, char *buffer_p, size_t bufferSize,
                                   velClient_uint32_t flags)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_dump");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (buffer_p != nullptr && bufferSize == 0)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Zero buffer size with non-NULL buffer in velClient_msg_dump");
    if (buffer_p == nullptr && bufferSize != 0)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Non-zero buffer size with NULL buffer in velClient_msg_dump");
    Ctx c{msg, buffer_p, bufferSize, buffer_p != nullptr ? bufferSize - 1 : SIZE_MAX, (flags & 1) != 0};
    for (const DumpLine &line : kDumpLines)
        line.render(c, line.label);
    if (buffer_p != nullptr)
        buffer_p[bufferSize - 1 - c.left] = '\0';
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_dumpExt(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                                     size_t bufferSize, velClient_uint32_t flags)
{
    return dumpMessage(msg_p, buffer_p, bufferSize, flags);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_dump(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                                  size_t bufferSize)
{
    return dumpMessage(msg_p, buffer_p, bufferSize, VELCLIENT_MSGDUMP_FULL);
}
