/*
 * msgDump.cpp - a whole message as text: one labelled line per present
 * header field, in a fixed order given by a table, then the user property
 * map, consumer ids, correlation tag, user data, binary attachment and XML.
 * The dump reads the message only through the public getters.
 */
#include <cstring>
#include <type_traits>

#include "velClientMsg/dumpWriter.h"
#include "velClientTime/velClientTime.h"

namespace {

struct Ctx {
    velClient_opaqueMsg_pt msg;
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

template <velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, const char **)>
void stringLine(Ctx &c, const char *label)
{
    const char *value = nullptr;
    if (Get(c.msg, &value) == VELCLIENT_OK)
        _velClient_dump(VEL_CTX(c), 0, "%-40s%s\n", label, value);
}

enum class Show { present, positive, time };

template <typename T, velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, T *), Show show = Show::present>
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

template <velClient_bool_t (*Is)(velClient_opaqueMsg_pt)>
void markLine(Ctx &c, const char *label)
{
    if (Is(c.msg) == 1)
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
}

template <velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, velClient_destination_t *, size_t)>
void destinationLine(Ctx &c, const char *label)
{
    velClient_destination_t dest{};
    if (Get(c.msg, &dest, sizeof dest) != VELCLIENT_OK)
        return;
    _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
    _velClient_destination_dump(&dest, VEL_CTX(c));
    _velClient_dump(VEL_CTX(c), 0, "\n");
}

/* Picks one of several texts by value, "Unknown (%u)\n" otherwise. */
template <velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, velClient_uint32_t *), std::uint32_t step>
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
    choiceLine<velClient_msg_getClassOfService, 1>(c, label, names);
}

void deliveryModeLine(Ctx &c, const char *label)
{
    static const char *const names[3] = {"DIRECT\n", "PERSISTENT\n", "NON-PERSISTENT\n"};
    choiceLine<velClient_msg_getDeliveryMode, 0x10>(c, label, names);
}

void cacheLine(Ctx &c, const char *label)
{
    velClient_cacheStatus_t status = velClient_msg_isCacheMsg(c.msg);
    if (status == VELCLIENT_CACHE_MESSAGE || status == VELCLIENT_CACHE_SUSPECT_MESSAGE)
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
}

/* A map or stream: its fields (full) or its encoded size; the handle is closed after. */
void containerLines(Ctx &c, const char *label, velClient_opaqueContainer_pt cont)
{
    if (c.fullContent) {
        _velClient_dump(VEL_CTX(c), 0, "%-40s\n", label);
        _velClient_container_dump(cont, VEL_CTX(c), 2);
    } else {
        size_t size = 0;
        velClient_container_getSize(cont, &size);
        _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", label, static_cast<unsigned>(size));
    }
    velClient_container_closeMapStream(&cont);
}

void userPropertyLines(Ctx &c, const char *label)
{
    velClient_opaqueContainer_pt map = nullptr;
    if (velClient_msg_getUserPropertyMap(c.msg, &map) == VELCLIENT_OK)
        containerLines(c, label, map);
}

void consumerIdLines(Ctx &c, const char *)
{
    velClient_uint32_t count = 0;
    if (velClient_msg_getConsumerIdCount(c.msg, &count) == VELCLIENT_OK && count > 0)
        _velClient_consumerId_dump(c.msg, count, VEL_CTX(c));
}

/* A byte part: a hex dump (both modes when always, else only in full mode). */
template <velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, velClient_opaquePointer_pt, velClient_uint32_t *),
          bool always>
bool bytesLines(Ctx &c, const char *label)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    if (Get(c.msg, &p, &len) != VELCLIENT_OK)
        return false;
    if (always || c.fullContent) {
        _velClient_dump(VEL_CTX(c), 0, "%-40s", label);
        _velClient_hex_dump(static_cast<const std::uint8_t *>(p), len, VEL_CTX(c), 2, true);
    } else {
        _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", label, len);
    }
    return true;
}

template <velClient_returnCode_t (*Get)(velClient_opaqueMsg_pt, velClient_opaquePointer_pt, velClient_uint32_t *)>
void partLines(Ctx &c, const char *label)
{
    bytesLines<Get, true>(c, label);
}

