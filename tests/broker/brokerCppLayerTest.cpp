/* The C++ layer on a broker session: connect, a queue subscription with client
 * acknowledgement, events through a std::function, a message kept by moving
 * it out of the receive callback, and an exception thrown on the I/O thread
 * coming out of the next send. */
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "broker/brokerFixture.h"
#include "velclient/velClient.hpp"

namespace vc = velclient;

TEST(BrokerCppLayer, SubscribeSendAcknowledgeAndEvents)
{
    const std::string queue = veltest::broker::unique("cpp-q"), hostText = veltest::broker::host();
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
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return !kept.empty() && events.size() >= 2; }));
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
    lock.lock();
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return events.size() >= 3; }));
    lock.unlock();
    /* The callback keeps its exception just after it has counted the event:
     * direct sends, which raise no event, go until one rethrows it. */
    m.set_delivery_mode(VELCLIENT_DELIVERY_MODE_DIRECT);
    bool thrown = false;
    for (int i = 0; i < 400 && !thrown; ++i) {
        try {
            sender.send(m);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } catch (const std::runtime_error &) {
            thrown = true;
        }
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(VELCLIENT_OK, sender.send(m)); /* once */
    sender.disconnect();
    receiver.unsubscribe_queue(queue);
}
