/* The plain Proton-C receiver of the broker tests (see foreignReader.h). */
#include "broker/foreignReader.h"

#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/disposition.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/proactor.h>

#include "broker/brokerFixture.h"
#include "broker/foreignSender.h"

namespace veltest::broker {

ForeignReader::ForeignReader(const std::string &address, bool queue)
    : address_(address), queue_(queue), proactor_(pn_proactor())
{
    char addr[PN_MAX_ADDR];
    pn_proactor_addr(addr, sizeof addr, "127.0.0.1", std::to_string(port()).c_str());
    connection_ = pn_connection();
    pn_proactor_connect2(proactor_, connection_, nullptr, addr);
    thread_ = std::thread(&ForeignReader::run, this);
}

ForeignReader::~ForeignReader()
{
    /* The wake closes the connection; the broker's answer, or 5 s, ends the loop. */
    {
        std::lock_guard lock(mutex_);
        if (!closed_)
            pn_connection_wake(connection_);
    }
    thread_.join();
    pn_proactor_free(proactor_);
}

bool ForeignReader::waitAttached(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return attached_; });
}

std::vector<std::string> ForeignReader::waitMessages(std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
    return received_;
}

void ForeignReader::run()
{
    while (!done_) {
        pn_event_batch_t *batch = pn_proactor_wait(proactor_);
        while (pn_event_t *event = pn_event_batch_next(batch))
            handle(event);
        pn_proactor_done(proactor_, batch);
    }
}

void ForeignReader::handle(pn_event_t *event)
{
    switch (pn_event_type(event)) {
    case PN_CONNECTION_INIT:
        pn_link_flow(openForeignLink(connection_, "velclient-foreign-reader", false, address_, queue_), 100);
        break;
    case PN_LINK_REMOTE_OPEN: {
        std::lock_guard lock(mutex_);
        attached_ = true;
        changed_.notify_all();
        break;
    }
    case PN_DELIVERY: {
        pn_delivery_t *delivery = pn_event_delivery(event);
        if (!pn_delivery_readable(delivery) || pn_delivery_partial(delivery))
            break;
        std::string bytes(pn_delivery_pending(delivery), '\0');
        pn_link_recv(pn_delivery_link(delivery), bytes.data(), bytes.size());
        pn_link_advance(pn_delivery_link(delivery));
        pn_delivery_update(delivery, PN_ACCEPTED);
        pn_delivery_settle(delivery);
        std::lock_guard lock(mutex_);
        received_.push_back(std::move(bytes));
        changed_.notify_all();
        break;
    }
    case PN_CONNECTION_WAKE:
        pn_connection_close(connection_);
        pn_proactor_set_timeout(proactor_, 5000);
        break;
    case PN_PROACTOR_TIMEOUT: pn_proactor_disconnect(proactor_, nullptr); break;
    case PN_TRANSPORT_CLOSED: {
        std::lock_guard lock(mutex_);
        closed_ = done_ = true;
        break;
    }
    default: break;
    }
}

} // namespace veltest::broker
