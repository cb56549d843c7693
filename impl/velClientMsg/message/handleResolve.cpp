/*
 * handleResolve.cpp - recording the failure when a message or container
 * handle does not resolve (the resolving itself is inline, in
 * velClientMsgPrivate.h).
 */
#include "velClientMsg/velClientMsgPrivate.h"

void vel::recordBadHandle(const void *handle, HandleFormat badHandleFormat)
{
    VEL_STORE_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, badHandleFormat, handle);
}
