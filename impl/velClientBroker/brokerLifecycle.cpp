/*
 * brokerLifecycle.cpp - the I/O thread's side of a broker connection that
 * every transport shares: failover over the host list, reconnect and giving
 * up with their events, the publish window's accounting, answering the
 * subscribers that wait, the event and receive callbacks, and wildcard
 * matching.
 */
#include "velClientBroker/brokerConnection.h"

#include "velClientLog/logPrivate.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientTime/clock.h"

namespace vel::broker {

void freeReceived(_velClient_msg *msg)
{
    if (msg->opaqueMsg_p != nullptr)
        _velClient_safePtr_free(msg->opaqueMsg_p);
    _velClient_msg_free(msg);
}

bool topicMatches(std::string_view pattern, std::string_view topic)
{
    while (true) {
        std::size_t p = pattern.find('/'), t = topic.find('/');
        std::string_view level = pattern.substr(0, p);
        if (level == ">" && p == std::string_view::npos)
            return true; /* topic still holds at least one level here */
        if (level != "*" && level != topic.substr(0, t))
            return false;
        if (p == std::string_view::npos || t == std::string_view::npos)
            return p == t;
        pattern.remove_prefix(p + 1);
        topic.remove_prefix(t + 1);
    }
}

/* One host refused or did not answer: the next one, the next pass, or giving up. */
void Connection::attemptFailed(const std::string &reason, velClient_subCode_t subCode)
{
    VEL_LOG(VELCLIENT_LOG_INFO, "Connecting to %s failed: %s", attemptHost_.c_str(), reason.c_str());
    if (!failures_.empty())
        failures_.append("; ");
    failures_.append(attemptHost_).append(" (").append(reason).append(")");
    const auto &b = session_->broker;
    hostIndex_ = (hostIndex_ + 1) % b.hosts.size();
    if (++hostsTried_ < b.hosts.size()) {
        startAttempt();
        return;
    }
    hostsTried_ = 0;
    if (!everUp_) {
        std::lock_guard lock(mutex_);
        phase_ = Phase::down;
        failCode_ = subCode;
        failText_ = failures_;
        finished_ = true;
        changed_.notify_all();
        return;
    }
    ++retriesDone_;
    if (b.reconnectRetries != -1 && retriesDone_ >= b.reconnectRetries) {
        goDown(failures_);
        return;
    }
    failures_.clear();
    setTimer(b.reconnectRetryWaitMs);
}

void Connection::ended(const std::string &reason, velClient_subCode_t attemptCode)
{
    answerAll();
    if (closing_)
        finished_ = true;
    else if (opened_)
        connectionLost(reason);
    else
        attemptFailed(reason, attemptCode);
}

void Connection::connectionUp()
{
    opened_ = true;
    cancelTimer();
    hostsTried_ = 0;
    retriesDone_ = 0;
    failures_.clear();
    bool again = everUp_;
    everUp_ = true;
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::up;
        changed_.notify_all();
    }
    std::string info = "connected to " + attemptHost_;
    emit(again ? VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE : VELCLIENT_SESSION_EVENT_UP_NOTICE, info.c_str(),
         nullptr);
    resume();
}

void Connection::connectionLost(const std::string &reason)
{
    opened_ = false;
    VEL_LOG(VELCLIENT_LOG_NOTICE, "Connection to %s lost: %s", attemptHost_.c_str(), reason.c_str());
    if (session_->broker.reconnectRetries == 0) {
        goDown(attemptHost_ + " (" + reason + ")");
        return;
    }
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::reconnecting;
    }
    std::string info = "connection to " + attemptHost_ + " lost (" + reason + ")";
    emit(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, info.c_str(), nullptr);
    hostsTried_ = 0;
    retriesDone_ = 0;
    failures_.clear();
    setTimer(session_->broker.reconnectRetryWaitMs);
}

/* Gives up: every guaranteed message not acknowledged, sent or still queued,
 * is reported refused, then DOWN_ERROR. */
void Connection::goDown(const std::string &reason)
{
    std::deque<Command> queued;
    {
        std::lock_guard lock(mutex_);
        phase_ = Phase::down;
        queued.swap(commands_);
    }
    finished_ = true;
    std::vector<void *> refused;
    dropOutgoing(refused);
    for (const Command &command : queued)
        if (command.kind == Command::Kind::send && !command.message.settled)
            refused.push_back(command.message.correlation_p);
    acknowledged(refused.size());
    for (void *correlation_p : refused)
        emit(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, "session down", correlation_p);
    std::string info = "given up on every host: " + reason;
    emit(VELCLIENT_SESSION_EVENT_DOWN_ERROR, info.c_str(), nullptr);
}

void Connection::acknowledged(std::size_t count)
{
    bool owed = false;
    {
        std::lock_guard lock(mutex_);
        inWindow_ -= static_cast<std::uint32_t>(count);
        owed = canSendOwed_ && inWindow_ < session_->broker.pubWindowSize;
        if (owed)
            canSendOwed_ = false;
    }
    windowOpened_ = true; /* waiters wake when the batch ends */
    if (owed)
        emit(VELCLIENT_SESSION_EVENT_CAN_SEND, "room in the publish window", nullptr);
}

void Connection::notifyWindow()
{
    if (windowOpened_) {
        windowOpened_ = false;
        changed_.notify_all();
    }
}

void Connection::awaitAnswer(const Subscription &subscription, std::uint64_t ticket)
{
    attaching_.emplace(subscription, ticket);
}

/* The broker accepted or refused the subscription, or the connection went:
 * whoever waits for it goes on. */
void Connection::attachAnswered(const Subscription &subscription)
{
    auto [first, last] = attaching_.equal_range(subscription);
    if (first == last)
        return;
    {
        std::lock_guard lock(mutex_);
        for (auto it = first; it != last; ++it)
            unansweredTickets_.erase(it->second);
        changed_.notify_all();
    }
    attaching_.erase(first, last);
}

void Connection::answerAll()
{
    while (!attaching_.empty()) {
        Subscription waited = attaching_.begin()->first;
        attachAnswered(waited);
    }
}

velClient_msgId_t Connection::deliver(_velClient_msg *msg, bool redelivered, bool clientAck)
{
    velClient_msgId_t id = nextMsgId_++;
    _velClient_msg_setMsgId(msg->opaqueMsg_p, id);
    if (redelivered)
        msg->msgInfo.flags |= _VELCLIENT_RX_FLAG_REDELIVERED_MASK;
    if (msg->msgInfo.rcvTimestamp == 0)
        msg->msgInfo.rcvTimestamp = _velClient_getTimeInMs();
    if (clientAck) {
        std::lock_guard lock(mutex_);
        awaitingAck_.insert(id);
    }
    velClient_rxMsgCallback_returnCode_t kept = VELCLIENT_CALLBACK_OK;
    if (session_->rxMsgCallback_p != nullptr)
        kept = session_->rxMsgCallback_p(session_->opaqueSession_p, msg->opaqueMsg_p, session_->user_p);
    if (kept != VELCLIENT_CALLBACK_TAKE_MSG)
        freeReceived(msg);
    return id;
}

void Connection::emit(velClient_session_event_t event, const char *info, void *correlation_p,
                      std::int32_t responseCode)
{
    session::EventSink sink;
    {
        std::lock_guard lock(session_->eventMutex);
        sink = session_->events;
    }
    if (sink.callback_p == nullptr)
        return;
    velClient_session_eventCallbackInfo_t details{event, responseCode, info, correlation_p};
    sink.callback_p(session_->opaqueSession_p, &details, sink.user_p);
}

} // namespace vel::broker
