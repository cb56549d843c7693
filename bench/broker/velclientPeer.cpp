/*
 * velclientPeer.cpp - bench_broker's velclient contender, through the public C
 * API only: broker sessions publish from the main thread and receive on their
 * I/O threads; the requester sends each next request from its receive callback.
 * Subscriptions are confirmed with probes (messages without an attachment)
 * before the clock starts.
 */
#include <cstdio>
#include <cstring>

#include "broker/brokerBench.h"
#include "velclient/velClientMsg.h"

namespace velbench {

namespace {

void check(velClient_returnCode_t rc, const char *what)
{
    if (rc != VELCLIENT_OK)
        throw Failure(std::string("velclient: ") + what + ": " + velClient_returnCodeToString(rc) + ", " +
                      velClient_getLastErrorInfo()->errorStr);
}

/* What a session's callbacks count. */
struct Counts {
    Progress messages; /* with an attachment */
    Progress probes;   /* without */
    Progress acks;
    Progress refusals;
};

bool hasAttachment(velClient_opaqueMsg_pt msg)
{
    void *bytes = nullptr;
    velClient_uint32_t size = 0;
    return velClient_msg_getBinaryAttachmentPtr(msg, &bytes, &size) == VELCLIENT_OK && size > 0;
}

velClient_rxMsgCallback_returnCode_t countMessage(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user)
{
    auto *counts = static_cast<Counts *>(user);
    (hasAttachment(msg) ? counts->messages : counts->probes).add();
    return VELCLIENT_CALLBACK_OK;
}

void countEvent(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt info, void *user)
{
    auto *counts = static_cast<Counts *>(user);
    if (info->event == VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT) {
        counts->acks.add();
    } else if (info->event == VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR ||
               info->event == VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR ||
               info->event == VELCLIENT_SESSION_EVENT_DOWN_ERROR) {
        std::fprintf(stderr, "velclient: %s: %s\n", velClient_session_eventToString(info->event), info->info_p);
        counts->refusals.add();
    }
}

/* A handle of the library that dies with its scope. */
template <typename Handle, velClient_returnCode_t (*Free)(Handle *)>
class Owned {
public:
    Owned() = default;
    ~Owned() { Free(&handle_); }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    operator Handle() const { return handle_; }

protected:
    Handle handle_ = nullptr;
};

/* A connected broker session. */
class Session : public Owned<velClient_opaqueSession_pt, velClient_session_destroy> {
public:
    Session(const Settings &settings, const std::string &name, velClient_session_rxMsgCallbackFunc_t onMessage,
            void *user)
    {
        std::string host = "127.0.0.1:" + std::to_string(settings.port);
        std::string window = std::to_string(settings.window);
        const char *props[] = {"SESSION_TRANSPORT", settings.transport.c_str(), "SESSION_HOST", host.c_str(), "SESSION_CLIENT_NAME",
                               name.c_str(), "SESSION_PUB_WINDOW_SIZE", window.c_str(), "SESSION_SEND_TIMEOUT_MS",
                               "30000", nullptr};
        check(velClient_session_create(props, onMessage, user, &handle_), "session_create");
        check(velClient_session_setEventCallback(handle_, countEvent, user), "setEventCallback");
        check(velClient_session_connect(handle_), "session_connect");
    }
};

/* A new message. */
class Message : public Owned<velClient_opaqueMsg_pt, velClient_msg_free> {
public:
    Message() { check(velClient_msg_alloc(&handle_), "msg_alloc"); }
};

/* Sends a probe from sender to dest every 100 ms until receiver's callbacks have seen one. */
void confirm(velClient_opaqueSession_pt sender, const velClient_destination_t &dest, Counts &receiver,
             const Settings &settings)
{
    Message probe;
    check(velClient_msg_setDestination(probe, &dest, sizeof dest), "msg_setDestination");
    auto deadline = Clock::now() + settings.stall;
    while (receiver.probes.count() == 0) {
        if (Clock::now() > deadline)
            throw Failure(std::string("velclient: no probe came back from ") + dest.dest);
        check(velClient_session_sendMsg(sender, probe), "session_sendMsg (probe)");
        receiver.probes.waitFor(1, std::chrono::milliseconds(100));
    }
}

/* count messages from a publisher session to a subscriber session, counted on arrival. */
Throughput publish(const Settings &settings, const std::string &tag, long count, bool persistent)
{
    Counts in, out;
    Session subscriber(settings, "sub-" + tag, countMessage, &in);
    Session publisher(settings, "pub-" + tag, countMessage, &out);
    /* On amqp both give the address "/.../bench.<tag>"; mqtt has no queues, so persistent messages go to a topic. */
    const bool queue = persistent && settings.transport == "amqp";
    std::string name = (queue ? "bench." : "bench/") + tag;
    velClient_destination_t dest = {queue ? VELCLIENT_QUEUE_DESTINATION : VELCLIENT_TOPIC_DESTINATION, name.c_str()};
    if (queue)
        check(velClient_session_queueSubscribe(subscriber, name.c_str()), "session_queueSubscribe");
    else
        check(velClient_session_topicSubscribe(subscriber, name.c_str()), "session_topicSubscribe");
    confirm(publisher, dest, in, settings);

    Message msg;
    check(velClient_msg_setDestination(msg, &dest, sizeof dest), "msg_setDestination");
    check(velClient_msg_setDeliveryMode(msg, persistent ? VELCLIENT_DELIVERY_MODE_PERSISTENT
                                                        : VELCLIENT_DELIVERY_MODE_DIRECT),
          "msg_setDeliveryMode");
    check(velClient_msg_setBinaryAttachment(msg, payload(), kPayloadSize), "msg_setBinaryAttachment");
    auto start = Clock::now();
    for (long i = 0; i < count; ++i)
        check(velClient_session_sendMsg(publisher, msg), "session_sendMsg");
    Throughput result = throughputSince(start, count, in.messages, settings);
    if (persistent)
        awaitAcknowledged(out.acks, count + out.probes.count(), count, settings, "velclient", "acknowledgements");
    return result;
}

/* The requester's side of request/reply: each reply's callback times the
 * round trip and sends the next request. */
struct Requester {
    const Settings *settings = nullptr;
    velClient_opaqueSession_pt session = nullptr;
    velClient_opaqueMsg_pt request = nullptr;
    Counts counts;
    Latency latency;
    long done = 0;
    Clock::time_point sentAt;

