/*
 * vwfParse.cpp - the wire parser: checks each frame of the received bytes
 * (in one data block), builds a message whose parts point into that block
 * (each part holding its own reference), and hands it to a callback; or,
 * for the usual lone frame, hands it straight back.
 */
#include <array>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientTime/clock.h"
#include "velClientVwf/vwf.h"

namespace {

using namespace vel::vwf;

velClient_returnCode_t malformed(const char *what, std::uint32_t offset)
{
    return VEL_FAIL(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE, VELCLIENT_LOG_WARNING,
                    "Invalid VWF frame (%s at byte %u) in _velClient_vwfParse", what, offset);
}

/* What an item of a tag below 32 is: a number, a part (text carried with
 * its NUL, consumer ids in 4-byte units, or plain bytes), or unknown. */
enum class ItemKind : std::uint8_t { unknown, number, plain, text, consumerIds };

struct ItemRule {
    ItemKind kind = ItemKind::unknown;
    std::int8_t part = -1; /* the part a part item fills */
};

constexpr auto kItemRules = [] {
    std::array<ItemRule, 32> t{};
    for (std::uint8_t tag : {kTagTimeToLive, kTagTopicSeqNum, kTagMessageId})
        t[tag] = {ItemKind::number, -1};
    t[kTagBinaryAttachment] = {ItemKind::plain, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART};
    t[kTagTopic] = {ItemKind::text, VELCLIENT_BUFINFO_TOPIC_PART};
    t[kTagConsumerIds] = {ItemKind::consumerIds, VELCLIENT_BUFINFO_CONSUMER_ID_PART};
    t[kTagUserData] = {ItemKind::plain, VELCLIENT_BUFINFO_USER_DATA_PART};
    t[kTagXml] = {ItemKind::plain, VELCLIENT_BUFINFO_XML_PART};
    t[kTagCorrelationTag] = {ItemKind::plain, VELCLIENT_BUFINFO_CORRELATION_TAG_PART};
    t[kTagQueueName] = {ItemKind::text, VELCLIENT_BUFINFO_QUEUENAME_PART};
    t[kTagBinaryMeta] = {ItemKind::plain, _VELCLIENT_BUFINFO_BINARY_META_PART};
    t[kTagDestPrefix] = {ItemKind::text, _VELCLIENT_BUFINFO_DEST_PREFIX_PART};
    return t;
}();

/* A number item: 8 bytes into the record. */
velClient_returnCode_t applyNumber(_velClient_msg *msg, std::uint8_t tag, const std::uint8_t *value,
                                   std::uint32_t length, std::uint32_t at)
{
    if (length != 8)
        return malformed("bad number length", at);
    std::uint64_t v = vel::tlv::getBE(value, 8);
    if (tag == kTagTimeToLive)
        msg->timeToLive = v;
    else if (tag == kTagTopicSeqNum)
        msg->topicSeqNo = v;
    else
        msg->msgInfo.msgId = v;
    return VELCLIENT_OK;
}

/* Fills msg from one item (tag, length bytes at value, at bytes into the
 * received data); VELCLIENT_FAIL (with the failure recorded) when it is
 * malformed. A part is left pointing into block without a reference of its
 * own: the caller takes them all at once with holdBlock(). seen collects the
 * tags met so far in the frame, so that a repeated item is refused, and parts
 * counts the parts filled (each at most once). */
velClient_returnCode_t applyItem(_velClient_msg *msg, _velClient_datab *block, std::uint8_t tag, std::uint8_t *value,
                                 std::uint32_t length, std::uint32_t at, std::uint32_t &seen, std::int32_t &parts)
{
    if (tag >= 32)
        return malformed("unknown item", at);
    if (seen & (1u << tag))
        return malformed("repeated item", at);
    seen |= 1u << tag;
    const ItemRule rule = kItemRules[tag];
    if (rule.kind == ItemKind::number)
        return applyNumber(msg, tag, value, length, at);
    if (rule.kind == ItemKind::unknown)
        return malformed("unknown item", at);
    const bool text = rule.kind == ItemKind::text;
    if (length == 0 || (text && (length < 2 || value[length - 1] != 0)) ||
        (rule.kind == ItemKind::consumerIds && length % 4 != 0))
        return malformed("bad part", at);
    msg->bufDatab_p[rule.part] = block;
    msg->bufInfo_a[rule.part] = velClient_bufInfo_t{value, text ? length - 1 : length};
    ++parts;
    return VELCLIENT_OK;
}

/* True when no item fills part. */
constexpr bool noItemFills(int part)
{
    for (const ItemRule &rule : kItemRules)
        if (rule.part == part)
            return false;
    return true;
}

/* The structured parts share the received block: containers opened on them
 * must copy before they change anything. Items fill the attachment and the
 * metadata header; the two maps come out of the latter when it is read (and
 * are marked then). */
void markSharedPartsReadOnly(_velClient_msg *msg)
{
    static_assert(noItemFills(VELCLIENT_BUFINFO_USER_PROPERTY_PART) && noItemFills(_VELCLIENT_BUFINFO_HDR_MAP_PART),
                  "the maps are marked when the metadata header is read");
    if (msg->bufDatab_p[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART] != nullptr)
        msg->internalFlags |= _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY;
    if (msg->bufDatab_p[_VELCLIENT_BUFINFO_BINARY_META_PART] != nullptr)
        msg->internalFlags |= _VELCLIENT_MSG_FLAG_META_READONLY;
}

/* Where a frame comes from: the block of the received bytes (the caller
 * holds a reference to it), the frame's offset in it and its flag word, and
 * whether it is the last frame there. */
struct Source {
    _velClient_datab *block;
    std::uint32_t offset;
    std::uint32_t flags;
    bool lastFrame;
};

/* Takes, in one step, the references to the block of the parts of msg that
 * point into it (parts of them). In the last frame the caller's own
 * reference becomes one of them: true then (the caller holds none). */
bool holdBlock(const Source &src, std::int32_t parts)
{
    if (parts == 0)
        return false;
    if (!src.lastFrame) {
        _velClient_datablock_incRef(src.block, parts);
        return false;
    }
    _velClient_datablock_addRefs(src.block, parts - 1, 1);
    return true;
}

/* Fills msg from the items of the frame at p, counting in parts the parts it
 * points into the block; VELCLIENT_FAIL at the first malformed one. */
velClient_returnCode_t readItems(const Source &src, _velClient_msg *msg, std::uint8_t *p, std::uint32_t frameLength,
                                 std::int32_t &parts)
{
    std::uint32_t seen = 0;
    std::uint32_t at = kFrameHeaderSize;
    while (at < frameLength) {
        if (frameLength - at < kItemHeaderSize)
            return malformed("truncated item", src.offset + at);
        auto length = static_cast<std::uint32_t>(vel::tlv::getBE(p + at + 1, 4));
        if (length > frameLength - at - kItemHeaderSize)
            return malformed("item past frame end", src.offset + at);
        if (applyItem(msg, src.block, p[at], p + at + kItemHeaderSize, length, src.offset + at, seen, parts) !=
            VELCLIENT_OK)
            return VELCLIENT_FAIL;
        at += kItemHeaderSize + length;
    }
    if (seen & (1u << kTagMessageId))
        msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_MSG_ID;
    return VELCLIENT_OK;
}

/* Builds the message of the frame at p (frameLength bytes, header checked).
 * handedOver: the caller's reference to the block went to the message (it is
 * set before the message can be freed). */
velClient_returnCode_t buildMessage(const Source &src, std::uint8_t *p, std::uint32_t frameLength,
                                    _velClient_msg **msg_p, bool &handedOver)
{
    if (_velClient_msg_alloc(msg_p) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    _velClient_msg *msg = *msg_p;
    msg->msgInfo.flags = src.flags;
    msg->msgInfo.rcvTimestamp = _velClient_getTimeInMs();
    std::int32_t parts = 0;
    velClient_returnCode_t rc = readItems(src, msg, p, frameLength, parts);
    handedOver = holdBlock(src, parts);
    if (rc != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    markSharedPartsReadOnly(msg);
    return vel::msg::issueHandle(msg, "_velClient_vwfParse");
}

/* Releases a message the callback did not take (or that failed to build). */
void dropMessage(_velClient_msg *msg)
{
    if (msg->opaqueMsg_p != nullptr)
        _velClient_safePtr_free(msg->opaqueMsg_p);
    _velClient_msg_free(msg);
}

} // namespace

void _velClient_initVwfParseBlock(_velClient_vwfParsing *parse, _velClient_session *session,
                                  _velClient_vwfCallback callback_p, _velClient_datab *block, std::uint32_t length)
{
    *parse = _velClient_vwfParsing{};
    parse->session_p = session;
    parse->callback_p = callback_p;
    parse->block = block;
    parse->bytesInBuf = length;
}

namespace {

/* True when the length bytes at p are one frame, with a sound header, of an
 * application message: what a receiver usually holds. */
bool loneApplicationFrame(const std::uint8_t *p, std::uint32_t length)
{
    if (length < kFrameHeaderSize || p[0] != kVersion || p[10] != 0 || p[11] != 0 ||
        vel::tlv::getBE(p + 6, 4) != length)
        return false;
    return (p[1] == kProtocolDirect || p[1] == kProtocolGuaranteed) &&
           (vel::tlv::getBE(p + 2, 4) & kFlagControlFrame) == 0;
}

} // namespace

velClient_returnCode_t _velClient_vwfParseOne(_velClient_datab *block, std::uint32_t length, _velClient_msg **msg_p)
{
    std::uint8_t *p = block->dbData_p;
    if (!loneApplicationFrame(p, length))
        return VELCLIENT_NOT_FOUND;
    const Source src{block, 0, static_cast<std::uint32_t>(vel::tlv::getBE(p + 2, 4)), true};
    _velClient_msg *msg = nullptr;
    bool handedOver = false;
    velClient_returnCode_t rc = buildMessage(src, p, length, &msg, handedOver);
    if (!handedOver)
        VEL_DATAB_RELEASE(block);
    if (rc != VELCLIENT_OK) {
        if (msg != nullptr)
            dropMessage(msg);
        return VELCLIENT_FAIL;
    }
    *msg_p = msg;
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_vwfParse(void *, _velClient_vwfParsing *parse)
{
    while (parse->bytesInBuf > 0) {
        std::uint8_t *p = parse->block->dbData_p + parse->offset;
        if (parse->bytesInBuf < kFrameHeaderSize)
            return malformed("truncated frame header", parse->offset);
        if (p[0] != kVersion)
            return malformed("unknown version", parse->offset);
        auto frameLength = static_cast<std::uint32_t>(vel::tlv::getBE(p + 6, 4));
        if (frameLength < kFrameHeaderSize || frameLength > parse->bytesInBuf)
            return malformed("bad frame length", parse->offset);
        if (p[10] != 0 || p[11] != 0)
            return malformed("reserved bytes set", parse->offset);
        parse->protocol = p[1];
        parse->internalFlags = static_cast<std::uint32_t>(vel::tlv::getBE(p + 2, 4));
        _velClient_msg *msg = nullptr;
        const Source src{parse->block, parse->offset, parse->internalFlags, frameLength == parse->bytesInBuf};
        bool handedOver = false;
        velClient_returnCode_t rc = buildMessage(src, p, frameLength, &msg, handedOver);
        if (handedOver)
            parse->block = nullptr;
        if (rc != VELCLIENT_OK) {
            if (msg != nullptr)
                dropMessage(msg);
            return VELCLIENT_FAIL;
        }
        parse->rxMsg = msg;
        parse->appOwnsMessage = 0;
        parse->callback_p(parse->session_p, parse);
        if (parse->appOwnsMessage)
            parse->ownedMsg = msg;
        else
            dropMessage(msg);
        parse->rxMsg = nullptr;
        parse->offset += frameLength;
        parse->bytesInBuf -= frameLength;
    }
    return VELCLIENT_OK;
}

void _velClient_cleanUpParse(_velClient_vwfParsing *parse)
{
    if (parse->block != nullptr)
        VEL_DATAB_RELEASE(parse->block);
    parse->block = nullptr;
}
