/* What only AMQP sessions have: queues with client acknowledgement, links
 * the broker refuses, a message no sender of this library would make, from a
 * plain AMQP 1.0 client, and the C++ layer on a broker session (its event
 * callback, acknowledgement, and an exception thrown in a callback). */
#include <proton/codec.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include "support/brokerSupport.h"
#include "support/velTestSupport.h"
#include "velclient/velClient.hpp"

namespace {

using namespace veltest::broker;

/* Sends to queue, as a plain Qpid Proton-C client, a message whose amqp-value body holds an int (no message of
 * this library has such a body), pre-settled once the broker gives credit, and closes the connection; false
 * when that did not happen within 20 s. */
bool sendIntBodyAsPlainClient(const std::string &queue)
{
    pn_message_t *message = pn_message();
    pn_data_put_int(pn_message_body(message), 7);
    pn_proactor_t *proactor = pn_proactor();
    pn_connection_t *connection = pn_connection();
    char addr[PN_MAX_ADDR];
    pn_proactor_addr(addr, sizeof addr, "127.0.0.1", std::to_string(broker().port).c_str());
    pn_proactor_connect2(proactor, connection, nullptr, addr);
    pn_link_t *link = nullptr;
    bool sent = false, closed = false;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!closed && std::chrono::steady_clock::now() < deadline) {
        pn_event_batch_t *batch = pn_proactor_get(proactor);
        while (pn_event_t *event = batch != nullptr ? pn_event_batch_next(batch) : nullptr) {
            if (pn_event_type(event) == PN_CONNECTION_INIT) {
                pn_connection_set_container(connection, "velclient-plain-peer");
                pn_connection_open(connection);
                pn_session_t *session = pn_session(connection);
                pn_session_open(session);
                link = pn_sender(session, "velclient-plain-peer");
                pn_terminus_set_address(pn_link_target(link), ("/queue/" + queue).c_str());
                pn_terminus_set_durability(pn_link_target(link), PN_CONFIGURATION); /* as this library's queues */
                pn_link_open(link);
            } else if (pn_event_type(event) == PN_LINK_FLOW && !sent && pn_link_credit(link) > 0) {
                pn_delivery_t *d = pn_delivery(link, pn_dtag("1", 1));
                sent = pn_message_send(message, link, nullptr) > 0;
                pn_delivery_settle(d);
                pn_connection_close(connection);
            }
            closed |= pn_event_type(event) == PN_TRANSPORT_CLOSED;
        }
        if (batch != nullptr)
            pn_proactor_done(proactor, batch);
        else
            std::this_thread::sleep_for(5ms);
    }
    pn_proactor_free(proactor);
    pn_message_free(message);
    return sent && closed;
}

TEST(AmqpQueues, ClientAcknowledgementKeepsWhatWasNotAcknowledged)
{
    const std::string queue = unique("ack-q");
    Client sender, first({"SESSION_RECEIVE_ACK_MODE", "client"});
    velClient_msgId_t ids[3] = {};
    first.onMessage = [&ids, n = 0](velClient_opaqueSession_pt, velClient_opaqueMsg_pt m) mutable {
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m, &ids[n++ % 3]));
    };
    ASSERT_TRUE(connectAll(sender, first));
    first.subscribe(queue, true);
    for (const char *body : {"one", "two", "three"})
        ASSERT_EQ(VELCLIENT_OK, send(sender, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, body));
    EXPECT_EQ((std::multiset<std::string>{"one", "two", "three"}), first.bodies(3));
    EXPECT_EQ(ids[0] + 1, ids[1]);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_ack(first.session(), ids[1]));
    for (velClient_msgId_t id : {ids[1], ids[2] + 100}) {
        velClient_resetLastErrorInfo();
        EXPECT_EQ(VELCLIENT_FAIL, velClient_session_ack(first.session(), id));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "No message with id " + std::to_string(id) +
                                                                    " awaits acknowledgement in velClient_session_ack");
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_session_disconnect(first.session()));
    /* The messages not acknowledged come back, marked redelivered; the acknowledged one does not. */
    Client second;
    second.onMessage = [](velClient_opaqueSession_pt, velClient_opaqueMsg_pt m) {
        EXPECT_TRUE(velClient_msg_isRedelivered(m));
    };
    ASSERT_TRUE(connectAll(second));
    second.subscribe(queue, true);
    EXPECT_EQ((std::multiset<std::string>{"one", "three"}), second.bodies(2));
    ASSERT_EQ(VELCLIENT_OK, velClient_session_disconnect(second.session()));
    /* Accepted automatically: nothing left for a third reader (one that takes no events). */
    Client third;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_setEventCallback(third.session(), nullptr, nullptr));
    ASSERT_TRUE(connectAll(third));
    third.subscribe(queue, true);
    EXPECT_FALSE(third.waitMessages(1, 500ms));
}

