/*
 * example_broker.c - four sessions on a broker, AMQP 1.0 or MQTT 5:
 *   publish/subscribe: "subscriber" listens on prices/<any region>/widgets
 *     through a one-level wildcard; "publisher" sends two persistent prices
 *     with a user property and waits until the broker acknowledges both;
 *   request/reply: "requester" asks on quotes/request with a correlation id and
 *     a reply-to in its own inbox; "responder" answers to that reply-to.
 * Callbacks run on each session's I/O thread; main waits for them with a
 * mutex and a condition variable, never longer than a few seconds.
 *
 * Usage: example_broker [host[:port] [amqp|mqtt]]
 *   host defaults to 127.0.0.1 (port 5672 for amqp, 1883 for mqtt), the
 *   transport to amqp; the environment variable VELCLIENT_EXAMPLE_TRANSPORT
 *   gives the transport when the second argument does not.
 * The same calls work on both transports; only "SESSION_TRANSPORT" differs.
 * Client names must be unique on an MQTT broker (a second connection with a
 * name takes the first one's place), so each is the peer's name and the pid.
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "velclient/velClientMsg.h"

#include "exampleCheck.h"

/* One session, what its callbacks have counted (guarded by lock_s) and what it does with a message. */
typedef struct Peer {
    const char *name;
    int (*handle)(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg);
    velClient_opaqueSession_pt session;
    int messages, acks;
} Peer;

static pthread_mutex_t lock_s = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed_s = PTHREAD_COND_INITIALIZER;
static int failures_s = 0;
static const char *host_s = "127.0.0.1";
static const char *transport_s = "amqp";

static void count(int *counter)
{
    pthread_mutex_lock(&lock_s);
    ++*counter;
    pthread_cond_broadcast(&changed_s);
    pthread_mutex_unlock(&lock_s);
}

/* Waits up to ms milliseconds until *counter reaches want; 0 when it does, 1 on time-out or a failure. */
static int waitFor(const int *counter, int want, long ms)
{
    struct timespec until;
    int reached;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += ms / 1000 + (until.tv_nsec + ms % 1000 * 1000000L) / 1000000000L;
    until.tv_nsec = (until.tv_nsec + ms % 1000 * 1000000L) % 1000000000L;
    pthread_mutex_lock(&lock_s);
    while (*counter < want && failures_s == 0 && pthread_cond_timedwait(&changed_s, &lock_s, &until) == 0)
        ;
    reached = *counter >= want && failures_s == 0;
    pthread_mutex_unlock(&lock_s);
    return reached ? 0 : 1;
}

/* The subscriber prints each price with its destination and user property. */
static int printPrice(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg)
{
    velClient_destination_t dest;
    velClient_opaqueContainer_pt props = NULL;
    const char *price = NULL, *currency = NULL;
    (void)session;
    CHECK(velClient_msg_getDestination(msg, &dest, sizeof dest));
    CHECK(velClient_msg_getBinaryAttachmentString(msg, &price));
    CHECK(velClient_msg_getUserPropertyMap(msg, &props));
    CHECK(velClient_container_getStringPtr(props, &currency, "currency"));
    printf("subscriber: %s costs %s %s\n", dest.dest, price, currency);
    CHECK(velClient_container_closeMapStream(&props));
    return 0;
}

/* The responder answers to the request's reply-to with the request's correlation id. */
static int answer(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt request)
{
    velClient_destination_t replyTo;
    const char *id = NULL;
    velClient_opaqueMsg_pt reply = NULL;
    CHECK(velClient_msg_getReplyTo(request, &replyTo, sizeof replyTo));
    CHECK(velClient_msg_getCorrelationId(request, &id));
    printf("responder: request %s, answering to %s\n", id, replyTo.dest);
    CHECK(velClient_msg_alloc(&reply));
    CHECK(velClient_msg_setDestination(reply, &replyTo, sizeof replyTo));
    CHECK(velClient_msg_setCorrelationId(reply, id));
    CHECK(velClient_msg_setBinaryAttachmentString(reply, "widgets at 12.40 EUR until noon"));
    CHECK(velClient_session_sendMsg(session, reply));
    CHECK(velClient_msg_free(&reply));
    return 0;
}

/* The requester prints the reply with its correlation id and the inbox suffix it came to. */
static int printReply(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt reply)
{
    const char *id = NULL, *suffix = NULL, *text = NULL;
    CHECK(velClient_msg_getCorrelationId(reply, &id));
    CHECK(velClient_msg_getDestinationTopicSuffix(reply, session, &suffix));
    CHECK(velClient_msg_getBinaryAttachmentString(reply, &text));
    printf("requester: reply to %s in inbox '%s': %s\n", id, suffix, text);
    return 0;
}

/* Each message goes to the peer's handler (the library frees the message after). */
static velClient_rxMsgCallback_returnCode_t onMessage(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg,
                                                      void *user)
{
    Peer *peer = user;
    if (peer->handle != NULL && peer->handle(session, msg) == 0)
        count(&peer->messages);
    else
        count(&failures_s);
    return VELCLIENT_CALLBACK_OK;
}

/* Acknowledgements are counted; refusals and a lost connection end the example. */
static void onEvent(velClient_opaqueSession_pt session, velClient_session_eventCallbackInfo_pt info, void *user)
{
    Peer *peer = user;
    (void)session;
    if (info->event == VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT) {
        count(&peer->acks);
    } else if (info->event == VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR ||
               info->event == VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR ||
               info->event == VELCLIENT_SESSION_EVENT_DOWN_ERROR) {
        fprintf(stderr, "%s: %s: %s\n", peer->name, velClient_session_eventToString(info->event), info->info_p);
        count(&failures_s);
    }
}

