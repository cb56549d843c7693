/*
 * amqpConnection.h - a broker session's connection: the I/O thread that owns
 * Qpid Proton's proactor, connection, session, links and deliveries, and the
 * thread-safe doors through which application threads hand it sends,
 * subscriptions, acknowledgements and the close. Only the I/O thread touches
 * Proton's connection objects; application threads queue commands and wake it.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "velClientAmqp/amqpByTag.h"
#include "velclient/velClient.h"

struct _velClient_session;
struct pn_proactor_t;
struct pn_connection_t;
struct pn_session_t;
struct pn_link_t;
struct pn_delivery_t;
struct pn_event_t;

namespace vel::amqp {

/* A message on its way to the broker: its encoded bytes and where they go. */
struct Outgoing {
    std::vector<char> bytes;
    std::shared_ptr<const std::string> address; /* shared by messages to the same target */
    bool settled = false;           /* direct: sent pre-settled */
    bool toQueue = false;           /* the target is a queue (durable terminus) */
    void *correlation_p = nullptr;  /* reported with the acknowledgement */
};

/* A subscription: the source address of a receiver link. */
struct Subscription {
    std::string address;
    bool queue = false;
    std::string topic; /* the subscribed topic, wildcards included; empty for a queue */
    auto operator<=>(const Subscription &) const = default;
};

/* What an application thread hands the I/O thread. */
struct Command {
    enum class Kind : std::uint8_t { send, subscribe, unsubscribe, ack } kind;
    Outgoing message;
    Subscription subscription;
    velClient_msgId_t msgId = 0;
    std::uint64_t ticket = 0; /* a subscribe whose caller waits for the broker's answer */
};

enum class Phase : std::uint8_t { connecting, up, reconnecting, down, closed };

class Connection {
public:
    /* Starts the I/O thread and connects to the session's hosts in turn;
     * blocks until one is up or every one has failed. On failure the calling
     * thread's last error names each host and its reason and *out is null. */
    static velClient_returnCode_t open(_velClient_session *session, std::shared_ptr<Connection> &out);
    /* Waits (bounded by the send timeout) for the outstanding acknowledgements,
     * closes the connection and ends the I/O thread; later calls fail as not
     * connected. Not from the I/O thread. */
    void close();
    ~Connection();

    bool onIoThread() const { return std::this_thread::get_id() == ioThread_.get_id(); }

    /* Hands one encoded message to the I/O thread. A guaranteed one
     * (not settled) first takes a place in the publish window: when there is
     * none, a blocking session waits up to the send timeout with sessionLock
     * released (TIMEOUT), a non-blocking one (or a send from the I/O thread)
     * returns VELCLIENT_WOULD_BLOCK and CAN_SEND follows. */
    velClient_returnCode_t send(Outgoing &&message, std::unique_lock<std::recursive_mutex> &sessionLock);
    /* Adds or ends a subscription; refusals by the broker arrive as events.
     * An added one returns once the broker has answered its attach (or after
     * the connect timeout), so that what is published afterwards reaches it;
     * from the I/O thread it returns at once. */
    velClient_returnCode_t subscribe(Subscription subscription, bool add, const char *call);
    /* Accepts the queue message received with msgId; PARAM_OUT_OF_RANGE when
     * no such message awaits acknowledgement. */
    velClient_returnCode_t ack(velClient_msgId_t msgId);

private:
    struct SenderLink {
        pn_link_t *link = nullptr;
        std::deque<std::uint64_t> waiting; /* tags of messages awaiting credit */
    };

    explicit Connection(_velClient_session *session);
    void run();
    void runQueuedByCallback(pn_connection_t *owner);
    void handle(pn_event_t *event);
    void startAttempt();
    void transportClosed(pn_event_t *event);
    void attemptFailed(const std::string &reason, velClient_subCode_t subCode);
    void timedOut();
    void connectionUp();
    void connectionLost(const std::string &reason);
    void goDown(const std::string &reason);
    void beginClose();
    /* Begins the close that disconnect asked for once no direct message waits for link credit. */
    void closeWhenFlushed();
    void sessionEnded();
    void restartSession();
    void openLinks();
    void runCommands();
    void runQueued();
    void queueSend(std::uint64_t tag);
    pn_link_t *senderFor(const Outgoing &message);
    void pump(SenderLink &sender);
    void subscribeNow(const Subscription &subscription, bool add);
    void awaitAttach(const Subscription &subscription, std::uint64_t ticket);
    void attachAnswered(const Subscription &subscription);
    void waitForTicket(std::uint64_t ticket);
    void received(pn_delivery_t *delivery);
    void deliverMessage(pn_delivery_t *delivery, const char *bytes, std::size_t size, const Subscription &from);
    void settled(pn_delivery_t *delivery);
    void linkClosed(pn_link_t *link, const std::string &reason);
    void refuseMessagesTo(const std::string &address, const std::string &info);
    void acknowledged(std::size_t count);
    void emit(velClient_session_event_t event, const char *info, void *correlation_p, std::int32_t responseCode = 0);
    void wake();

    _velClient_session *session_;
    pn_proactor_t *proactor_;
    std::thread ioThread_;

    /* Shared with application threads, under mutex_. */
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Command> commands_;
    pn_connection_t *live_ = nullptr; /* the connection that wake() may wake */
    Phase phase_ = Phase::connecting;
    velClient_subCode_t failCode_ = VELCLIENT_SUBCODE_OK;
    std::string failText_;
    std::uint32_t inWindow_ = 0;     /* guaranteed messages not yet acknowledged */
    bool canSendOwed_ = false;       /* a send returned WOULD_BLOCK */
    bool wakePending_ = false;       /* the I/O thread is woken and has not yet looked at commands_ */
    std::atomic<bool> closing_{false};
    std::set<velClient_msgId_t> awaitingAck_; /* client acknowledgement */
    std::uint64_t ticketsIssued_ = 0;
    std::set<std::uint64_t> unansweredTickets_; /* subscribers waiting for an attach */

    /* The I/O thread's own. */
    pn_connection_t *connection_ = nullptr;
    pn_session_t *amqpSession_ = nullptr;
    std::size_t hostIndex_ = 0;
    std::size_t hostsTried_ = 0;
    std::int64_t retriesDone_ = 0;
    bool everUp_ = false;
    bool opened_ = false;   /* the current connection is open both ways */
    bool finished_ = false; /* the I/O loop ends after this batch */
    bool closeWanted_ = false; /* disconnect asked, the commands queued before it have run */
    bool closeBegun_ = false;
    bool queuedByCallback_ = false; /* a callback queued commands: run them when its event is done */
    bool windowOpened_ = false;     /* room was made: notify changed_ when the batch ends */
    std::string attemptHost_;
    std::string attemptTimeout_; /* set when the current attempt timed out */
    std::string failures_;       /* "host (reason)" of each failed attempt of this pass */
    std::map<std::string, SenderLink> senders_;
    std::map<pn_link_t *, Subscription> receivers_;
    std::set<Subscription> subscriptions_;
    std::multimap<Subscription, std::uint64_t> attaching_; /* waiting subscribers' tickets */
    std::uint64_t nextTag_ = 1;
    ByTag<Outgoing> unsettled_; /* sent or waiting, guaranteed */
    ByTag<Outgoing> direct_;    /* waiting direct messages */
    std::map<velClient_msgId_t, pn_delivery_t *> clientAcks_;
    velClient_msgId_t nextMsgId_ = 1;
    std::vector<char> receiveBuffer_;
};

} // namespace vel::amqp
