/*
 * sessions.cpp - creating and destroying sessions: reading their
 * properties, the default client name and inbox topic base, and resolving a
 * session handle.
 */
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
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

std::atomic<std::uint32_t> sessionCounter_s{0};

void defaultClientName(char (&name)[kSessionMaxTopic + 1])
{
    char host[64] = "localhost";
    gethostname(host, sizeof host - 1);
    host[sizeof host - 1] = '\0';
    std::snprintf(name, sizeof name, "%s/%d/%05u", host, static_cast<int>(getpid()),
                  static_cast<unsigned>(sessionCounter_s.fetch_add(1) + 1));
}

/* The property comes before the value, which may be long enough to be cut off. */
velClient_returnCode_t badValue(const char *name_p, const char *value_p)
{
    return VEL_FAIL_RANGE("Invalid value for property %s in velClient_session_create: '%s'", name_p,
                          value_p ? value_p : "(null)");
}

/* "1" or "0" into flag. */
velClient_returnCode_t readBool(const char *name_p, const char *value_p, bool &flag)
{
    if (value_p == nullptr || (std::strcmp(value_p, "1") != 0 && std::strcmp(value_p, "0") != 0))
        return badValue(name_p, value_p);
    flag = value_p[0] == '1';
    return VELCLIENT_OK;
}

/* A text of at most 250 characters into out. */
velClient_returnCode_t readText(const char *name_p, const char *value_p, char (&out)[kSessionMaxTopic + 1])
{
    if (value_p == nullptr || std::strlen(value_p) > kSessionMaxTopic)
        return badValue(name_p, value_p);
    std::strcpy(out, value_p);
    return VELCLIENT_OK;
}

velClient_returnCode_t applyProperty(_velClient_session &s, const char *name_p, const char *value_p,
                                     bool &topicBaseGiven)
{
    struct BoolProperty {
        const char *name;
        bool _velClient_session::*flag;
    };
    static constexpr BoolProperty kBools[] = {
        {"SESSION_GENERATE_SEND_TIMESTAMPS", &_velClient_session::genSendTimestamps},
        {"SESSION_GENERATE_SENDER_ID", &_velClient_session::genSenderId},
        {"SESSION_GENERATE_SEQUENCE_NUMBER", &_velClient_session::genSequenceNumber},
        {"SESSION_CALCULATE_MESSAGE_EXPIRATION", &_velClient_session::calcMessageExpiration}};
    for (const BoolProperty &p : kBools)
        if (std::strcmp(name_p, p.name) == 0)
            return readBool(name_p, value_p, s.*p.flag);
    if (std::strcmp(name_p, "SESSION_CLIENT_NAME") == 0)
        return readText(name_p, value_p, s.clientName);
    if (std::strcmp(name_p, "SESSION_P2P_TOPIC_BASE") == 0) {
        topicBaseGiven = true;
        return readText(name_p, value_p, s.p2pTopicBase);
    }
    if (std::strcmp(name_p, "SESSION_TRANSPORT") == 0) {
        if (value_p != nullptr && std::strcmp(value_p, "loopback") == 0)
            s.transport = _velClient_transport::loopback;
        else if (value_p != nullptr && std::strcmp(value_p, "null") == 0)
            s.transport = _velClient_transport::drop;
        else
            return badValue(name_p, value_p);
        return VELCLIENT_OK;
    }
    return VEL_FAIL_RANGE("Unknown property %s in velClient_session_create", name_p);
}

velClient_returnCode_t configure(_velClient_session &s, const char *const *props)
{
    bool topicBaseGiven = false;
    defaultClientName(s.clientName);
    for (std::size_t i = 0; props != nullptr && props[i] != nullptr; i += 2)
        if (applyProperty(s, props[i], props[i + 1], topicBaseGiven) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
    if (!topicBaseGiven) {
        /* The default inbox topic base is cut at 250 characters: the client
         * name keeps what fits after the prefix. */
        constexpr int kNameRoom = static_cast<int>(kSessionMaxTopic - (sizeof "#P2P/v:loopback/" - 1));
        std::snprintf(s.p2pTopicBase, sizeof s.p2pTopicBase, "#P2P/v:loopback/%.*s", kNameRoom, s.clientName);
    }
    s.autoGenForSendEnabled = s.genSendTimestamps || s.genSenderId || s.genSequenceNumber;
    s.sendSeqNum = 1;
    return VELCLIENT_OK;
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
    if (configure(*s, props) != VELCLIENT_OK) {
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
    _velClient_session *s = vel::takeHandle(session_p, vel::sessionOrFail,
                                            "Null session_p pointer in velClient_session_destroy",
                                            "Bad session pointer (%p) in velClient_session_destroy");
    if (s == nullptr)
        return VELCLIENT_FAIL;
    destroySession(s);
    return VELCLIENT_OK;
}