    void send()
    {
        char id[32];
        std::snprintf(id, sizeof id, "req-%ld", done);
        check(velClient_msg_setCorrelationId(request, id), "msg_setCorrelationId");
        sentAt = Clock::now();
        check(velClient_session_sendMsg(session, request), "session_sendMsg (request)");
    }
};

velClient_rxMsgCallback_returnCode_t onReply(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user)
{
    auto *r = static_cast<Requester *>(user);
    if (!hasAttachment(msg)) {
        r->counts.probes.add();
        return VELCLIENT_CALLBACK_OK;
    }
    auto now = Clock::now();
    if (r->done >= r->settings->warmup)
        r->latency.samples.push_back(std::chrono::duration<double, std::micro>(now - r->sentAt).count());
    ++r->done;
    try {
        if (r->done < r->settings->warmup + r->settings->requests)
            r->send();
    } catch (const Failure &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
    }
    r->counts.messages.add();
    return VELCLIENT_CALLBACK_OK;
}

/* The responder answers each request to its reply-to with its correlation id. */
struct Responder {
    Counts counts;
    velClient_opaqueMsg_pt reply = nullptr;
};

velClient_rxMsgCallback_returnCode_t onRequest(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg,
                                               void *user)
{
    auto *r = static_cast<Responder *>(user);
    if (!hasAttachment(msg)) {
        r->counts.probes.add();
        return VELCLIENT_CALLBACK_OK;
    }
    velClient_destination_t replyTo;
    const char *id = nullptr;
    if (velClient_msg_getReplyTo(msg, &replyTo, sizeof replyTo) != VELCLIENT_OK ||
        velClient_msg_getCorrelationId(msg, &id) != VELCLIENT_OK ||
        velClient_msg_setDestination(r->reply, &replyTo, sizeof replyTo) != VELCLIENT_OK ||
        velClient_msg_setCorrelationId(r->reply, id) != VELCLIENT_OK ||
        velClient_session_sendMsg(session, r->reply) != VELCLIENT_OK)
        std::fprintf(stderr, "velclient: responder: %s\n", velClient_getLastErrorInfo()->errorStr);
    r->counts.messages.add();
    return VELCLIENT_CALLBACK_OK;
}

Latency requestReply(const Settings &settings, const std::string &tag)
{
    Requester requester;
    requester.settings = &settings;
    Responder responder;
    Message reply, request;
    responder.reply = reply;
    check(velClient_msg_setBinaryAttachment(reply, payload(), kPayloadSize), "msg_setBinaryAttachment");
    Session answering(settings, "rsp-" + tag, onRequest, &responder);
    Session asking(settings, "req-" + tag, onReply, &requester);
    requester.session = asking;
    requester.request = request;

    std::string topic = "bench/" + tag + "/request";
    velClient_destination_t requests = {VELCLIENT_TOPIC_DESTINATION, topic.c_str()};
    check(velClient_session_topicSubscribe(answering, topic.c_str()), "session_topicSubscribe");
    confirm(asking, requests, responder.counts, settings);
    check(velClient_msg_setReplyToSuffix(request, asking, "bench"), "msg_setReplyToSuffix");
    velClient_destination_t inbox;
    check(velClient_msg_getReplyTo(request, &inbox, sizeof inbox), "msg_getReplyTo");
    confirm(asking, inbox, requester.counts, settings);

    check(velClient_msg_setDestination(request, &requests, sizeof requests), "msg_setDestination");
    check(velClient_msg_setBinaryAttachment(request, payload(), kPayloadSize), "msg_setBinaryAttachment");
    requester.send();
    if (!requester.counts.messages.waitFor(settings.warmup + settings.requests, settings.stall))
        throw Failure("velclient: request/reply stalled after " + std::to_string(requester.counts.messages.count()) + " rounds");
    return std::move(requester.latency);
}

} // namespace

const Contender kVelclient = {"velclient", publish, requestReply};

} // namespace velbench
