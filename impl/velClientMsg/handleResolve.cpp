/*
 * handleResolve.cpp - recording the failure when a message or container
 * handle does not resolve (the resolving itself is inline, in
 * velClientMsgPrivate.h).
 */
#include "velClientMsg/velClientMsgPrivate.h"

#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void vel::recordBadHandle(const void *handle, const char *badHandleFormat)
{
    VEL_STORE(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, badHandleFormat, handle);
}
