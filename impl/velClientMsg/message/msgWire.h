/*
 * msgWire.h - internal contract of encoding, decoding and sending messages.
 */
#pragma once

#include "velClientMsg/velClientMsgPrivate.h"

/* Builds (or reuses) the wire image in part 9; with outputs, hands out the
 * image and one reference to its block. */
velClient_returnCode_t _velClient_msg_encodeToVWF(_velClient_msg *msg, velClient_bufInfo_pt bufinfo_p,
                                                  velClient_opaqueDatablock_pt *datab_p);
/* A new message from a buffer holding exactly one application frame. */
velClient_returnCode_t _velClient_msg_decodeFromVwf(const velClient_bufInfo_t *bufinfo_p, _velClient_msg **msg_p);
/* The parser's callback: accepts application frames (protocols 13 and 16). */
extern "C" velClient_returnCode_t _velClient_decodeVWFCallback(void *syntaxVoid_p, void *parserVoid_p);
