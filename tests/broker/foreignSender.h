/* A plain Qpid Proton-C client, for messages that this library would never
 * send: it connects to the test broker, sends one message to an address
 * pre-settled, and closes; and the opening of a connection and link that it
 * shares with the plain reader. */
#pragma once

#include <functional>
#include <string>

struct pn_message_t;
struct pn_connection_t;
struct pn_link_t;

namespace veltest::broker {

/* Sends the message that fill builds to address; false when the broker could
 * not be reached or the send did not complete within 20 s. */
bool sendForeign(const std::string &address, const std::function<void(pn_message_t *)> &fill);

/* Opens connection (its container named name), a session and a link named
 * name: a sender to address or a receiver from it. durable asks for a durable
 * terminus, as this library does for queues. On the connection's INIT event. */
pn_link_t *openForeignLink(pn_connection_t *connection, const char *name, bool sending, const std::string &address,
                           bool durable);

} // namespace veltest::broker
