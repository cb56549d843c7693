/*
 * msgWire.cpp - a message to and from its wire image: encoding into part 9
 * (kept as a cache until the message changes) and decoding a buffer that
 * holds exactly one frame.
 */
#include <cstring>

#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/msgWire.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientVwf/vwf.h"

namespace {

constexpr int kVwfPart = _VELCLIENT_BUFINFO_VWF_PART;
/* The message id a guaranteed message encoded outside any session carries. */
constexpr std::uint64_t kEncodedMsgId = 1;

void emptyVwfPart(_velClient_msg *msg)
{
    if (msg->bufDatab_p[kVwfPart] != nullptr)
        VEL_DATAB_RELEASE(msg->bufDatab_p[kVwfPart]);
    msg->bufDatab_p[kVwfPart] = nullptr;
    msg->bufInfo_a[kVwfPart] = velClient_bufInfo_t{nullptr, 0};
}

/* Hands the cached image and one more reference to its block to the caller. */
void giveImage(_velClient_msg *msg, velClient_bufInfo_pt bufinfo_p, velClient_opaqueDatablock_pt *datab_p)
{
    if (bufinfo_p == nullptr)
        return;
    *bufinfo_p = msg->bufInfo_a[kVwfPart];
    _velClient_datablock_incRef(msg->bufDatab_p[kVwfPart]);
    *datab_p = msg->bufDatab_p[kVwfPart];
}

/* Copies the chunks back to back into part 9 (total bytes). */
velClient_returnCode_t serialise(_velClient_msg *msg, const _velClient_vwfChunk *chunks, std::uint32_t numChunks,
                                 std::uint32_t total)
{
    if (_velClient_msg_dbAlloc(msg, kVwfPart, total) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    auto *out = static_cast<std::uint8_t *>(msg->bufInfo_a[kVwfPart].buf_p);
    std::uint32_t offset = 0;
    for (std::uint32_t i = 0; i < numChunks; ++i) {
        if (chunks[i].len > total - offset) {
            VEL_STORE(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_ERROR,
                      "_velClient_msg_serialization found byte count mismatch; remaining count %u,  for session "
                      "'parserSession'",
                      chunks[i].len - (total - offset));
            emptyVwfPart(msg);
            return VELCLIENT_FAIL;
        }
        std::memcpy(out + offset, chunks[i].p, chunks[i].len);
        offset += chunks[i].len;
    }
    msg->bufInfo_a[kVwfPart].bufSize = total;
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t _velClient_msg_encodeToVWF(_velClient_msg *msg, velClient_bufInfo_pt bufinfo_p,
                                                  velClient_opaqueDatablock_pt *datab_p)
{
    if (msg->bufDatab_p[kVwfPart] != nullptr && (msg->internalFlags & _VELCLIENT_MSG_FLAG_MODIFIED) == 0) {
        giveImage(msg, bufinfo_p, datab_p);
        return VELCLIENT_OK;
    }
    emptyVwfPart(msg);
    if (vel::meta::prepareForWire(msg, true) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    vel::vwf::Frame frame;
    velClient_returnCode_t rc =
        frame.build(msg->bufInfo_a, _VELCLIENT_BUFINFO_NUM_PARTS, msg->msgInfo.flags, kEncodedMsgId, msg);
    if (rc != VELCLIENT_OK || frame.total == 0)
        return rc;
    if (serialise(msg, frame.chunks, frame.numChunks, frame.total) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    msg->internalFlags &= ~_VELCLIENT_MSG_FLAG_MODIFIED;
    giveImage(msg, bufinfo_p, datab_p);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_encodeToVWF(velClient_opaqueMsg_pt msg_p,
                                                                         velClient_bufInfo_pt bufinfo_p,
                                                                         velClient_opaqueDatablock_pt *datab_p)
{
    if ((bufinfo_p == nullptr) != (datab_p == nullptr))
        return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                        "One and only one of %p and %p is a NULL pointer in velClient_msg_encodeToVWF",
                        static_cast<void *>(bufinfo_p), static_cast<void *>(datab_p));
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_encodeToVWF");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return _velClient_msg_encodeToVWF(msg, bufinfo_p, datab_p);
}

extern "C" velClient_returnCode_t _velClient_decodeVWFCallback(void *, void *parserVoid_p)
{
    auto *parse = static_cast<_velClient_vwfParsing *>(parserVoid_p);
    bool application = parse->protocol == vel::vwf::kProtocolDirect || parse->protocol == vel::vwf::kProtocolGuaranteed;
    if (application && (parse->internalFlags & vel::vwf::kFlagControlFrame) == 0) {
        ++parse->numMsgInBuf;
        parse->appOwnsMessage = 1;
    } else {
        VEL_STORE(VELCLIENT_SUBCODE_INVALID_VWF_MESSAGE, VELCLIENT_LOG_WARNING,
                  "Invalid VWF message for raw vwf transmission on session '%s'", parse->session_p->clientName);
    }
    return VELCLIENT_OK;
}

namespace {

/* The decode callback, except that only the first accepted frame is kept:
 * the parser releases any later one (and the decode then fails). */
velClient_returnCode_t keepFirstFrame(void *syntaxVoid_p, void *parserVoid_p)
{
    auto *parse = static_cast<_velClient_vwfParsing *>(parserVoid_p);
    _velClient_decodeVWFCallback(syntaxVoid_p, parserVoid_p);
    if (parse->appOwnsMessage && parse->numMsgInBuf > 1)
        parse->appOwnsMessage = 0;
    return VELCLIENT_OK;
}

void releaseParsed(_velClient_msg *msg)
{
    _velClient_safePtr_free(msg->opaqueMsg_p);
    _velClient_msg_free(msg);
}

} // namespace

velClient_returnCode_t _velClient_msg_decodeFromVwf(const velClient_bufInfo_t *bufinfo_p, _velClient_msg **msg_p)
{
    *msg_p = nullptr;
    _velClient_vwfParsing parse;
    if (_velClient_initVwfParse(&parse, _velClient_parserSession(), keepFirstFrame, bufinfo_p) != VELCLIENT_OK) {
        _velClient_cleanUpParse(&parse);
        return VELCLIENT_FAIL;
    }
    parse.numMsgInBuf = 0;
    velClient_returnCode_t rc = _velClient_vwfParse(nullptr, &parse);
    _velClient_msg *msg = parse.ownedMsg;
    _velClient_cleanUpParse(&parse);
    if (rc != VELCLIENT_OK || parse.numMsgInBuf != 1 || parse.bytesInBuf != 0) {
        if (msg != nullptr)
            releaseParsed(msg);
        return VELCLIENT_FAIL;
    }
    *msg_p = msg;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_decodeFromVwf(velClient_bufInfo_pt bufinfo_p,
                                                                           velClient_opaqueMsg_pt *msg_p)
{
    if (msg_p == nullptr)
        return VEL_FAIL_NULL("Null reference to msg_p pointer in velClient_msg_decodeFromVwf");
    *msg_p = nullptr;
    if (bufinfo_p == nullptr)
        return VEL_FAIL_NULL("Null VWF bufinfo pointer in velClient_msg_decodeFromVwf");
    if (bufinfo_p->bufSize == 0)
        return VEL_FAIL_RANGE("Zero length VWF buffer in velClient_msg_decodeFromVwf");
    if (bufinfo_p->buf_p == nullptr)
        return VEL_FAIL_NULL("Null VWF pointer in velClient_msg_decodeFromVwf");
    _velClient_msg *msg = nullptr;
    if (_velClient_msg_decodeFromVwf(bufinfo_p, &msg) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    *msg_p = msg->opaqueMsg_p;
    return VELCLIENT_OK;
}
