/*
 * sessionProperties.cpp - a session's properties: the name and value pairs
 * given at creation, checked and read into the record, with the defaults for
 * what they leave out (client name, inbox topic base, broker settings).
 */
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "velClientLog/logPrivate.h"
#include "velClientSession/sessionPrivate.h"

namespace {

using vel::session::BrokerSettings;

std::atomic<std::uint32_t> sessionCounter_s{0};

void defaultClientName(char (&name)[kSessionMaxTopic + 1])
{
    char host[64] = "localhost";
    gethostname(host, sizeof host - 1);
    host[sizeof host - 1] = '\0';
    std::snprintf(name, sizeof name, "%s/%d/%05u", host, static_cast<int>(getpid()),
                  static_cast<unsigned>(sessionCounter_s.fetch_add(1) + 1));
}

/* The property comes before the value, which may be long enough to be cut off. */
velClient_returnCode_t badValue(const char *name_p, const char *value_p)
{
    return VEL_FAIL_RANGE("Invalid value for property %s in velClient_session_create: '%s'", name_p,
                          value_p ? value_p : "(null)");
}

/* "1" or "0" into flag. */
velClient_returnCode_t readBool(const char *name_p, const char *value_p, bool &flag)
{
    if (value_p == nullptr || (std::strcmp(value_p, "1") != 0 && std::strcmp(value_p, "0") != 0))
        return badValue(name_p, value_p);
    flag = value_p[0] == '1';
    return VELCLIENT_OK;
}

/* A text of at most 250 characters into out. */
velClient_returnCode_t readText(const char *name_p, const char *value_p, char (&out)[kSessionMaxTopic + 1])
{
    if (value_p == nullptr || std::strlen(value_p) > kSessionMaxTopic)
        return badValue(name_p, value_p);
    std::strcpy(out, value_p);
    return VELCLIENT_OK;
}

/* A decimal number from low to high, digits only (a leading '-' allowed). */
bool parseNumber(const char *text, std::int64_t low, std::int64_t high, std::int64_t &out)
{
    if (text == nullptr || text[0] == '\0' || (text[0] != '-' && (text[0] < '0' || text[0] > '9')))
        return false;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high)
        return false;
    out = v;
    return true;
}

/* One entry "host" or "host:port" of the host list ([v6address]:port too). */
bool parseHost(std::string_view entry, vel::session::BrokerHost &host)
{
    std::size_t colon = entry.rfind(':');
    bool bracketed = !entry.empty() && entry.front() == '[';
    if (bracketed && (colon == std::string_view::npos || colon < entry.find(']')))
        colon = std::string_view::npos;
    else if (!bracketed && colon != entry.find(':'))
        return false; /* a bare IPv6 address needs brackets */
    host.name = std::string(entry.substr(0, colon));
    host.port = 0;
    if (colon != std::string_view::npos) {
        std::int64_t port = 0;
        if (!parseNumber(std::string(entry.substr(colon + 1)).c_str(), 1, 65535, port))
            return false;
        host.port = static_cast<std::uint16_t>(port);
    }
    if (bracketed && (host.name.size() < 3 || host.name.back() != ']'))
        return false;
    if (bracketed)
        host.name = host.name.substr(1, host.name.size() - 2);
    return !host.name.empty() && host.name.find_first_of(" \t,") == std::string::npos;
}

bool parseHostList(const char *text, std::vector<vel::session::BrokerHost> &hosts)
{
    std::vector<vel::session::BrokerHost> parsed;
    std::string_view rest = text;
    while (true) {
        std::size_t comma = rest.find(',');
        vel::session::BrokerHost host;
        if (!parseHost(rest.substr(0, comma), host))
            return false;
        parsed.push_back(std::move(host));
        if (comma == std::string_view::npos)
            break;
        rest.remove_prefix(comma + 1);
    }
    hosts = std::move(parsed);
    return true;
}

