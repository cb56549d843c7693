/* The plain Proton-C client of the AMQP tests (see amqpPeer.h). */
#include "broker/amqpPeer.h"

#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/disposition.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include <thread>

#include "support/brokerSupport.h"

namespace veltest::broker {

AmqpPeer::AmqpPeer(const std::string &address, bool sending, bool durable)
    : address_(address), sending_(sending), durable_(durable), proactor_(pn_proactor()), connection_(pn_connection())
{
    char addr[PN_MAX_ADDR];
    pn_proactor_addr(addr, sizeof addr, "127.0.0.1", std::to_string(broker().port).c_str());
    pn_proactor_connect2(proactor_, connection_, nullptr, addr);
}

AmqpPeer::~AmqpPeer()
{
    /* The wake closes the connection; the broker's answer, or 5 s, ends the wait. */
    closing_ = true;
    pn_connection_wake(connection_);
    pump([this] { return closed_; }, std::chrono::seconds(5));
    pn_proactor_free(proactor_);
}

bool AmqpPeer::pump(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done() && !closed_ && std::chrono::steady_clock::now() < deadline) {
        pn_event_batch_t *batch = pn_proactor_get(proactor_);
        if (batch == nullptr) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        while (pn_event_t *event = pn_event_batch_next(batch))
            handle(event);
        pn_proactor_done(proactor_, batch);
    }
    return done();
}

bool AmqpPeer::send(const std::function<void(pn_message_t *)> &fill)
{
    pn_message_t *message = pn_message();
    fill(message);
    pending_.resize(1 << 16);
    size_t size = pending_.size();
    const bool encoded = pn_message_encode(message, pending_.data(), &size) == 0;
    pn_message_free(message);
    pending_.resize(encoded ? size : 0);
    pn_connection_wake(connection_);
    return encoded && pump([this] { return pending_.empty(); });
}

void AmqpPeer::handle(pn_event_t *event)
{
    switch (pn_event_type(event)) {
    case PN_CONNECTION_INIT: {
        pn_connection_set_container(connection_, "velclient-plain-peer");
        pn_connection_open(connection_);
        pn_session_t *session = pn_session(connection_);
        pn_session_open(session);
        link_ = sending_ ? pn_sender(session, "velclient-plain-peer") : pn_receiver(session, "velclient-plain-peer");
        pn_terminus_t *terminus = sending_ ? pn_link_target(link_) : pn_link_source(link_);
        pn_terminus_set_address(terminus, address_.c_str());
        if (durable_)
            pn_terminus_set_durability(terminus, PN_CONFIGURATION);
        pn_link_open(link_);
        if (!sending_)
            pn_link_flow(link_, 100);
        break;
    }
    case PN_LINK_REMOTE_OPEN: attached = true; break;
    case PN_CONNECTION_WAKE:
    case PN_LINK_FLOW:
        if (closing_) {
            pn_connection_close(connection_);
        } else if (sending_ && !pending_.empty() && pn_link_credit(link_) > 0) {
            pn_delivery_t *d = pn_delivery(link_, pn_dtag("1", 1));
            pn_link_send(link_, pending_.data(), pending_.size());
            pn_link_advance(link_);
            pn_delivery_settle(d);
            pending_.clear();
        }
        break;
    case PN_DELIVERY: {
        pn_delivery_t *delivery = pn_event_delivery(event);
        if (sending_ || !pn_delivery_readable(delivery) || pn_delivery_partial(delivery))
            break;
        std::string bytes(pn_delivery_pending(delivery), '\0');
        pn_link_recv(link_, bytes.data(), bytes.size());
        pn_link_advance(link_);
        pn_delivery_update(delivery, PN_ACCEPTED);
        pn_delivery_settle(delivery);
        received.push_back(std::move(bytes));
        break;
    }
    case PN_TRANSPORT_CLOSED: closed_ = true; break;
    default: break;
    }
}

} // namespace veltest::broker
