/*
 * sessionSend.cpp - a session's send path and its transports: "loopback"
 * builds the wire bytes, parses them back as received bytes and delivers the
 * message to the session's own receive callback; "null" builds the bytes and
 * drops them; "amqp" and "mqtt" encode the message for their protocol on the
 * sending thread and hand it to the broker connection. Also the session that encodes and
 * decodes outside any connection.
 */
#include <cstring>

#include "velClientBroker/brokerConnection.h"
#include "velClientLog/logPrivate.h"
#include "velClientMsg/message/recordApi.h"

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

/* The address of the topic or queue name, shared with the last message sent
 * there; null when the transport refuses the destination. */
std::shared_ptr<const std::string> targetAddress(_velClient_session *s, bool queue, const char *name)
{
    vel::session::LastTarget &last = s->lastTarget;
    if (last.address == nullptr || last.queue != queue || last.name != name) {
        std::string address;
        if (vel::session::targetOf(s, name, queue, address) != VELCLIENT_OK)
            return nullptr;
        last.address = std::make_shared<const std::string>(std::move(address));
        last.queue = queue;
        last.name = name;
    }
    return last.address;
}

/* Encodes msg for its topic or queue and hands it to the connection; the
 * caller holds the session mutex once (released while waiting for room in
 * the publish window). */
velClient_returnCode_t sendToBroker(_velClient_session *s, std::uint32_t flags, _velClient_msg *msg)
{
    std::shared_ptr<vel::broker::Connection> connection = vel::session::connectionOf(s);
    if (connection == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING,
                        "Session not connected in velClient_session_sendMsg");
    velClient_destination_t dest{};
    if (vel::msg::destination(msg, &dest) != VELCLIENT_OK)
        return VEL_FAIL_RANGE("Message has no destination in velClient_session_sendMsg");
    bool queue = dest.destType == VELCLIENT_QUEUE_DESTINATION || dest.destType == VELCLIENT_QUEUE_TEMP_DESTINATION;
    vel::broker::Outgoing out;
    out.address = targetAddress(s, queue, dest.dest);
    if (out.address == nullptr)
        return VELCLIENT_FAIL;
    out.settled = (flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK) == 0;
    out.toQueue = queue;
    out.correlation_p = msg->bufInfo_a[VELCLIENT_BUFINFO_CORRELATION_TAG_PART].buf_p;
    if (vel::session::encodeFor(s, msg, out) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::unique_lock<std::recursive_mutex> sessionLock(s->mutex, std::adopt_lock);
    velClient_returnCode_t rc = connection->send(std::move(out), sessionLock);
    sessionLock.release(); /* the caller's guard unlocks it */
    if (rc == VELCLIENT_OK && (flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK) != 0)
        ++s->lastMsgIdSent;
    return rc;
}

} // namespace

velClient_returnCode_t _velClient_session_fastSend(_velClient_session *s, const velClient_bufInfo *parts,
                                                   std::uint32_t numParts, std::uint32_t flags,
                                                   std::uint64_t *seqNumPtr, _velClient_msg *msg)
{
    if (seqNumPtr != nullptr)
        vel::tlv::putBE(reinterpret_cast<std::uint8_t *>(seqNumPtr), s->sendSeqNum++, 8);
    if (vel::session::onBroker(s))
        return sendToBroker(s, flags, msg);
    std::uint64_t msgId = 0;
    if (flags & _VELCLIENT_RX_FLAG_DELIVERY_MODE_MASK)
        msgId = ++s->lastMsgIdSent;
    vel::vwf::Frame frame;
    velClient_returnCode_t rc = frame.build(parts, numParts, flags, msgId, msg);
    if (rc != VELCLIENT_OK || s->transport == _velClient_transport::drop)
        return rc;
    return loopBack(s, frame.chunks, frame.numChunks, frame.total);
}

namespace {

/* The parser session, named on first use (out of the way of every later call). */
[[gnu::cold, gnu::noinline]] _velClient_session *nameParserSession()
{
    static _velClient_session parser{};
    std::strcpy(parser.clientName, "parserSession");
    std::strcpy(parser.p2pTopicBase, "#P2P/v:loopback/parserSession");
    parser.sendSeqNum = 1;
    return &parser;
}

} // namespace

_velClient_session *_velClient_parserSession()
{
    static _velClient_session *const parser = nameParserSession();
    return parser;
}