/* The broker properties that hold a number: name, range, member. */
struct NumberProperty {
    const char *name;
    std::int64_t low;
    std::int64_t high;
    std::int64_t BrokerSettings::*value;
};
constexpr std::int64_t kMaxMs = 24LL * 3600 * 1000;
constexpr NumberProperty kNumbers[] = {
    {"SESSION_CONNECT_TIMEOUT_MS", 1, kMaxMs, &BrokerSettings::connectTimeoutMs},
    {"SESSION_RECONNECT_RETRIES", -1, 1000000000, &BrokerSettings::reconnectRetries},
    {"SESSION_RECONNECT_RETRY_WAIT_MS", 0, kMaxMs, &BrokerSettings::reconnectRetryWaitMs},
    {"SESSION_KEEPALIVE_MS", 0, kMaxMs, &BrokerSettings::keepaliveMs},
    {"SESSION_SEND_TIMEOUT_MS", 0, kMaxMs, &BrokerSettings::sendTimeoutMs},
};

struct BoolProperty {
    const char *name;
    bool BrokerSettings::*flag;
};
constexpr BoolProperty kBrokerBools[] = {
    {"SESSION_SSL", &BrokerSettings::ssl},
    {"SESSION_SSL_VALIDATE_CERTIFICATE", &BrokerSettings::validateCertificate},
    {"SESSION_SEND_BLOCKING", &BrokerSettings::sendBlocking},
};

/* The broker properties that hold free text; the AMQP address parts may not be empty. */
struct TextProperty {
    const char *name;
    std::string BrokerSettings::*text;
    std::string vel::amqp::Addressing::*rule;
};
constexpr TextProperty kTexts[] = {
    {"SESSION_USERNAME", &BrokerSettings::userName, nullptr},
    {"SESSION_PASSWORD", &BrokerSettings::password, nullptr},
    {"SESSION_SSL_TRUST_STORE", &BrokerSettings::trustStore, nullptr},
    {"SESSION_AMQP_TOPIC_PREFIX", nullptr, &vel::amqp::Addressing::topicPrefix},
    {"SESSION_AMQP_QUEUE_PREFIX", nullptr, &vel::amqp::Addressing::queuePrefix},
    {"SESSION_AMQP_LEVEL_SEPARATOR", nullptr, &vel::amqp::Addressing::levelSeparator},
    {"SESSION_AMQP_WILDCARD_ONE", nullptr, &vel::amqp::Addressing::wildcardOne},
    {"SESSION_AMQP_WILDCARD_MORE", nullptr, &vel::amqp::Addressing::wildcardMore},
};

/* A broker property into b; false when name is not one. */
bool applyBrokerProperty(BrokerSettings &b, const char *name_p, const char *value_p, velClient_returnCode_t &rc)
{
    rc = VELCLIENT_OK;
    for (const NumberProperty &p : kNumbers)
        if (std::strcmp(name_p, p.name) == 0) {
            if (!parseNumber(value_p, p.low, p.high, b.*p.value))
                rc = badValue(name_p, value_p);
            return true;
        }
    for (const BoolProperty &p : kBrokerBools)
        if (std::strcmp(name_p, p.name) == 0) {
            rc = readBool(name_p, value_p, b.*p.flag);
            return true;
        }
    for (const TextProperty &p : kTexts)
        if (std::strcmp(name_p, p.name) == 0) {
            if (value_p == nullptr || (p.rule != nullptr && value_p[0] == '\0'))
                rc = badValue(name_p, value_p);
            else
                (p.rule != nullptr ? b.addressing.*p.rule : b.*p.text) = value_p;
            return true;
        }
    if (std::strcmp(name_p, "SESSION_HOST") == 0) {
        if (value_p == nullptr || !parseHostList(value_p, b.hosts))
            rc = badValue(name_p, value_p);
        return true;
    }
    if (std::strcmp(name_p, "SESSION_PUB_WINDOW_SIZE") == 0) {
        std::int64_t window = 0;
        if (!parseNumber(value_p, 1, 255, window))
            rc = badValue(name_p, value_p);
        b.pubWindowSize = static_cast<std::uint32_t>(window);
        return true;
    }
    if (std::strcmp(name_p, "SESSION_RECEIVE_ACK_MODE") == 0) {
        if (value_p != nullptr && (std::strcmp(value_p, "auto") == 0 || std::strcmp(value_p, "client") == 0))
            b.clientAck = value_p[0] == 'c';
        else
            rc = badValue(name_p, value_p);
        return true;
    }
    return false;
}

