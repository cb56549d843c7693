/* The plain Proton-C sender of the broker tests (see foreignSender.h). */
#include "broker/foreignSender.h"

#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/session.h>
#include <proton/terminus.h>

#include <vector>

#include "broker/brokerFixture.h"

namespace veltest::broker {

pn_link_t *openForeignLink(pn_connection_t *connection, const char *name, bool sending, const std::string &address,
                           bool durable)
{
    pn_connection_set_container(connection, name);
    pn_connection_open(connection);
    pn_session_t *session = pn_session(connection);
    pn_session_open(session);
    pn_link_t *link = sending ? pn_sender(session, name) : pn_receiver(session, name);
    pn_terminus_t *terminus = sending ? pn_link_target(link) : pn_link_source(link);
    pn_terminus_set_address(terminus, address.c_str());
    if (durable)
        pn_terminus_set_durability(terminus, PN_CONFIGURATION);
    pn_link_open(link);
    return link;
}

bool sendForeign(const std::string &address, const std::function<void(pn_message_t *)> &fill)
{
    pn_message_t *message = pn_message();
    fill(message);
    std::vector<char> bytes(1 << 16);
    size_t size = bytes.size();
    bool encoded = pn_message_encode(message, bytes.data(), &size) == 0;
    pn_message_free(message);
    if (!encoded)
        return false;
    pn_proactor_t *proactor = pn_proactor();
    char addr[PN_MAX_ADDR];
    pn_proactor_addr(addr, sizeof addr, "127.0.0.1", std::to_string(port()).c_str());
    pn_proactor_connect2(proactor, nullptr, nullptr, addr);
    pn_proactor_set_timeout(proactor, 20000);
    bool sent = false, done = false;
    while (!done) {
        pn_event_batch_t *batch = pn_proactor_wait(proactor);
        while (pn_event_t *e = pn_event_batch_next(batch)) {
            switch (pn_event_type(e)) {
            case PN_CONNECTION_INIT:
                openForeignLink(pn_event_connection(e), "velclient-foreign-sender", true, address, true);
                break;
            case PN_LINK_FLOW: {
                pn_link_t *l = pn_event_link(e);
                if (!sent && pn_link_credit(l) > 0) {
                    pn_delivery_t *d = pn_delivery(l, pn_dtag("1", 1));
                    pn_link_send(l, bytes.data(), size);
                    pn_link_advance(l);
                    pn_delivery_settle(d);
                    sent = true;
                    pn_connection_close(pn_event_connection(e));
                }
                break;
            }
            case PN_TRANSPORT_CLOSED:
            case PN_PROACTOR_TIMEOUT: done = true; break;
            default: break;
            }
        }
        pn_proactor_done(proactor, batch);
    }
    pn_proactor_free(proactor);
    return sent;
}

} // namespace veltest::broker
