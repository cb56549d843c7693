/*
 * amqpTls.h - TLS for a broker connection: the client's SSL domain from the
 * session's trust store and validation setting, put on a Proton transport.
 */
#pragma once

#include <string>

#include "velClientSession/sessionPrivate.h"

struct pn_transport_t;

namespace vel::amqp {

/* Puts TLS on transport for host: the trust store (when given) holds the CAs,
 * and with validation on the chain and the host name are checked. False with
 * problem set when Proton refuses the settings. */
bool useTls(pn_transport_t *transport, const session::BrokerSettings &settings, const std::string &host,
            std::string &problem);

} // namespace vel::amqp
