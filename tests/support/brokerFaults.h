/* Network faults both transports must weather, made through the relay of
 * brokerProxy.h: each function is a whole test body, run by a test of each
 * broker-test executable with the destinations its transport has. */
#pragma once

#include <chrono>
#include <string>

namespace veltest::broker {

/* The connection reset amid 200 guaranteed sends to a queue (or a topic when
 * queue is false): it reconnects once, every message is acknowledged and
 * received (duplicates allowed), and the sender's topic subscription is back. */
void resetConnectionResendsAndRestores(bool queue);
/* A guaranteed message unacknowledged when the broker goes away for good: it
 * is refused ("session down", with its tag), DOWN_ERROR follows, and sends
 * then fail with SESSION_NOT_ESTABLISHED. */
void brokerThatStaysAwayEndsInDownError(bool queue);
/* A broker that stops answering is noticed (RECONNECTING) within `within`
 * with the keepalive asked, and the session comes back once it answers again. */
void silentBrokerIsNoticed(const std::string &keepaliveMs, std::chrono::seconds within);

} // namespace veltest::broker
