/* A plain Qpid Proton-C client, for messages that this library would never
 * send: it connects to the test broker, sends one message to an address
 * pre-settled, and closes. */
#pragma once

#include <functional>
#include <string>

struct pn_message_t;

namespace veltest::broker {

/* Sends the message that fill builds to address; false when the broker could
 * not be reached or the send did not complete within 20 s. */
bool sendForeign(const std::string &address, const std::function<void(pn_message_t *)> &fill);

} // namespace veltest::broker
