/*
 * vwf.h - the wire format's encoder and parser.
 *
 * A frame is a 12-byte header and a run of items:
 *
 *     0        1          2..5        6..9            10..11
 *     version  protocol   flags(BE)   frame len(BE)   reserved (0)
 *
 *     item: tag (1) | value length (4, BE) | value
 *
 * The encoder hands back a chunk list (generated headers live in a scratch
 * area of the caller's, message parts are referred to in place), or writes
 * the frame straight into a buffer of its measured size. The parser points
 * every part of each new message into the one data block the received bytes
 * were copied into. docs/wire-format.md is the full description.
 */
#pragma once

#include <cstdint>

#include "velClientMsg/velClientMsgPrivate.h"

struct _velClient_session;

namespace vel::vwf {

inline constexpr std::uint8_t kVersion = 1;
inline constexpr std::uint32_t kFrameHeaderSize = 12;
inline constexpr std::uint32_t kItemHeaderSize = 5;
inline constexpr std::uint8_t kProtocolDirect = 13;
inline constexpr std::uint8_t kProtocolGuaranteed = 16;
/* Flag bit of a frame that carries no application message. */
inline constexpr std::uint32_t kFlagControlFrame = 0x4;

enum Tag : std::uint8_t {
    kTagTimeToLive = 0x01,
    kTagTopicSeqNum = 0x02,
    kTagMessageId = 0x03,
    kTagBinaryAttachment = 0x10,
    kTagTopic = 0x11,
    kTagConsumerIds = 0x12,
    kTagUserData = 0x13,
    kTagXml = 0x14,
    kTagCorrelationTag = 0x15,
    kTagQueueName = 0x16,
    kTagBinaryMeta = 0x18,
    kTagDestPrefix = 0x1B
};

/* Most chunks and scratch bytes one frame needs. */
inline constexpr std::uint32_t kMaxChunks = 32;
inline constexpr std::uint32_t kScratchSize = 192;

} // namespace vel::vwf

struct _velClient_vwfChunk {
    const std::uint8_t *p;
    std::uint32_t len;
};

/* Scratch area for the generated headers of one frame (on the caller's stack). */
struct _velClient_vwfScratch {
    std::uint8_t bytes[vel::vwf::kScratchSize];
};

/* Builds the frame of msg from its 12 parts as a chunk list. flags is the
 * receive-flags word, msgId the message id a guaranteed message carries.
 * *scratch_pp advances past the bytes used. Fails (INVALID_VWF_MESSAGE) when
 * the frame would exceed 4 GiB. */
velClient_returnCode_t _velClient_createMsgForPublish(const velClient_bufInfo_t *parts, std::uint32_t numParts,
                                                      std::uint32_t flags, std::uint64_t msgId,
                                                      const _velClient_msg *msg, _velClient_vwfChunk *chunks,
                                                      std::uint32_t *numChunks, std::uint8_t **scratch_pp,
                                                      std::uint32_t *totalLength);

/* Where _velClient_vwfEncode writes a frame: a buffer of exactly total
 * bytes, or nullptr after recording why there is none. It may change the
 * image part (9), which no frame carries, and no other. */
typedef std::uint8_t *(*_velClient_vwfPlace)(void *ctx, std::uint32_t total);

/* Measures msg's frame, as _velClient_createMsgForPublish would build it
 * from its 12 parts, asks place for a buffer of that size and writes the
 * frame into it, in one pass over the parts. Fails as that function does,
 * or when place fails. */
velClient_returnCode_t _velClient_vwfEncode(const velClient_bufInfo_t *parts, std::uint32_t flags,
                                            std::uint64_t msgId, const _velClient_msg *msg, _velClient_vwfPlace place,
                                            void *ctx, std::uint32_t *totalLength);

namespace vel::vwf {

/* One frame built as a chunk list, with the scratch bytes its generated
 * headers take (on the caller's stack). */
struct Frame {
    _velClient_vwfChunk chunks[kMaxChunks];
    _velClient_vwfScratch scratch;
    std::uint32_t numChunks = 0;
    std::uint32_t total = 0;

    velClient_returnCode_t build(const velClient_bufInfo_t *parts, std::uint32_t numParts, std::uint32_t flags,
                                 std::uint64_t msgId, const _velClient_msg *msg)
    {
        std::uint8_t *scratch_p = scratch.bytes;
        return _velClient_createMsgForPublish(parts, numParts, flags, msgId, msg, chunks, &numChunks, &scratch_p,
                                              &total);
    }
};

} // namespace vel::vwf

struct _velClient_vwfParsing;
/* Called once per parsed frame; it may take the message (appOwnsMessage). */
typedef velClient_returnCode_t (*_velClient_vwfCallback)(void *syntaxVoid_p, void *parserVoid_p);

struct _velClient_vwfParsing {
    std::uint32_t protocol;      /* of the frame just parsed */
    std::uint32_t internalFlags; /* its flag word */
    std::uint32_t bytesInBuf;    /* bytes not yet consumed */
    _velClient_msg *rxMsg;       /* the message just built */
    int appOwnsMessage;          /* set by the callback to keep rxMsg */
    std::uint32_t numMsgInBuf;   /* the callback's count */
    _velClient_session *session_p;
    _velClient_vwfCallback callback_p;
    _velClient_msg *ownedMsg;    /* the last message the callback took */
    _velClient_datab *block;     /* the received bytes, one copy */
    std::uint32_t offset;        /* next frame */
};

/* Prepares the parse of length bytes already in block, taking over the
 * caller's reference to it. */
void _velClient_initVwfParseBlock(_velClient_vwfParsing *parse, _velClient_session *session,
                                  _velClient_vwfCallback callback_p, _velClient_datab *block, std::uint32_t length);
/* Parses every frame, calling the callback once per frame. A malformed frame
 * stops the parse with VELCLIENT_FAIL (INVALID_VWF_MESSAGE); bytesInBuf then
 * counts from the frame that failed. connData is unused by this transport. */
velClient_returnCode_t _velClient_vwfParse(void *connData, _velClient_vwfParsing *parse);
/* The usual parse, without a callback: when the length bytes of block are
 * one frame of an application message, builds its message into *msg_p and
 * takes over the caller's reference to block; VELCLIENT_FAIL (the block
 * released) as _velClient_vwfParse fails when that frame is malformed.
 * VELCLIENT_NOT_FOUND, with nothing done, for any other bytes. */
velClient_returnCode_t _velClient_vwfParseOne(_velClient_datab *block, std::uint32_t length, _velClient_msg **msg_p);
/* Releases what the parse holds. */
void _velClient_cleanUpParse(_velClient_vwfParsing *parse);

/* The session that encodes and decodes outside any connection. */
_velClient_session *_velClient_parserSession();