/* Creates the peer's broker session and connects it. */
static int openSession(Peer *peer)
{
    const char *props[] = {"SESSION_TRANSPORT", NULL, "SESSION_HOST", NULL, "SESSION_CLIENT_NAME", NULL,
                           "SESSION_CONNECT_TIMEOUT_MS", "3000", "SESSION_SEND_TIMEOUT_MS", "3000", NULL};
    char clientName[64];
    snprintf(clientName, sizeof clientName, "%s-%ld", peer->name, (long)getpid());
    props[1] = transport_s;
    props[3] = host_s;
    props[5] = clientName;
    CHECK(velClient_session_create(props, onMessage, peer, &peer->session));
    CHECK(velClient_session_setEventCallback(peer->session, onEvent, peer));
    CHECK(velClient_session_connect(peer->session));
    return 0;
}

/* A persistent price with a user property; the broker acknowledges it with an event. */
static int publishPrice(Peer *publisher, const char *topic, const char *price, const char *currency)
{
    velClient_destination_t dest = {VELCLIENT_TOPIC_DESTINATION, topic};
    velClient_opaqueMsg_pt msg = NULL;
    velClient_opaqueContainer_pt props = NULL;
    CHECK(velClient_msg_alloc(&msg));
    CHECK(velClient_msg_setDestination(msg, &dest, sizeof dest));
    CHECK(velClient_msg_setDeliveryMode(msg, VELCLIENT_DELIVERY_MODE_PERSISTENT));
    CHECK(velClient_msg_createUserPropertyMap(msg, &props, 64));
    CHECK(velClient_container_addString(props, currency, "currency"));
    CHECK(velClient_container_closeMapStream(&props));
    CHECK(velClient_msg_setBinaryAttachmentString(msg, price));
    CHECK(velClient_session_sendMsg(publisher->session, msg));
    CHECK(velClient_msg_free(&msg));
    return 0;
}

/* A request to quotes/request whose reply goes to the requester's inbox, suffix "quotes". */
static int sendRequest(Peer *requester)
{
    velClient_destination_t dest = {VELCLIENT_TOPIC_DESTINATION, "quotes/request"};
    velClient_opaqueMsg_pt msg = NULL;
    CHECK(velClient_msg_alloc(&msg));
    CHECK(velClient_msg_setDestination(msg, &dest, sizeof dest));
    CHECK(velClient_msg_setReplyToSuffix(msg, requester->session, "quotes"));
    CHECK(velClient_msg_setCorrelationId(msg, "quote-42"));
    CHECK(velClient_msg_setBinaryAttachmentString(msg, "price of widgets?"));
    CHECK(velClient_session_sendMsg(requester->session, msg));
    CHECK(velClient_msg_free(&msg));
    return 0;
}

static int run(Peer *publisher, Peer *subscriber, Peer *requester, Peer *responder)
{
    if (openSession(publisher) || openSession(subscriber) || openSession(requester) || openSession(responder))
        return 1;

    /* Publish/subscribe: "*" matches exactly one level, so both prices reach the subscriber.
     * A subscribe returns once the broker has confirmed it: what is published afterwards arrives. */
    CHECK(velClient_session_topicSubscribe(subscriber->session, "prices/*/widgets"));
    if (publishPrice(publisher, "prices/eu/widgets", "12.50", "EUR") ||
        publishPrice(publisher, "prices/us/widgets", "13.75", "USD"))
        return 1;
    if (waitFor(&publisher->acks, 2, 3000)) {
        fprintf(stderr, "the broker did not acknowledge both prices\n");
        return 1;
    }
    printf("publisher: the broker acknowledged both prices\n");
    if (waitFor(&subscriber->messages, 2, 3000)) {
        fprintf(stderr, "the subscriber did not get both prices\n");
        return 1;
    }

    /* Request/reply: the requester's inbox was subscribed when it connected. */
    CHECK(velClient_session_topicSubscribe(responder->session, "quotes/request"));
    if (sendRequest(requester))
        return 1;
    if (waitFor(&requester->messages, 1, 3000)) {
        fprintf(stderr, "no reply came\n");
        return 1;
    }
    return 0;
}

int main(int argc, char **argv)
{
    Peer publisher = {.name = "publisher"}, subscriber = {.name = "subscriber", .handle = printPrice};
    Peer requester = {.name = "requester", .handle = printReply}, responder = {.name = "responder", .handle = answer};
    Peer *all[] = {&publisher, &subscriber, &requester, &responder};
    int failed, i;

    if (argc > 1)
        host_s = argv[1];
    if (argc > 2)
        transport_s = argv[2];
    else if (getenv("VELCLIENT_EXAMPLE_TRANSPORT") != NULL)
        transport_s = getenv("VELCLIENT_EXAMPLE_TRANSPORT");
    if (strcmp(transport_s, "amqp") != 0 && strcmp(transport_s, "mqtt") != 0) {
        fprintf(stderr, "usage: %s [host[:port] [amqp|mqtt]]\n", argv[0]);
        return 2;
    }
    CHECK(velClient_initialize(VELCLIENT_LOG_ERROR, NULL));
    failed = run(&publisher, &subscriber, &requester, &responder);
    for (i = 0; i < 4; ++i) /* destroying a session disconnects it first */
        if (all[i]->session != NULL && velClient_session_destroy(&all[i]->session) != VELCLIENT_OK) {
            fprintf(stderr, "destroying %s: %s\n", all[i]->name, velClient_getLastErrorInfo()->errorStr);
            failed = 1;
        }
    CHECK(velClient_cleanup());
    return failed;
}
