/*
 * codecWalk.h - what the broker codec targets (AMQP, MQTT) do with a message
 * their decoder accepted: read every part, property and map, dump it,
 * prepare it for sending as the send path does, and check that it encodes
 * into bytes that decode again.
 */
#pragma once

#include "velClientMsg/header/headerMaps.h"
#include "vwfWalk.h"

namespace velfuzz {

/* Walks the accepted message m and frees it. again(m, &back) encodes m and
 * decodes the result into back; it answers false when the encoding does not
 * decode. Returns false when again did. */
template <typename Again>
inline bool walkAccepted(_velClient_msg *m, Again again)
{
    velClient_opaqueMsg_pt h = m->opaqueMsg_p;
    readEverything(h);
    bool ok = true;
    if (vel::meta::prepareForWire(m, false) == VELCLIENT_OK) {
        _velClient_msg *back = nullptr;
        ok = again(m, &back);
        if (back != nullptr) {
            velClient_opaqueMsg_pt b = back->opaqueMsg_p;
            velClient_msg_free(&b);
        }
    }
    velClient_msg_free(&h);
    return ok;
}

} // namespace velfuzz
