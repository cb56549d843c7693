/* The broker the AMQP broker tests share: a throwaway RabbitMQ with its AMQP
 * 1.0 plugin (scripts/broker.sh) and a TLS listener, and the collecting
 * client session of support/brokerClient.h on the amqp transport. */
#pragma once

#include "support/brokerClient.h"

namespace veltest::broker {

/* The broker's TLS listener, whose certificate names 127.0.0.1 and localhost,
 * and the files of the run's certificates: "ca.pem" signed it, "other-ca.pem"
 * signed nothing. */
int tlsPort();
std::string tlsFile(const char *name);

} // namespace veltest::broker
