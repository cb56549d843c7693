/*
 * brokerConnection.h - what every broker connection shares, whatever its
 * protocol: the I/O thread's life, the doors through which application
 * threads hand it sends, subscriptions, acknowledgements and the close (the
 * publish window, the waits for the broker's answer), the failover and
 * reconnect sequence with its events, and the event callback. A transport
 * derives from Connection and supplies the protocol: connecting one host,
 * waking its I/O thread, its timer, and what it does once connected.
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
#include <string_view>
#include <thread>
#include <vector>

#include "velclient/velClient.h"

struct _velClient_session;
struct _velClient_msg;

namespace vel::broker {

/* A transport's own data travelling with a message (the MQTT property list). */
using Extra = std::unique_ptr<void, void (*)(void *)>;

/* A message on its way to the broker: its encoded bytes and where they go. */
struct Outgoing {
    std::vector<char> bytes;                    /* the encoded message, or the payload */
    std::shared_ptr<const std::string> address; /* shared by messages to the same target */
    bool settled = false;                       /* direct: sent at most once, no outcome */
    bool toQueue = false;                       /* the target is a queue */
    void *correlation_p = nullptr;              /* reported with the outcome */
    Extra extra{nullptr, [](void *) {}};
};

/* A subscription: the address (or topic filter) the broker knows it by. */
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

/* Whether topic matches the subscription pattern: a level "*" matches any
 * one level, a last level ">" one or more (brokers whose wildcard also
 * matches no level at all deliver more; this keeps the library's meaning). */
bool topicMatches(std::string_view pattern, std::string_view topic);

/* Frees a received message that no application holds. */
void freeReceived(_velClient_msg *msg);

class Connection {
public:
    /* Starts c's I/O thread, which connects to the session's hosts in turn,
     * and blocks until one is up (and the inbox subscribed) or every one has
     * failed. On failure the calling thread's last error names each host and
     * its reason, c is gone and *out is null. */
    static velClient_returnCode_t start(Connection *c, std::shared_ptr<Connection> &out);
    /* Waits (bounded by the send timeout) for the outstanding acknowledgements,
     * closes the connection and ends the I/O thread; later calls fail as not
     * connected. Not from the I/O thread. */
    void close();
    virtual ~Connection() = default;

    bool onIoThread() const { return std::this_thread::get_id() == ioThread_.get_id(); }

    /* Hands one encoded message to the I/O thread. A guaranteed one
     * (not settled) first takes a place in the publish window: when there is
     * none, a blocking session waits up to the send timeout with sessionLock
     * released (TIMEOUT), a non-blocking one (or a send from the I/O thread)
     * returns VELCLIENT_WOULD_BLOCK and CAN_SEND follows. */
    velClient_returnCode_t send(Outgoing &&message, std::unique_lock<std::recursive_mutex> &sessionLock);
    /* Adds or ends a subscription; refusals by the broker arrive as events.
     * An added one returns once the broker has answered it (or after the
     * connect timeout), so that what is published afterwards reaches it;
     * from the I/O thread it returns at once. */
    velClient_returnCode_t subscribe(Subscription subscription, bool add, const char *call);
    /* Accepts the queue message received with msgId; PARAM_OUT_OF_RANGE when
     * no such message awaits acknowledgement. */
    velClient_returnCode_t ack(velClient_msgId_t msgId);

protected:
    /* inbox is the session's own reply subscription, which connect waits for. */
    Connection(_velClient_session *session, Subscription inbox);

    /* ---- What a transport supplies ---- */
    /* False when the transport could not allocate what it needs. */
    virtual bool ready() const { return true; }
    /* The I/O thread's loop; it ends once finished_ is set. */
    virtual void run() = 0;
    /* Wakes the I/O thread so that it runs the queued commands; called from
     * another thread with mutex_ held. */
    virtual void wakeIo() = 0;
    /* Connects to hosts[hostIndex_]; the outcome reaches connectionUp() or attemptFailed(). */
    virtual void startAttempt() = 0;
    /* Arms (or cancels) the I/O thread's one timer; timedOut() of the transport follows. */
    virtual void setTimer(std::int64_t ms) = 0;
    virtual void cancelTimer() = 0;
    /* Once connected: subscriptions, the messages not yet acknowledged, then the queued commands. */
    virtual void resume() = 0;
    /* Giving up: the correlation tags of every guaranteed message the
     * transport still holds, in order, and its stores emptied. */
    virtual void dropOutgoing(std::vector<void *> &refused) = 0;

    /* ---- The I/O thread's shared steps ---- */
    void attemptFailed(const std::string &reason, velClient_subCode_t subCode);
    /* The current connection or attempt ended (its waiting subscribers go
     * on): the close is done, the connection was lost, or the attempt failed
     * with attemptCode. */
    void ended(const std::string &reason, velClient_subCode_t attemptCode);
    void connectionUp();
    void connectionLost(const std::string &reason);
    void goDown(const std::string &reason);
    void acknowledged(std::size_t count);
    void awaitAnswer(const Subscription &subscription, std::uint64_t ticket);
    void attachAnswered(const Subscription &subscription);
    /* Every waiting subscriber goes on (the connection went). */
    void answerAll();
    /* Wakes the waiters for room in the publish window, once per batch. */
    void notifyWindow();
    /* The I/O thread has looked: the next command wakes it again. With take
     * set, the commands queued so far are handed over. */
    std::deque<Command> takeCommands(bool take);
    void emit(velClient_session_event_t event, const char *info, void *correlation_p, std::int32_t responseCode = 0);
    void wake();
    /* Gives a received message its id, the redelivered flag and its receive
     * time, hands it to the receive callback and frees it unless the
     * application took it. With clientAck the id awaits velClient_session_ack. */
    velClient_msgId_t deliver(_velClient_msg *msg, bool redelivered, bool clientAck);

    _velClient_session *session_;
    std::thread ioThread_;

    /* Shared with application threads, under mutex_. */
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Command> commands_;
    Phase phase_ = Phase::connecting;
    velClient_subCode_t failCode_ = VELCLIENT_SUBCODE_OK;
    std::string failText_;
    std::uint32_t inWindow_ = 0;     /* guaranteed messages not yet acknowledged */
    bool canSendOwed_ = false;       /* a send returned WOULD_BLOCK */
    bool wakePending_ = false;       /* the I/O thread is woken and has not yet looked at commands_ */
    std::atomic<bool> closing_{false};
    std::set<velClient_msgId_t> awaitingAck_; /* client acknowledgement */
    std::uint64_t ticketsIssued_ = 0;
    std::set<std::uint64_t> unansweredTickets_; /* subscribers waiting for the broker */

    /* The I/O thread's own. */
    std::size_t hostIndex_ = 0;
    std::size_t hostsTried_ = 0;
    std::int64_t retriesDone_ = 0;
    bool everUp_ = false;
    bool opened_ = false;           /* the current connection is up */
    bool finished_ = false;         /* the I/O loop ends after this batch */
    bool queuedByCallback_ = false; /* a callback queued commands: run them when its event is done */
    bool windowOpened_ = false;     /* room was made: notify changed_ when the batch ends */
    std::string attemptHost_;       /* "host:port" of the current attempt */
    std::string failures_;          /* "host (reason)" of each failed attempt of this pass */
    std::set<Subscription> subscriptions_;
    std::multimap<Subscription, std::uint64_t> attaching_; /* waiting subscribers' tickets */
    velClient_msgId_t nextMsgId_ = 1;

private:
    void waitForTicket(std::uint64_t ticket);
};

} // namespace vel::broker
