/*
 * protonPeer.cpp - bench_broker's plain Qpid Proton-C contender: the same
 * workloads written as directly as Proton's proactor allows. Each client is
 * one connection with its own proactor and thread (as velclient's sessions
 * each have an I/O thread); publishers send from their event loop as credit
 * and the window allow, encoding each message with pn_message_encode;
 * subscribers decode each message with pn_message_decode and accept it.
 * A client counts its links as ready once the broker has attached them.
 */
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include <cstdio>
#include <deque>
#include <map>
#include <thread>

#include "broker/brokerBench.h"

namespace velbench {

namespace {

/* One connection, its AMQP session and the thread that runs its proactor. */
class Client {
public:
    Client(const Settings &settings, const std::string &container) : settings_(settings), proactor_(pn_proactor())
    {
        connection_ = pn_connection();
        pn_connection_set_container(connection_, container.c_str());
        char address[PN_MAX_ADDR];
        pn_proactor_addr(address, sizeof address, "127.0.0.1", std::to_string(settings.port).c_str());
        pn_proactor_connect2(proactor_, connection_, nullptr, address);
    }
    virtual ~Client() { pn_proactor_free(proactor_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void start() { thread_ = std::thread(&Client::run, this); }
    /* Runs onWake on the client's thread. */
    void poke()
    {
        if (!ended_)
            pn_connection_wake(connection_);
    }
    /* Closes the connection and waits for the thread. */
    void stop()
    {
        stopping_ = true;
        poke();
        thread_.join();
    }
    /* Waits until the broker has attached links links. */
    void awaitLinks(int links)
    {
        if (!ready_.waitFor(links, settings_.stall))
            throw Failure("Proton: the broker did not attach every link");
    }

protected:
    virtual void onOpen(pn_session_t *session) = 0;
    virtual void onEvent(pn_event_t *event) = 0;
    virtual void onWake() {}

    /* Settles the arrived message with outcome, and grants credit again once
     * half of it is used, as velclient's receiver does. */
    void settleIncoming(pn_event_t *event, std::uint64_t outcome)
    {
        pn_delivery_update(pn_event_delivery(event), outcome);
        pn_delivery_settle(pn_event_delivery(event));
        pn_link_t *link = pn_event_link(event);
        int credit = pn_link_credit(link);
        if (credit < settings_.receiveCredit / 2)
            pn_link_flow(link, settings_.receiveCredit - credit);
    }
    /* The bytes of a complete message arriving on a receiver link, or null. */
    const std::vector<char> *incoming(pn_event_t *event)
    {
        if (pn_event_type(event) != PN_DELIVERY || pn_link_is_sender(pn_event_link(event)))
            return nullptr;
        pn_delivery_t *delivery = pn_event_delivery(event);
        if (!pn_delivery_readable(delivery) || pn_delivery_partial(delivery))
            return nullptr;
        received_.resize(pn_delivery_pending(delivery));
        ssize_t got = pn_link_recv(pn_delivery_link(delivery), received_.data(), received_.size());
        pn_link_advance(pn_delivery_link(delivery));
        received_.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return &received_;
    }
    /* Encodes message and sends it on link, settled or not. */
    void sendMessage(pn_link_t *link, pn_message_t *message, std::uint64_t tag, bool settled)
    {
        std::size_t size = encoded_.size();
        while (pn_message_encode(message, encoded_.data(), &size) == PN_OVERFLOW) {
            encoded_.resize(encoded_.size() * 2);
            size = encoded_.size();
        }
        pn_delivery_t *delivery = pn_delivery(link, pn_dtag(reinterpret_cast<const char *>(&tag), sizeof tag));
        pn_link_send(link, encoded_.data(), size);
        pn_link_advance(link);
        if (settled)
            pn_delivery_settle(delivery);
    }

    const Settings &settings_;
    Progress ready_;

private:
    void run()
    {
        bool done = false;
        while (!done) {
            pn_event_batch_t *batch = pn_proactor_wait(proactor_);
            while (pn_event_t *event = pn_event_batch_next(batch))
                done = handle(event) || done;
            pn_proactor_done(proactor_, batch);
        }
    }
    bool handle(pn_event_t *event)
    {
        switch (pn_event_type(event)) {
        case PN_CONNECTION_INIT: {
            pn_connection_open(connection_);
            pn_session_t *session = pn_session(connection_);
            pn_session_open(session);
            onOpen(session);
            break;
        }
        case PN_LINK_REMOTE_OPEN: ready_.add(); break;
        case PN_CONNECTION_WAKE:
            if (stopping_)
                pn_connection_close(connection_);
            else
                onWake();
            break;
        case PN_TRANSPORT_CLOSED:
            if (!stopping_)
                std::fprintf(stderr, "Proton: connection closed unexpectedly\n");
            ended_ = true;
            return true;
        default: onEvent(event); break;
        }
        return false;
    }

    pn_proactor_t *proactor_;
    pn_connection_t *connection_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
    std::vector<char> received_;
    std::vector<char> encoded_ = std::vector<char>(1024);
};

/* Starts the clients and stops them when the scope ends, also when a wait throws. */
class Running {
public:
    Running(std::initializer_list<Client *> clients) : clients_(clients)
    {
        for (Client *client : clients_)
            client->start();
    }
    ~Running()
    {
        for (Client *client : clients_)
            client->stop();
    }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

private:
    std::vector<Client *> clients_;
};

/* A message with the 100-byte attachment as its data body. */
pn_message_t *newMessage(const std::string &address)
{
    pn_message_t *message = pn_message();
    pn_message_set_address(message, address.c_str());
    pn_data_put_binary(pn_message_body(message), pn_bytes(kPayloadSize, payload()));
    return message;
}

/* Reads the body's bytes, as an application would. */
std::size_t bodySize(pn_message_t *message)
{
    pn_data_t *body = pn_message_body(message);
    pn_data_rewind(body);
    return pn_data_next(body) && pn_data_type(body) == PN_BINARY ? pn_data_get_binary(body).size : 0;
}

/* Sends count messages once poked, pre-settled (direct, to a topic) or unsettled
 * with at most window awaiting the broker's outcome (persistent, to a queue). */
class Publisher : public Client {
public:
    Publisher(const Settings &settings, const std::string &tag, const std::string &address, long count,
              bool persistent)
        : Client(settings, "pub-" + tag), address_(address), count_(count), persistent_(persistent),
          message_(newMessage(address))
    {
        pn_message_set_durable(message_, persistent);
    }
    ~Publisher() override { pn_message_free(message_); }
    Progress acks;

private:
    void onOpen(pn_session_t *session) override
    {
        link_ = pn_sender(session, ("send:" + address_).c_str());
        pn_terminus_set_address(pn_link_target(link_), address_.c_str());
        if (persistent_)
            pn_terminus_set_durability(pn_link_target(link_), PN_CONFIGURATION);
        pn_link_open(link_);
    }
    void onWake() override
    {
        going_ = true;
        pump();
    }
    void onEvent(pn_event_t *event) override
    {
        if (pn_event_type(event) == PN_LINK_FLOW) {
            pump();
        } else if (pn_event_type(event) == PN_DELIVERY) {
            pn_delivery_t *delivery = pn_event_delivery(event);
            if (!pn_delivery_updated(delivery) || pn_delivery_remote_state(delivery) == 0)
                return;
            if (pn_delivery_remote_state(delivery) == PN_ACCEPTED)
                acks.add();
            else
                std::fprintf(stderr, "Proton: a message was refused\n");
            pn_delivery_settle(delivery);
            --unsettled_;
            pump();
        }
    }
    void pump()
    {
        while (going_ && sent_ < count_ && pn_link_credit(link_) > 0 && (!persistent_ || unsettled_ < settings_.window)) {
            sendMessage(link_, message_, static_cast<std::uint64_t>(sent_), !persistent_);
            ++sent_;
            unsettled_ += persistent_ ? 1 : 0;
        }
    }

    std::string address_;
    long count_;
    bool persistent_;
    pn_message_t *message_;
    pn_link_t *link_ = nullptr;
    bool going_ = false;
    long sent_ = 0;
    long unsettled_ = 0;
};

/* Receives from a topic or a queue, decoding and accepting each message. */
class Subscriber : public Client {
public:
    Subscriber(const Settings &settings, const std::string &tag, const std::string &address, bool queue)
        : Client(settings, "sub-" + tag), address_(address), queue_(queue), message_(pn_message())
    {
    }
    ~Subscriber() override { pn_message_free(message_); }
    Progress messages;

private:
    void onOpen(pn_session_t *session) override
    {
        pn_link_t *link = pn_receiver(session, ("recv:" + address_).c_str());
        pn_terminus_set_address(pn_link_source(link), address_.c_str());
        if (queue_)
            pn_terminus_set_durability(pn_link_source(link), PN_CONFIGURATION);
        pn_link_open(link);
        pn_link_flow(link, settings_.receiveCredit);
    }
    void onEvent(pn_event_t *event) override
    {
        const std::vector<char> *bytes = incoming(event);
        if (bytes == nullptr)
            return;
        bool decoded = pn_message_decode(message_, bytes->data(), bytes->size()) == 0 && bodySize(message_) > 0;
        settleIncoming(event, decoded ? PN_ACCEPTED : PN_REJECTED);
        messages.add();
    }

    std::string address_;
    bool queue_;
    pn_message_t *message_;
};

Throughput publish(const Settings &settings, const std::string &tag, long count, bool persistent)
{
    std::string address = (persistent ? "/queue/bench." : "/topic/bench.") + tag;
    Subscriber subscriber(settings, tag, address, persistent);
    Publisher publisher(settings, tag, address, count, persistent);
    Running running{&subscriber, &publisher};
    subscriber.awaitLinks(1);
    publisher.awaitLinks(1);
    auto start = Clock::now();
    publisher.poke();
    Throughput result = throughputSince(start, count, subscriber.messages, settings);
    if (persistent)
        awaitAcknowledged(publisher.acks, count, count, settings, "Proton", "acknowledgements");
    return result;
}

/* Sends a request with a reply-to and a correlation id, times the reply and
 * sends the next, warmup + requests times. */
class Requester : public Client {
public:
    Requester(const Settings &settings, const std::string &tag)
        : Client(settings, "req-" + tag), requests_("/topic/bench." + tag + ".request"),
          replies_("/topic/bench." + tag + ".reply"), request_(newMessage(requests_)), reply_(pn_message())
    {
        pn_message_set_reply_to(request_, replies_.c_str());
    }
    ~Requester() override
    {
        pn_message_free(request_);
        pn_message_free(reply_);
    }
    Progress replies;
    Latency latency;

private:
    void onOpen(pn_session_t *session) override
    {
        sender_ = pn_sender(session, ("send:" + requests_).c_str());
        pn_terminus_set_address(pn_link_target(sender_), requests_.c_str());
        pn_link_open(sender_);
        pn_link_t *receiver = pn_receiver(session, ("recv:" + replies_).c_str());
        pn_terminus_set_address(pn_link_source(receiver), replies_.c_str());
        pn_link_open(receiver);
        pn_link_flow(receiver, settings_.receiveCredit);
    }
    void onWake() override { send(); }
    void onEvent(pn_event_t *event) override
    {
        if (pn_event_type(event) == PN_LINK_FLOW && owed_)
            send();
        const std::vector<char> *bytes = incoming(event);
        if (bytes == nullptr)
            return;
        auto now = Clock::now();
        pn_message_decode(reply_, bytes->data(), bytes->size());
        settleIncoming(event, PN_ACCEPTED);
        if (bodySize(reply_) == 0)
            return;
        if (done_ >= settings_.warmup)
            latency.samples.push_back(std::chrono::duration<double, std::micro>(now - sentAt_).count());
        if (++done_ < settings_.warmup + settings_.requests)
            send();
        replies.add();
    }
    void send()
    {
        owed_ = pn_link_credit(sender_) <= 0;
        if (owed_)
            return;
        std::string id = "req-" + std::to_string(done_);
        pn_atom_t atom;
        atom.type = PN_STRING;
        atom.u.as_bytes = pn_bytes(id.size(), id.data());
        pn_message_set_correlation_id(request_, atom);
        sentAt_ = Clock::now();
        sendMessage(sender_, request_, static_cast<std::uint64_t>(done_), true);
    }

    std::string requests_, replies_;
    pn_message_t *request_, *reply_;
    pn_link_t *sender_ = nullptr;
    bool owed_ = false;
    long done_ = 0;
    Clock::time_point sentAt_;
};

/* Answers each request to its reply-to with its correlation id, through a
 * sender link per reply address. */
class Responder : public Client {
public:
    Responder(const Settings &settings, const std::string &tag)
        : Client(settings, "rsp-" + tag), requests_("/topic/bench." + tag + ".request"), request_(pn_message()),
          reply_(newMessage(""))
    {
    }
    ~Responder() override
    {
        pn_message_free(request_);
        pn_message_free(reply_);
    }

private:
    struct Sender {
        pn_link_t *link = nullptr;
        std::deque<std::string> waiting; /* correlation ids of replies awaiting credit */
    };

    void onOpen(pn_session_t *session) override
    {
        session_ = session;
        pn_link_t *link = pn_receiver(session, ("recv:" + requests_).c_str());
        pn_terminus_set_address(pn_link_source(link), requests_.c_str());
        pn_link_open(link);
        pn_link_flow(link, settings_.receiveCredit);
    }
    void onEvent(pn_event_t *event) override
    {
        if (pn_event_type(event) == PN_LINK_FLOW) {
            for (auto &[address, sender] : senders_)
                if (sender.link == pn_event_link(event))
                    pump(address, sender);
        }
        const std::vector<char> *bytes = incoming(event);
        if (bytes == nullptr)
            return;
        pn_message_decode(request_, bytes->data(), bytes->size());
        settleIncoming(event, PN_ACCEPTED);
        const char *replyTo = pn_message_get_reply_to(request_);
        pn_atom_t id = pn_message_get_correlation_id(request_);
        if (replyTo == nullptr || id.type != PN_STRING)
            return;
        Sender &sender = senderFor(replyTo);
        sender.waiting.emplace_back(id.u.as_bytes.start, id.u.as_bytes.size);
        pump(replyTo, sender);
    }
    Sender &senderFor(const std::string &address)
    {
        Sender &sender = senders_[address];
        if (sender.link == nullptr) {
            sender.link = pn_sender(session_, ("send:" + address).c_str());
            pn_terminus_set_address(pn_link_target(sender.link), address.c_str());
            pn_link_open(sender.link);
        }
        return sender;
    }
    void pump(const std::string &address, Sender &sender)
    {
        while (pn_link_credit(sender.link) > 0 && !sender.waiting.empty()) {
            const std::string &id = sender.waiting.front();
            pn_atom_t atom;
            atom.type = PN_STRING;
            atom.u.as_bytes = pn_bytes(id.size(), id.data());
            pn_message_set_correlation_id(reply_, atom);
            pn_message_set_address(reply_, address.c_str());
            sendMessage(sender.link, reply_, nextTag_++, true);
            sender.waiting.pop_front();
        }
    }

    std::string requests_;
    pn_message_t *request_, *reply_;
    pn_session_t *session_ = nullptr;
    std::map<std::string, Sender> senders_;
    std::uint64_t nextTag_ = 0;
};

Latency requestReply(const Settings &settings, const std::string &tag)
{
    Responder responder(settings, tag);
    Requester requester(settings, tag);
    Running running{&responder, &requester};
    responder.awaitLinks(1);
    requester.awaitLinks(2);
    requester.poke();
    if (!requester.replies.waitFor(settings.warmup + settings.requests, settings.stall))
        throw Failure("Proton: request/reply stalled after " + std::to_string(requester.replies.count()) + " rounds");
    return std::move(requester.latency);
}

} // namespace

const Contender kProton = {"Proton-C", publish, requestReply};

} // namespace velbench
