/* A plain Qpid Proton-C client on the test broker, to see what this library
 * sends as any other AMQP 1.0 client sees it and to send what this library
 * never would. Its events are handled on the test's thread, in pump(). */
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <proton/message.h>
#include <proton/proactor.h>

namespace veltest::broker {

class AmqpPeer {
public:
    /* A link to address (sending) or from it, which accepts every message and
     * keeps its encoded bytes; durable asks for a durable terminus, as this
     * library does for queues. */
    AmqpPeer(const std::string &address, bool sending, bool durable);
    ~AmqpPeer();
    AmqpPeer(const AmqpPeer &) = delete;
    AmqpPeer &operator=(const AmqpPeer &) = delete;

    /* Handles events until done() holds, or for at most timeout; done(). */
    bool pump(const std::function<bool()> &done, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    /* Sends the message that fill builds, pre-settled, once the link has credit; false when it could not. */
    bool send(const std::function<void(pn_message_t *)> &fill);

    bool attached = false; /* the broker has answered the attach: a topic routes to it from then on */
    std::vector<std::string> received;

private:
    void handle(pn_event_t *event);

    std::string address_;
    bool sending_, durable_;
    pn_proactor_t *proactor_;
    pn_connection_t *connection_;
    pn_link_t *link_ = nullptr;
    std::vector<char> pending_; /* the encoded message to send */
    bool closing_ = false, closed_ = false;
};

} // namespace veltest::broker
