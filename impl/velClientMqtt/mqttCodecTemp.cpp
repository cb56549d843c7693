/* TEMPORARY local stand-in for the codec (never committed). */
#include <mosquitto.h>
#include <cstring>
#include "velClientMqtt/mqttCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientSession/sessionPrivate.h"
#include "velClientVwf/vwf.h"

namespace vel::mqtt {
void PropertiesFree::operator()(mosquitto_property *list) const { mosquitto_property_free_all(&list); }
static std::string enc(std::string_view t) {
    std::string o;
    for (std::size_t i = 0; i < t.size(); ++i) { char c = t[i];
        if (c == '%' || c == '+' || c == '#' || (c == '$' && i == 0)) { char b[4]; std::snprintf(b, 4, "%%%02X", (unsigned char)c); o += b; } else o += c; }
    return o; }
std::string topicName(std::string_view topic) { return enc(topic); }
std::string topicFilter(std::string_view topic) {
    std::string o; std::size_t start = 0;
    while (true) { std::size_t p = topic.find('/', start); std::string_view lv = topic.substr(start, p == std::string_view::npos ? std::string_view::npos : p - start);
        if (lv == "*") { o += "+"; } else if (lv == ">" && p == std::string_view::npos) { o += "#"; } else { o += enc(lv); }
        if (p == std::string_view::npos)
            break;
        o += "/"; start = p + 1; }
    return o; }
bool topicOf(std::string_view name, std::string &topic) {
    topic.clear();
    for (std::size_t i = 0; i < name.size(); ++i) { if (name[i] == '%') { if (i + 2 >= name.size() + 0 && i + 2 > name.size() - 1) return false; topic += (char)std::stoi(std::string(name.substr(i + 1, 2)), nullptr, 16); i += 2; } else topic += name[i]; }
    return !topic.empty(); }
velClient_returnCode_t encode(_velClient_msg *msg, std::vector<char> &payload, Properties &properties) {
    vel::vwf::Frame frame;
    properties.reset();
    if (frame.build(msg->bufInfo_a, _VELCLIENT_BUFINFO_NUM_PARTS, msg->msgInfo.flags, 0, msg) != VELCLIENT_OK) return VELCLIENT_FAIL;
    payload.clear();
    for (std::uint32_t i = 0; i < frame.numChunks; ++i) payload.insert(payload.end(), frame.chunks[i].p, frame.chunks[i].p + frame.chunks[i].len);
    return VELCLIENT_OK; }
static _velClient_msg *taken_s;
static velClient_returnCode_t keep(void *, void *p) { auto *parse = static_cast<_velClient_vwfParsing *>(p); taken_s = parse->rxMsg; parse->appOwnsMessage = 1; return VELCLIENT_OK; }
velClient_returnCode_t decode(std::string_view, const void *payload, std::size_t size, const mosquitto_property *, _velClient_session *session, _velClient_msg **msg_p) {
    _velClient_datab *block = nullptr;
    if (_velClient_datablock_alloc(&block, (std::uint32_t)size) != VELCLIENT_OK) return VELCLIENT_FAIL;
    std::memcpy(block->dbData_p, payload, size); _velClient_vwfParsing parse; taken_s = nullptr;
    _velClient_initVwfParseBlock(&parse, session, keep, block, (std::uint32_t)size);
    velClient_returnCode_t rc = _velClient_vwfParse(nullptr, &parse); _velClient_cleanUpParse(&parse);
    if (rc != VELCLIENT_OK || taken_s == nullptr) return VELCLIENT_FAIL;
    *msg_p = taken_s; return VELCLIENT_OK; }
}
