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
 * The encoder hands back a chunk list: generated headers live in a scratch
 * area of the caller's, message parts are referred to in place. The parser
 * copies the received bytes once into a data block and points every part of
 * each new message into it. docs/wire-format.md is the full description.
 */
#pragma once

#include <cstdint>

#include "velClientMsg/velClientMsgPrivate.h"

struct _velClient_session;

namespace vel::vwf {

inline constexpr std::uint8_t VERSION = 1;
inline constexpr std::uint32_t FRAME_HEADER_SIZE = 12;
inline constexpr std::uint32_t ITEM_HEADER_SIZE = 5;
inline constexpr std::uint8_t PROTOCOL_DIRECT = 13;
inline constexpr std::uint8_t PROTOCOL_GUARANTEED = 16;
/* Flag bit of a frame that carries no application message. */
inline constexpr std::uint32_t FLAG_CONTROL_FRAME = 0x4;

enum Tag : std::uint8_t {
    TAG_TIME_TO_LIVE = 0x01,
    TAG_TOPIC_SEQ_NUM = 0x02,
    TAG_MESSAGE_ID = 0x03,
    TAG_BINARY_ATTACHMENT = 0x10,
    TAG_TOPIC = 0x11,
    TAG_CONSUMER_IDS = 0x12,
    TAG_USER_DATA = 0x13,
    TAG_XML = 0x14,
    TAG_CORRELATION_TAG = 0x15,
    TAG_QUEUE_NAME = 0x16,
    TAG_BINARY_META = 0x18,
    TAG_DEST_PREFIX = 0x1B
};

/* Most chunks and scratch bytes one frame needs. */
inline constexpr std::uint32_t MAX_CHUNKS = 32;
inline constexpr std::uint32_t SCRATCH_SIZE = 192;

} // namespace vel::vwf

struct _velClient_vwfChunk {
    const std::uint8_t *p;
    std::uint32_t len;
};

/* Scratch area for the generated headers of one frame (on the caller's stack). */
struct _velClient_vwfScratch {
    std::uint8_t bytes[vel::vwf::SCRATCH_SIZE];
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

/* Copies buf into one data block and prepares the parse. */
velClient_returnCode_t _velClient_initVwfParse(_velClient_vwfParsing *parse, _velClient_session *session,
                                               _velClient_vwfCallback callback_p, const velClient_bufInfo_t *buf);
/* Prepares the parse of length bytes already in block, taking over the
 * caller's reference to it. */
void _velClient_initVwfParseBlock(_velClient_vwfParsing *parse, _velClient_session *session,
                                  _velClient_vwfCallback callback_p, _velClient_datab *block, std::uint32_t length);
/* Parses every frame, calling the callback once per frame. A malformed frame
 * stops the parse with VELCLIENT_FAIL (INVALID_VWF_MESSAGE); bytesInBuf then
 * counts from the frame that failed. connData is unused by this transport. */
velClient_returnCode_t _velClient_vwfParse(void *connData, _velClient_vwfParsing *parse);
/* Releases what the parse holds. */
void _velClient_cleanUpParse(_velClient_vwfParsing *parse);

/* The session that encodes and decodes outside any connection. */
_velClient_session *_velClient_parserSession();
