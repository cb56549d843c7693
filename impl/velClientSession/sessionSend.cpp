/*
 * sessionSend.cpp - a session's send path and its transports: "loopback"
 * builds the wire bytes, parses them back as received bytes and delivers the
 * message to the session's own receive callback; "null" builds the bytes and
 * drops them. Also the session that encodes and decodes outside any
 * connection.
 */
#include <cstring>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientVwf/vwf.h"

namespace {

/* Hands each parsed message to the application's callback. */
velClient_returnCode_t deliver(void *, void *parserVoid_p)
{
    auto *parse = static_cast<_velClient_vwfParsing *>(parserVoid_p);
    _velClient_session *s = parse->session_p;
    if (s->rxMsgCallback_p == nullptr)
        return VELCLIENT_OK;
    if (s->rxMsgCallback_p(s->opaqueSession_p, parse->rxMsg->opaqueMsg_p, s->user_p) == VELCLIENT_CALLBACK_TAKE_MSG)
        parse->appOwnsMessage = 1;
    return VELCLIENT_OK;
}

/* Copies the chunks into one block and parses it back. */
velClient_returnCode_t loopBack(_velClient_session *s, const _velClient_vwfChunk *chunks, std::uint32_t numChunks,
                                std::uint32_t total)
{
    _velClient_datab *block = nullptr;
    if (_velClient_datablock_alloc(&block, total) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint32_t offset = 0;
    for (std::uint32_t i = 0; i < numChunks; ++i) {
        std::memcpy(block->dbData_p + offset, chunks[i].p, chunks[i].len);
        offset += chunks[i].len;
    }
    _velClient_vwfParsing parse;
    _velClient_initVwfParseBlock(&parse, s, deliver, block, total);
    velClient_returnCode_t rc = _velClient_vwfParse(nullptr, &parse);
    _velClient_cleanUpParse(&parse);
    return rc;
}

} // namespace

velClient_returnCode_t _velClient_session_fastSend(_velClient_session *s, const velClient_bufInfo *parts,
                                                   std::uint32_t numParts, std::uint32_t flags,
                                                   std::uint64_t *seqNumPtr, _velClient_msg *msg)
{
    if (seqNumPtr != nullptr)
        vel::tlv::putBE(reinterpret_cast<std::uint8_t *>(seqNumPtr), s->sendSeqNum++, 8);
    std::uint64_t msgId = 0;
    if (flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK)
        msgId = ++s->lastMsgIdSent;
    vel::vwf::Frame frame;
    velClient_returnCode_t rc = frame.build(parts, numParts, flags, msgId, msg);
    if (rc != VELCLIENT_OK || s->transport == _velClient_transport::drop)
        return rc;
    return loopBack(s, frame.chunks, frame.numChunks, frame.total);
}

_velClient_session *_velClient_parserSession()
{
    static _velClient_session parser{};
    static const bool named = [] {
        std::strcpy(parser.clientName, "parserSession");
        std::strcpy(parser.p2pTopicBase, "#P2P/v:loopback/parserSession");
        parser.sendSeqNum = 1;
        return true;
    }();
    (void)named;
    return &parser;
}
