/*
 * amqpConnection.h - a broker connection over AMQP 1.0: the I/O thread's
 * Qpid Proton proactor, connection, session, links and deliveries. Only the
 * I/O thread touches Proton's connection objects; application threads queue
 * commands through the doors every broker connection shares and wake it.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "velClientBroker/brokerConnection.h"
#include "velClientBroker/byTag.h"

struct pn_proactor_t;
struct pn_connection_t;
struct pn_session_t;
struct pn_link_t;
struct pn_delivery_t;
struct pn_event_t;

namespace vel::amqp {

using broker::Command;
using broker::Outgoing;
using broker::Phase;
using broker::Subscription;

class Connection final : public broker::Connection {
public:
    /* A new connection for the session, not yet started (broker::Connection::start). */
    explicit Connection(_velClient_session *session);
    ~Connection() override;

private:
    struct SenderLink {
        pn_link_t *link = nullptr;
        std::deque<std::uint64_t> waiting; /* tags of messages awaiting credit */
    };

    bool ready() const override { return proactor_ != nullptr; }
    void run() override;
    void wakeIo() override;
    void startAttempt() override;
    void setTimer(std::int64_t ms) override;
    void cancelTimer() override;
    void resume() override;
    void dropOutgoing(std::vector<void *> &refused) override;
    void runQueuedByCallback(pn_connection_t *owner);
    void handle(pn_event_t *event);
    void transportClosed(pn_event_t *event);
    void timedOut();
    void beginClose();
    /* Begins the close that disconnect asked for once no direct message waits for link credit. */
    void closeWhenFlushed();
    void sessionEnded();
    void restartSession();
    void openLinks();
    void runCommands();
    void runQueued(std::deque<Command> &batch);
    void queueSend(std::uint64_t tag);
    void pump(SenderLink &sender);
    void subscribeNow(const Subscription &subscription, bool add);
    void awaitAttach(const Subscription &subscription, std::uint64_t ticket);
    void received(pn_delivery_t *delivery);
    void deliverMessage(pn_delivery_t *delivery, const char *bytes, std::size_t size, const Subscription &from);
    void settled(pn_delivery_t *delivery);
    void linkClosed(pn_link_t *link, const std::string &reason);
    void refuseMessagesTo(const std::string &address, const std::string &info);

    pn_proactor_t *proactor_;
    pn_connection_t *live_ = nullptr; /* the connection that wakeIo() may wake, under mutex_ */

    /* The I/O thread's own. */
    pn_connection_t *connection_ = nullptr;
    pn_session_t *amqpSession_ = nullptr;
    bool closeWanted_ = false; /* disconnect asked, the commands queued before it have run */
    bool closeBegun_ = false;
    std::string attemptTimeout_; /* set when the current attempt timed out */
    std::map<std::string, SenderLink> senders_;
    std::map<pn_link_t *, Subscription> receivers_;
    std::uint64_t nextTag_ = 1;
    std::uint64_t receiverSerial_ = 0; /* numbers receiver link names: a new link never takes a closing one's name */
    broker::ByTag<Outgoing> unsettled_; /* sent or waiting, guaranteed */
    broker::ByTag<Outgoing> direct_;    /* waiting direct messages */
    std::map<velClient_msgId_t, pn_delivery_t *> clientAcks_;
    std::vector<char> receiveBuffer_;
};

} // namespace vel::amqp
