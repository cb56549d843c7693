/*
 * brokerDoors.cpp - the application threads' side of a broker connection:
 * starting it and waiting for the first outcome, the close, the publish
 * window, subscriptions that wait for the broker's answer, client
 * acknowledgements, and waking the I/O thread.
 */
#include "velClientBroker/brokerConnection.h"

#include <chrono>

#include "velClientLog/logPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace vel::broker {

namespace {

bool isDown(Phase phase)
{
    return phase == Phase::down || phase == Phase::closed;
}

} // namespace

Connection::Connection(_velClient_session *session, Subscription inbox) : session_(session)
{
    subscriptions_.insert(inbox);
    /* start() returns once the inbox is subscribed. */
    unansweredTickets_.insert(++ticketsIssued_);
    attaching_.emplace(std::move(inbox), ticketsIssued_);
}

velClient_returnCode_t Connection::start(Connection *c, std::shared_ptr<Connection> &out)
{
    out.reset();
    if (c == nullptr || !c->ready()) {
        delete c;
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "Unable to allocate memory for connection in velClient_session_connect");
    }
    try {
        c->ioThread_ = std::thread(&Connection::run, c);
    } catch (const std::exception &e) {
        delete c;
        return VEL_FAIL(VELCLIENT_SUBCODE_OS_ERROR, VELCLIENT_LOG_ERROR,
                        "Could not start the I/O thread in velClient_session_connect: %s", e.what());
    }
    std::unique_lock lock(c->mutex_);
    c->changed_.wait(lock, [c] { return c->phase_ != Phase::connecting; });
    if (c->phase_ == Phase::up) {
        lock.unlock();
        c->waitForTicket(1);
        out.reset(c);
        return VELCLIENT_OK;
    }
    std::string text = c->failText_;
    velClient_subCode_t code = c->failCode_;
    lock.unlock();
    c->ioThread_.join();
    delete c;
    return VEL_FAIL(code, VELCLIENT_LOG_WARNING, "Could not connect to %s in velClient_session_connect",
                    text.c_str());
}

void Connection::close()
{
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(session_->broker.sendTimeoutMs), [this] {
            return inWindow_ == 0 || (phase_ != Phase::up && phase_ != Phase::reconnecting);
        });
        closing_ = true;
    }
    wake();
    ioThread_.join();
    std::lock_guard lock(mutex_);
    phase_ = Phase::closed;
    changed_.notify_all();
}

/* Has the I/O thread run the queued commands. From the I/O thread itself (a
 * callback) they run as soon as the event being handled is done; from another
 * thread the transport wakes it, once until the I/O thread looks. */
void Connection::wake()
{
    if (onIoThread()) {
        queuedByCallback_ = true;
        return;
    }
    std::lock_guard lock(mutex_);
    if (wakePending_)
        return;
    wakePending_ = true;
    wakeIo();
}

std::deque<Command> Connection::takeCommands(bool take)
{
    std::deque<Command> batch;
    std::lock_guard lock(mutex_);
    wakePending_ = false;
    if (take)
        batch.swap(commands_);
    return batch;
}

velClient_returnCode_t Connection::send(Outgoing &&message, std::unique_lock<std::recursive_mutex> &sessionLock)
{
    const session::BrokerSettings &b = session_->broker;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(b.sendTimeoutMs);
    std::unique_lock lock(mutex_);
    while (!message.settled && inWindow_ >= b.pubWindowSize && !isDown(phase_)) {
        if (!b.sendBlocking || onIoThread()) {
            canSendOwed_ = true;
            return VELCLIENT_WOULD_BLOCK;
        }
        sessionLock.unlock();
        bool room = changed_.wait_until(lock, deadline, [&] { return inWindow_ < b.pubWindowSize || isDown(phase_); });
        lock.unlock();
        sessionLock.lock();
        lock.lock();
        if (!room && inWindow_ >= b.pubWindowSize) {
            lock.unlock();
            return VEL_FAIL(VELCLIENT_SUBCODE_TIMEOUT, VELCLIENT_LOG_WARNING,
                            "No room in the publish window within %lld ms in velClient_session_sendMsg",
                            static_cast<long long>(b.sendTimeoutMs));
        }
    }
    if (isDown(phase_)) {
        lock.unlock();
        return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING,
                        "Session not connected in velClient_session_sendMsg");
    }
    if (!message.settled)
        ++inWindow_;
    Command &command = commands_.emplace_back();
    command.kind = Command::Kind::send;
    command.message = std::move(message);
    lock.unlock();
    wake();
    return VELCLIENT_OK;
}

velClient_returnCode_t Connection::subscribe(Subscription subscription, bool add, const char *call)
{
    std::unique_lock lock(mutex_);
    if (isDown(phase_)) {
        lock.unlock();
        return VEL_FAIL(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, VELCLIENT_LOG_WARNING,
                        "Session not connected in %s", call);
    }
    std::uint64_t ticket = 0;
    if (add && !onIoThread()) {
        ticket = ++ticketsIssued_;
        unansweredTickets_.insert(ticket);
    }
    commands_.push_back({add ? Command::Kind::subscribe : Command::Kind::unsubscribe, {}, std::move(subscription), 0,
                         ticket});
    lock.unlock();
    wake();
    if (ticket != 0)
        waitForTicket(ticket);
    return VELCLIENT_OK;
}

/* Waits until the I/O thread has answered the ticket, the connection has
 * gone down, or the connect timeout has passed. */
void Connection::waitForTicket(std::uint64_t ticket)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(session_->broker.connectTimeoutMs),
                      [&] { return !unansweredTickets_.contains(ticket) || isDown(phase_); });
    unansweredTickets_.erase(ticket);
}

velClient_returnCode_t Connection::ack(velClient_msgId_t msgId)
{
    std::unique_lock lock(mutex_);
    if (awaitingAck_.erase(msgId) == 0) {
        lock.unlock();
        return VEL_FAIL_RANGE("No message with id %llu awaits acknowledgement in velClient_session_ack",
                              static_cast<unsigned long long>(msgId));
    }
    commands_.push_back({Command::Kind::ack, {}, {}, msgId});
    lock.unlock();
    wake();
    return VELCLIENT_OK;
}

} // namespace vel::broker
