/*
 * amqpTls.cpp - TLS for a broker connection (see amqpTls.h).
 */
#include "velClientAmqp/amqpTls.h"

#include <proton/ssl.h>

namespace vel::amqp {

bool useTls(pn_transport_t *transport, const session::BrokerSettings &settings, const std::string &host,
            std::string &problem)
{
    pn_ssl_domain_t *domain = pn_ssl_domain(PN_SSL_MODE_CLIENT);
    if (domain == nullptr) {
        problem = "TLS is not available";
        return false;
    }
    bool ok = true;
    if (!settings.trustStore.empty() && pn_ssl_domain_set_trusted_ca_db(domain, settings.trustStore.c_str()) != 0) {
        problem = "cannot read the trust store " + settings.trustStore;
        ok = false;
    }
    pn_ssl_verify_mode_t mode = settings.validateCertificate ? PN_SSL_VERIFY_PEER_NAME : PN_SSL_ANONYMOUS_PEER;
    if (ok && pn_ssl_domain_set_peer_authentication(domain, mode, nullptr) != 0) {
        problem = "cannot set the certificate validation";
        ok = false;
    }
    pn_ssl_t *ssl = ok ? pn_ssl(transport) : nullptr;
    if (ok && (ssl == nullptr || pn_ssl_init(ssl, domain, nullptr) != 0 ||
               pn_ssl_set_peer_hostname(ssl, host.c_str()) != 0)) {
        problem = "cannot start TLS";
        ok = false;
    }
    pn_ssl_domain_free(domain);
    return ok;
}

} // namespace vel::amqp
