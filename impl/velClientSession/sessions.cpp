/*
 * sessions.cpp - creating and destroying sessions (a broker session is
 * disconnected first) and resolving a session handle.
 */
#include <new>

#include "velClientAlloc/systemMemory.h"
#include "velClientHandle/handleTable.h"
#include "velClientLog/logPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace {

void destroySession(_velClient_session *s)
{
    s->~_velClient_session();
    vel::sysFree(s);
}

} // namespace

_velClient_session *vel::sessionOrFail(velClient_opaqueSession_pt handle, HandleFormat badHandleFormat)
{
    auto *s = resolve<_velClient_session>(handle, _SESSION_PTR_TYPE);
    if (s == nullptr)
        VEL_STORE_F(VELCLIENT_SUBCODE_PARAM_NULL_PTR, VELCLIENT_LOG_WARNING, badHandleFormat, handle);
    return s;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_create(
    const char *const *props, velClient_session_rxMsgCallbackFunc_t rxMsgCallback_p, void *user_p,
    velClient_opaqueSession_pt *session_p)
{
    if (session_p == nullptr)
        return VEL_FAIL_NULL("Null session_p pointer in velClient_session_create");
    *session_p = nullptr;
    void *mem = vel::sysMalloc(sizeof(_velClient_session));
    if (mem == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Unable to allocate memory for session in velClient_session_create");
    auto *s = new (mem) _velClient_session{};
    s->rxMsgCallback_p = rxMsgCallback_p;
    s->user_p = user_p;
    if (vel::configureSession(*s, props) != VELCLIENT_OK) {
        destroySession(s);
        return VELCLIENT_FAIL;
    }
    s->opaqueSession_p = _velClient_safePtr_alloc(s, _SESSION_PTR_TYPE);
    if (s->opaqueSession_p == nullptr) {
        destroySession(s);
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_CRITICAL,
                        "Could not allocate pointer for new session in velClient_session_create");
    }
    *session_p = s->opaqueSession_p;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_session_destroy(velClient_opaqueSession_pt *session_p)
{
    if (session_p != nullptr) {
        _velClient_session *s = vel::sessionOrFail(*session_p, "Bad session pointer (%p) in velClient_session_destroy");
        if (s == nullptr)
            return VELCLIENT_FAIL;
        if (vel::session::onOwnIoThread(s))
            return VEL_FAIL(VELCLIENT_SUBCODE_PARAM_CONFLICT, VELCLIENT_LOG_WARNING,
                            "Session destroyed from inside its own callback in velClient_session_destroy");
    }
    _velClient_session *s = vel::takeHandle(session_p, _SESSION_PTR_TYPE, vel::sessionOrFail,
                                            "Null session_p pointer in velClient_session_destroy",
                                            "Bad session pointer (%p) in velClient_session_destroy");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    vel::session::disconnect(s);
    destroySession(s);
    return VELCLIENT_OK;
}