velClient_returnCode_t readTransport(_velClient_session &s, const char *name_p, const char *value_p)
{
    static constexpr struct {
        const char *name;
        _velClient_transport transport;
    } kTransports[] = {{"loopback", _velClient_transport::loopback},
                       {"null", _velClient_transport::drop},
                       {"amqp", _velClient_transport::amqp},
                       {"mqtt", _velClient_transport::mqtt}};
    for (const auto &t : kTransports)
        if (value_p != nullptr && std::strcmp(value_p, t.name) == 0) {
            s.transport = t.transport;
            return VELCLIENT_OK;
        }
    return badValue(name_p, value_p);
}

velClient_returnCode_t applyProperty(_velClient_session &s, const char *name_p, const char *value_p,
                                     bool &topicBaseGiven)
{
    struct SessionBool {
        const char *name;
        bool _velClient_session::*flag;
    };
    static constexpr SessionBool kBools[] = {
        {"SESSION_GENERATE_SEND_TIMESTAMPS", &_velClient_session::genSendTimestamps},
        {"SESSION_GENERATE_SENDER_ID", &_velClient_session::genSenderId},
        {"SESSION_GENERATE_SEQUENCE_NUMBER", &_velClient_session::genSequenceNumber},
        {"SESSION_CALCULATE_MESSAGE_EXPIRATION", &_velClient_session::calcMessageExpiration}};
    for (const SessionBool &p : kBools)
        if (std::strcmp(name_p, p.name) == 0)
            return readBool(name_p, value_p, s.*p.flag);
    if (std::strcmp(name_p, "SESSION_CLIENT_NAME") == 0)
        return readText(name_p, value_p, s.clientName);
    if (std::strcmp(name_p, "SESSION_P2P_TOPIC_BASE") == 0) {
        topicBaseGiven = true;
        return readText(name_p, value_p, s.p2pTopicBase);
    }
    if (std::strcmp(name_p, "SESSION_TRANSPORT") == 0)
        return readTransport(s, name_p, value_p);
    velClient_returnCode_t rc = VELCLIENT_OK;
    if (applyBrokerProperty(s.broker, name_p, value_p, rc))
        return rc;
    return VEL_FAIL_RANGE("Unknown property %s in velClient_session_create", name_p);
}

/* The default inbox topic base, cut at 250 characters: the client name keeps
 * what fits after the prefix ("#P2P/v:loopback/", or for a broker session
 * "#P2P/v:" with the first broker host's name and "/"). */
void defaultTopicBase(_velClient_session &s)
{
    std::string prefix = "#P2P/v:";
    prefix.append(vel::session::onBroker(&s) ? s.broker.hosts.front().name : "loopback").append("/");
    if (prefix.size() > kSessionMaxTopic)
        prefix.resize(kSessionMaxTopic);
    int nameRoom = static_cast<int>(kSessionMaxTopic - prefix.size());
    std::snprintf(s.p2pTopicBase, sizeof s.p2pTopicBase, "%s%.*s", prefix.c_str(), nameRoom, s.clientName);
}

} // namespace

velClient_returnCode_t vel::configureSession(_velClient_session &s, const char *const *props)
{
    bool topicBaseGiven = false;
    defaultClientName(s.clientName);
    for (std::size_t i = 0; props != nullptr && props[i] != nullptr; i += 2)
        if (applyProperty(s, props[i], props[i + 1], topicBaseGiven) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
    if (!topicBaseGiven)
        defaultTopicBase(s);
    s.autoGenForSendEnabled = s.genSendTimestamps || s.genSenderId || s.genSequenceNumber;
    s.sendSeqNum = 1;
    return VELCLIENT_OK;
}
