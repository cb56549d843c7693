/*
 * mqttCodec.h - a message of this library as an MQTT 5 publish (payload and
 * property list) and back, and the mapping between topics and MQTT topic
 * names and filters. Pure conversions: no connection, no thread; the MQTT
 * transport calls encode on the sending application's thread and decode on
 * its I/O thread. docs/mqtt.md has the table.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "velclient/velClientMsg.h"

/* libmosquitto's property list, declared as mosquitto.h declares it. */
struct mqtt5__property;
typedef struct mqtt5__property mosquitto_property;
struct _velClient_msg;
struct _velClient_session;

namespace vel::mqtt {

/* Frees a libmosquitto property list (mosquitto_property_free_all). */
struct PropertiesFree {
    void operator()(mosquitto_property *list) const;
};
using Properties = std::unique_ptr<mosquitto_property, PropertiesFree>;

/* A topic as an MQTT topic name (publish) and as a topic filter
 * (subscription). Levels map as they are; '%', '+', '#' anywhere and '$' as
 * the first character are percent-encoded. In a filter a level that is
 * exactly "*" becomes "+" and a last level exactly ">" becomes "#". */
std::string topicName(std::string_view topic);
std::string topicFilter(std::string_view topic);
/* The topic of a received MQTT topic name; false when a percent escape does
 * not decode, a NUL appears (plain or escaped), or the result is empty or
 * longer than 250 characters. */
bool topicOf(std::string_view name, std::string &topic);

/* The message, as the send path prepared it (generated fields and the
 * sequence number in place), as an MQTT 5 publish: the payload (the binary
 * attachment's bytes) and the property list. On failure both are empty and
 * the last error is recorded. */
velClient_returnCode_t encode(_velClient_msg *msg, std::vector<char> &payload, Properties &properties);

/* A new received message, owned by the caller, from a publish received on
 * topic name `name`: every part, property and field that encode wrote reads
 * back as it was sent; a message from another MQTT client maps its standard
 * properties. The destination is the topic of `name`. The receive-side
 * properties (receive timestamp, message id, redelivered) are the
 * transport's to set. Bytes that do not convert are refused with
 * VELCLIENT_FAIL and the last error recorded (PROTOCOL_ERROR, or
 * INVALID_VWF_MESSAGE when the wire parser refuses an item of the frame);
 * nothing leaks, nothing outside the given bytes is read. */
velClient_returnCode_t decode(std::string_view name, const void *payload, std::size_t size,
                              const mosquitto_property *properties, _velClient_session *session,
                              _velClient_msg **msg_p);

} // namespace vel::mqtt
