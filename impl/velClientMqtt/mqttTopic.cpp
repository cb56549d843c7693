/*
 * mqttTopic.cpp - topics as MQTT topic names and filters, and back. Levels
 * map as they are. An MQTT topic name cannot hold '+' or '#', and a name
 * starting with '$' is the broker's: so '%', '+', '#' anywhere and '$' as the
 * first character are percent-encoded ("%25", "%2B", "%23", "%24"). In a
 * filter a level that is exactly "*" becomes "+" and a last level exactly ">"
 * becomes "#". Example: "#P2P/v:host/me" is published as "%23P2P/v:host/me".
 */
#include "velClientMqtt/mqttCodec.h"

namespace {

/* Longest topic this library holds, in characters. */
constexpr std::size_t kMaxTopic = 250;

bool needsEscape(char c, std::size_t at)
{
    return c == '%' || c == '+' || c == '#' || (c == '$' && at == 0);
}

void appendEscaped(std::string &out, char c)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    const auto b = static_cast<unsigned char>(c);
    out += '%';
    out += kHex[b >> 4];
    out += kHex[b & 0x0F];
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
                    appendEscaped(out, level[i]);
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

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
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
        const int high = i + 2 < name.size() ? hexValue(name[i + 1]) : -1;
        const int low = high >= 0 ? hexValue(name[i + 2]) : -1;
        if (low < 0 || (high | low) == 0)
            return false;
        topic += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return !topic.empty() && topic.size() <= kMaxTopic;
}
