/*
 * handleResolve.cpp - turning message and container handles into records, and
 * recording the failure when a handle does not resolve.
 */
#include "velClientMsg/velClientMsgPrivate.h"

#pragma GCC diagnostic ignored "-Wformat-nonliteral"

_velClient_msg *vel::msgOrFail(velClient_opaqueMsg_pt handle, const char *badHandleFormat)
{
    _velClient_msg *msg = msgOf(handle);
    if (__builtin_expect(msg == nullptr, 0))
        VEL_STORE(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, badHandleFormat, handle);
    return msg;
}

_velClient_container *vel::containerOrFail(velClient_opaqueContainer_pt handle, const char *badHandleFormat)
{
    _velClient_container *cont = containerOf(handle);
    if (__builtin_expect(cont == nullptr, 0))
        VEL_STORE(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, badHandleFormat, handle);
    return cont;
}
