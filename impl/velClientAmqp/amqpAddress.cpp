/*
 * amqpAddress.cpp - topics and queues as AMQP addresses and back.
 *
 * A queue's address is the queue prefix and its name as it is. A topic's
 * address is the topic prefix and its levels joined by the level separator:
 *
 *     topic               as          address
 *     orders/eu.west/new  publish     /topic/orders.eu%2Ewest.new
 *     orders/%/new        publish     /topic/orders.%25.new
 *     orders/<*>/new      publish     /topic/orders.%2A.new
 *     orders/<*>/new      subscribe   /topic/orders.*.new
 *     orders/>            subscribe   /topic/orders.#
 *
 * (<*> stands for a level that is exactly one star.)
 *
 * In a level, '%' and every byte of the separator are percent-encoded (%XX,
 * upper-case hex); a level that is exactly one of the two wildcard texts and
 * does not stand for a wildcard has all its bytes encoded. So a published
 * address never carries a bare wildcard word, and every topic maps to one
 * address and back. In a subscription a level that is exactly "*" becomes the
 * one-level wildcard, and a last level that is exactly ">" the many-level one.
 */
#include "velClientAmqp/amqpCodec.h"
#include "velClientBroker/percentEscape.h"

#include <algorithm>

namespace {

using vel::amqp::Addressing;

using vel::broker::appendEscaped;

/* Where the next byte of the separator is in level, from at (npos: none). */
std::size_t nextSeparatorByte(const Addressing &rules, std::string_view level, std::size_t at)
{
    const std::string &sep = rules.levelSeparator;
    return sep.size() == 1 ? level.find(sep[0], at) : level.find_first_of(sep, at);
}

/* A level that is a wildcard's text has every byte encoded; any other level
 * only its '%' and separator bytes, the bytes between them appended in runs. */
void appendEncoded(const Addressing &rules, std::string &out, std::string_view level)
{
    if (level == rules.wildcardOne || level == rules.wildcardMore) {
        for (char ch : level)
            appendEscaped(out, ch);
        return;
    }
    std::size_t percent = level.find('%'), separator = nextSeparatorByte(rules, level, 0), plain = 0;
    for (;;) {
        std::size_t at = std::min(percent, separator);
        if (at == std::string_view::npos)
            break;
        out.append(level.substr(plain, at - plain));
        appendEscaped(out, level[at]);
        plain = at + 1;
        if (at == percent)
            percent = level.find('%', plain);
        if (at == separator)
            separator = nextSeparatorByte(rules, level, plain);
    }
    out.append(level.substr(plain));
}

/* The level a subscription writes for one topic level (last: the topic's last level). */
void appendLevel(const Addressing &rules, std::string &out, std::string_view level, bool subscription, bool last)
{
    if (subscription && level == "*")
        out.append(rules.wildcardOne);
    else if (subscription && last && level == ">")
        out.append(rules.wildcardMore);
    else
        appendEncoded(rules, out, level);
}

/* One address level back to its topic level; false for a broken escape. */
bool appendDecoded(const Addressing &rules, std::string &out, std::string_view level)
{
    if (level == rules.wildcardOne) {
        out.push_back('*');
        return true;
    }
    if (level == rules.wildcardMore) {
        out.push_back('>');
        return true;
    }
    for (std::size_t i = 0; i < level.size(); ++i) {
        if (level[i] != '%') {
            out.push_back(level[i]);
            continue;
        }
        int byte = vel::broker::escapedByte(level, i);
        if (byte < 0)
            return false;
        out.push_back(static_cast<char>(byte));
        i += 2;
    }
    return true;
}

bool startsWith(std::string_view text, const std::string &prefix)
{
    return !prefix.empty() && text.substr(0, prefix.size()) == prefix;
}

bool topicOf(const Addressing &rules, std::string_view levels, std::string *name)
{
    std::string topic;
    const std::string &sep = rules.levelSeparator;
    for (std::size_t at = 0;;) {
        std::size_t end = sep.empty() ? std::string_view::npos : levels.find(sep, at);
        if (!appendDecoded(rules, topic, levels.substr(at, end == std::string_view::npos ? end : end - at)))
            return false;
        if (end == std::string_view::npos)
            break;
        topic.push_back('/');
        at = end + sep.size();
    }
    *name = std::move(topic);
    return true;
}

} // namespace

std::string vel::amqp::topicAddress(const Addressing &rules, std::string_view topic, bool subscription)
{
    std::string out = rules.topicPrefix;
    out.reserve(out.size() + topic.size() + 8);
    for (std::size_t at = 0;;) {
        std::size_t slash = topic.find('/', at);
        bool last = slash == std::string_view::npos;
        appendLevel(rules, out, topic.substr(at, last ? slash : slash - at), subscription, last);
        if (last)
            return out;
        out.append(rules.levelSeparator);
        at = slash + 1;
    }
}

std::string vel::amqp::queueAddress(const Addressing &rules, std::string_view queue)
{
    std::string out = rules.queuePrefix;
    out.append(queue);
    return out;
}

bool vel::amqp::destinationOf(const Addressing &rules, std::string_view address, velClient_destinationType_t *type,
                              std::string *name)
{
    /* The longer prefix first, in case one begins the other. */
    bool queueFirst = rules.queuePrefix.size() >= rules.topicPrefix.size();
    for (int i = 0; i < 2; ++i) {
        bool queue = (i == 0) == queueFirst;
        const std::string &prefix = queue ? rules.queuePrefix : rules.topicPrefix;
        if (!startsWith(address, prefix))
            continue;
        std::string_view rest = address.substr(prefix.size());
        if (queue) {
            *type = VELCLIENT_QUEUE_DESTINATION;
            name->assign(rest);
            return true;
        }
        *type = VELCLIENT_TOPIC_DESTINATION;
        return topicOf(rules, rest, name);
    }
    return false;
}