TEST(AmqpHostilePeers, ARefusedAttachAndAMessageThatDoesNotConvertAreReportedAndTrafficGoesOn)
{
    /* A prefix naming an exchange that does not exist makes every topic address a bad one. */
    Client bad({"SESSION_AMQP_TOPIC_PREFIX", "/exchange/velclient-missing/"});
    ASSERT_TRUE(connectAll(bad));
    const std::string queue = unique("hostile-q");
    bad.subscribe(queue, true);
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(bad.session(), "some/topic"));
    /* The inbox subscription is refused as well. */
    ASSERT_TRUE(bad.waitEvents(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, 2));
    EXPECT_TRUE(std::ranges::any_of(bad.events(VELCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR), [](const Event &e) {
        return e.info.rfind("/exchange/velclient-missing/some.topic", 0) == 0;
    }));
    /* A message to such a topic is refused with the sender's attach, its tag in the event. */
    static int tag;
    ASSERT_EQ(VELCLIENT_OK, send(bad, "some/topic", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "lost", &tag));
    ASSERT_TRUE(bad.waitEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 1));
    EXPECT_EQ(&tag, bad.events().back().correlation_p);
    EXPECT_EQ(0u, bad.events().back().info.rfind("/exchange/velclient-missing/some.topic: NOT_FOUND", 0))
        << bad.events().back().info;
    ASSERT_TRUE(sendIntBodyAsPlainClient(queue));
    /* The queue subscription goes on receiving. */
    ASSERT_EQ(VELCLIENT_OK, send(bad, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "good"));
    EXPECT_EQ(std::multiset<std::string>{"good"}, bad.bodies(1));
    /* Rejected, not left on the queue: a new reader finds nothing. */
    Client next;
    ASSERT_TRUE(connectAll(next));
    next.subscribe(queue, true);
    EXPECT_FALSE(next.waitMessages(1, 500ms));
}

namespace vc = velclient;

TEST(AmqpCppLayer, SubscribeSendAcknowledgeAndEvents)
{
    const std::string queue = unique("cpp-q"), hostText = broker().host();
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<vc::Message> kept;
    std::vector<vc::SessionEvent> events;
    bool throwNext = false;
    vc::Session receiver({{"SESSION_TRANSPORT", "amqp"}, {"SESSION_HOST", hostText.c_str()},
                          {"SESSION_RECEIVE_ACK_MODE", "client"}},
                         [&](vc::Message &m) {
                             std::lock_guard lock(mutex);
                             kept.push_back(std::move(m));
                             changed.notify_all();
                         });
    vc::Session sender({{"SESSION_TRANSPORT", "amqp"}, {"SESSION_HOST", hostText.c_str()}}, nullptr);
    sender.on_event([&](const vc::SessionEvent &e) {
        std::lock_guard lock(mutex);
        events.push_back(e);
        changed.notify_all();
        if (std::exchange(throwNext, false))
            throw std::runtime_error("from the event callback");
    });
    receiver.connect();
    sender.connect();
    receiver.subscribe_queue(queue);
    int tag = 0;
    vc::Message m = vc::Message::create();
    m.set_queue(queue);
    m.set_attachment("from C++");
    m.set_delivery_mode(VELCLIENT_DELIVERY_MODE_PERSISTENT);
    m.set_correlation_tag(&tag, 0);
    ASSERT_EQ(VELCLIENT_OK, sender.send(m));
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 20s, [&] { return !kept.empty() && events.size() >= 2; }));
    const vc::Bytes body = kept[0].attachment().value_or(vc::Bytes{});
    EXPECT_EQ("from C++", std::string(reinterpret_cast<const char *>(body.data), body.size));
    EXPECT_EQ(VELCLIENT_SESSION_EVENT_UP_NOTICE, events[0].event);
    EXPECT_EQ("UP_NOTICE", events[0].name());
    EXPECT_EQ(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, events[1].event); /* before throwNext, or it would throw */
    receiver.ack(kept[0]);
    EXPECT_THROW(receiver.ack(kept[0]), vc::Error); /* acknowledged already */
    /* The acknowledgement's callback throws on the I/O thread: the next send rethrows it, once. */
    throwNext = true;
    lock.unlock();
    ASSERT_EQ(VELCLIENT_OK, sender.send(m));
    /* Direct sends, which raise no event, go until one rethrows it. */
    m.set_delivery_mode(VELCLIENT_DELIVERY_MODE_DIRECT);
    bool thrown = false;
    for (int i = 0; i < 400 && !thrown; ++i) {
        try {
            sender.send(m);
            std::this_thread::sleep_for(5ms);
        } catch (const std::runtime_error &) {
            thrown = true;
        }
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(VELCLIENT_OK, sender.send(m)); /* once */
    sender.disconnect();
    receiver.unsubscribe_queue(queue);
}

} // namespace
