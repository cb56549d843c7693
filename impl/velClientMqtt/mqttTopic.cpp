/*
 * mqttTopic.cpp - topics as MQTT topic names and filters, and back. Levels
 * map as they are. An MQTT topic name cannot hold '+' or '#', and a name
 * starting with '$' is the broker's: so '%', '+', '#' anywhere and '$' as the
 * first character are percent-encoded ("%25", "%2B", "%23", "%24"). In a
 * filter a level that is exactly "*" becomes "+" and a last level exactly ">"
 * becomes "#". Example: "#P2P/v:host/me" is published as "%23P2P/v:host/me".
 */
#include "velClientBroker/percentEscape.h"
#include "velClientMqtt/mqttCodec.h"

namespace {

/* Longest topic this library holds, in characters. */
constexpr std::size_t kMaxTopic = 250;

bool needsEscape(char c, std::size_t at)
{
    return c == '%' || c == '+' || c == '#' || (c == '$' && at == 0);
}

std::string mapped(std::string_view topic, bool filter)
{
    std::string out;
    out.reserve(topic.size() + 8);
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = topic.find('/', start);
        const bool last = end == std::string_view::npos;
        const std::string_view level = topic.substr(start, last ? std::string_view::npos : end - start);
        if (filter && level == "*") {
            out += '+';
        } else if (filter && last && level == ">") {
            out += '#';
        } else {
            for (std::size_t i = 0; i < level.size(); ++i) {
                if (needsEscape(level[i], start + i))
                    vel::broker::appendEscaped(out, level[i]);
                else
                    out += level[i];
            }
        }
        if (last)
            return out;
        out += '/';
        start = end + 1;
    }
}

} // namespace

std::string vel::mqtt::topicName(std::string_view topic)
{
    return mapped(topic, false);
}

std::string vel::mqtt::topicFilter(std::string_view topic)
{
    return mapped(topic, true);
}

bool vel::mqtt::topicOf(std::string_view name, std::string &topic)
{
    topic.clear();
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '\0')
            return false;
        if (name[i] != '%') {
            topic += name[i];
            continue;
        }
        const int byte = vel::broker::escapedByte(name, i);
        if (byte <= 0)
            return false;
        topic += static_cast<char>(byte);
        i += 2;
    }
    return !topic.empty() && topic.size() <= kMaxTopic;
}