void attachmentLines(Ctx &c, const char *)
{
    velClient_opaqueContainer_pt cont = nullptr;
    if (velClient_msg_getBinaryAttachmentStream(c.msg, &cont) == VELCLIENT_OK)
        return containerLines(c, "Binary Attachment Stream:", cont);
    if (velClient_msg_getBinaryAttachmentMap(c.msg, &cont) == VELCLIENT_OK)
        return containerLines(c, "Binary Attachment Map:", cont);
    const char *text = nullptr;
    if (velClient_msg_getBinaryAttachmentString(c.msg, &text) == VELCLIENT_OK && text != nullptr) {
        auto len = static_cast<std::uint32_t>(std::strlen(text));
        if (c.fullContent) {
            _velClient_dump(VEL_CTX(c), 0, "%-40s", "Binary Attachment String:");
            _velClient_hex_dump(reinterpret_cast<const std::uint8_t *>(text), len, VEL_CTX(c), 2, true);
        } else {
            _velClient_dump(VEL_CTX(c), 0, "%-40slen=%u\n", "Binary Attachment String:", len);
        }
        return;
    }
    bytesLines<velClient_msg_getBinaryAttachmentPtr, false>(c, "Binary Attachment:");
}

void xmlLines(Ctx &c, const char *label)
{
    void *p = nullptr;
    velClient_uint32_t len = 0;
    if (velClient_msg_getXmlPtr(c.msg, &p, &len) != VELCLIENT_OK)
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
const DumpLine kDumpLines[] = {
    {"Destination:", destinationLine<velClient_msg_getDestination>},
    {"SenderId:", stringLine<velClient_msg_getSenderId>},
    {"ApplicationMsgType:", stringLine<velClient_msg_getApplicationMsgType>},
    {"ApplicationMessageId:", stringLine<velClient_msg_getApplicationMessageId>},
    {"SequenceNumber:", numberLine<velClient_int64_t, velClient_msg_getSequenceNumber>},
    {"TopicSequenceNumber:", numberLine<velClient_int64_t, velClient_msg_getTopicSequenceNumber>},
    {"CorrelationId:", stringLine<velClient_msg_getCorrelationId>},
    {"HTTP Content Type:", stringLine<velClient_msg_getHttpContentType>},
    {"HTTP Content Encoding:", stringLine<velClient_msg_getHttpContentEncoding>},
    {"SenderTimestamp:", numberLine<velClient_int64_t, velClient_msg_getSenderTimestamp, Show::time>},
    {"RcvTimestamp:", numberLine<velClient_int64_t, velClient_msg_getRcvTimestamp, Show::time>},
    {"Class Of Service:", classOfServiceLine},
    {"DeliveryMode: ", deliveryModeLine},
    {"Message Id:", numberLine<velClient_msgId_t, velClient_msg_getMsgId>},
    {"TimeToLive:", numberLine<velClient_int64_t, velClient_msg_getTimeToLive, Show::positive>},
    {"Expiration:", numberLine<velClient_int64_t, velClient_msg_getExpiration, Show::time>},
    {"DMQ Eligible", markLine<velClient_msg_isDMQEligible>},
    {"Message Re-delivered", markLine<velClient_msg_isRedelivered>},
    {"Discard Indication", markLine<velClient_msg_isDiscardIndication>},
    {"ACK Immediately", markLine<velClient_msg_isAckImmediately>},
    {"Eliding Eligible", markLine<velClient_msg_isElidingEligible>},
    {"Reply Message", markLine<velClient_msg_isReplyMsg>},
    {"Reply To:", destinationLine<velClient_msg_getReplyTo>},
    {"Deliver To One", markLine<velClient_msg_isDeliverToOne>},
    {"Message from cache", cacheLine},
    {"Cache Request Id:", numberLine<velClient_uint64_t, velClient_msg_getCacheRequestId>},
    {"User Property Map:", userPropertyLines},
    {"Consumer IDs", consumerIdLines},
    {"Correlation Tag Pointer:", partLines<velClient_msg_getCorrelationTagPtr>},
    {"User Data:", partLines<velClient_msg_getUserDataPtr>},
    {"Binary Attachment", attachmentLines},
    {"XML:", xmlLines},
};

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_dumpExt(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                                     size_t bufferSize, velClient_uint32_t flags)
{
    if (vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_dump") == nullptr)
        return VELCLIENT_FAIL;
    if (buffer_p != nullptr && bufferSize == 0)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Zero buffer size with non-NULL buffer in velClient_msg_dump");
    if (buffer_p == nullptr && bufferSize != 0)
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "Non-zero buffer size with NULL buffer in velClient_msg_dump");
    Ctx c{msg_p, buffer_p, bufferSize, buffer_p != nullptr ? bufferSize - 1 : SIZE_MAX, (flags & 1) != 0};
    for (const DumpLine &line : kDumpLines)
        line.render(c, line.label);
    if (buffer_p != nullptr)
        buffer_p[bufferSize - 1 - c.left] = '\0';
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_dump(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                                  size_t bufferSize)
{
    return velClient_msg_dumpExt(msg_p, buffer_p, bufferSize, VELCLIENT_MSGDUMP_FULL);
}
