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

/* Hands the image (info, in part 9) and one more reference to its block to
 * the caller. soleHolder: the message was the block's only holder a moment
 * ago (a new or reused image), so the count is worth checking for a plain
 * store. */
void giveImage(_velClient_msg *msg, velClient_bufInfo_t info, bool soleHolder, velClient_bufInfo_pt bufinfo_p,
               velClient_opaqueDatablock_pt *datab_p)
{
    if (bufinfo_p == nullptr)
        return;
    *bufinfo_p = info;
    _velClient_datab *db = msg->bufDatab_p[kVwfPart];
    if (soleHolder)
        _velClient_datablock_addRefs(db, 1, 1);
    else
        _velClient_datablock_incRef(db);
    *datab_p = db;
}

/* Empties part 9 and returns its block with the message's reference, or nullptr. */
_velClient_datab *takeImageBlock(_velClient_msg *msg)
{
    _velClient_datab *db = msg->bufDatab_p[kVwfPart];
    msg->bufDatab_p[kVwfPart] = nullptr;
    msg->bufInfo_a[kVwfPart] = velClient_bufInfo_t{nullptr, 0};
    return db;
}

/* Gives part 9 a block for total bytes: old (the previous image's, whose
 * reference the caller passes on) when the message is its only holder and a
 * new block would be of its class, else a new one. */
velClient_returnCode_t placeImage(_velClient_msg *msg, _velClient_datab *old, std::uint32_t total)
{
    if (old != nullptr && _velClient_datablock_reusableFor(old, total)) {
        msg->bufDatab_p[kVwfPart] = old;
        msg->bufInfo_a[kVwfPart] = velClient_bufInfo_t{old->dbData_p, old->dbSize};
        return VELCLIENT_OK;
    }
    if (old != nullptr)
        VEL_DATAB_RELEASE(old);
    return _velClient_msg_dbAlloc(msg, kVwfPart, total);
}

/* The message whose image is written, and the previous image's block until
 * placeImage takes it. */
struct Imaging {
    _velClient_msg *msg;
    _velClient_datab *old;
};

/* The encoder's place: part 9, sized total, whose bytes it writes. */
std::uint8_t *imageBuffer(void *ctx, std::uint32_t total)
{
    auto *imaging = static_cast<Imaging *>(ctx);
    _velClient_datab *old = imaging->old;
    imaging->old = nullptr;
    _velClient_msg *msg = imaging->msg;
    if (placeImage(msg, old, total) != VELCLIENT_OK)
        return nullptr;
    msg->bufInfo_a[kVwfPart].bufSize = total;
    return static_cast<std::uint8_t *>(msg->bufInfo_a[kVwfPart].buf_p);
}

} // namespace

velClient_returnCode_t _velClient_msg_encodeToVWF(_velClient_msg *msg, velClient_bufInfo_pt bufinfo_p,
                                                  velClient_opaqueDatablock_pt *datab_p)
{
    if (msg->bufDatab_p[kVwfPart] != nullptr && (msg->internalFlags & _VELCLIENT_MSG_FLAG_MODIFIED) == 0) {
        giveImage(msg, msg->bufInfo_a[kVwfPart], false, bufinfo_p, datab_p);
        return VELCLIENT_OK;
    }
    Imaging imaging{msg, takeImageBlock(msg)};
    std::uint32_t total = 0;
    if (vel::meta::prepareForWire(msg, true) != VELCLIENT_OK ||
        _velClient_vwfEncode(msg->bufInfo_a, msg->msgInfo.flags, kEncodedMsgId, msg, imageBuffer, &imaging, &total) !=
            VELCLIENT_OK) {
        if (imaging.old != nullptr)
            VEL_DATAB_RELEASE(imaging.old);
        return VELCLIENT_FAIL;
    }
    msg->internalFlags &= ~_VELCLIENT_MSG_FLAG_MODIFIED;
    /* The image is built from locals: reading part 9 back right after its
     * size was stored would wait on that store. */
    giveImage(msg, velClient_bufInfo_t{msg->bufDatab_p[kVwfPart]->dbData_p, total}, true, bufinfo_p, datab_p);
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
    _velClient_datab *block = nullptr;
    if (_velClient_datablock_alloc(&block, bufinfo_p->bufSize) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::memcpy(block->dbData_p, bufinfo_p->buf_p, bufinfo_p->bufSize);
    if (velClient_returnCode_t rc = _velClient_vwfParseOne(block, bufinfo_p->bufSize, msg_p); rc != VELCLIENT_NOT_FOUND)
        return rc;
    /* Anything else (several frames, another protocol, a bad header) takes
     * the general parse, which keeps the first message and reports the rest. */
    _velClient_vwfParsing parse;
    _velClient_initVwfParseBlock(&parse, _velClient_parserSession(), keepFirstFrame, block, bufinfo_p->bufSize);
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
