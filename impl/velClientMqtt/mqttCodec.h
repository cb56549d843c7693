/*
 * mqttCodec.h - a message of this library as an MQTT 5 publish and back, and
 * topics as MQTT topic names and filters. Pure conversions: no connection,
 * no thread.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "velclient/velClientMsg.h"

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

/* A topic as an MQTT topic name (publish), and as a topic filter
 * (subscription, with "*" and ">"). */
std::string topicName(std::string_view topic);
std::string topicFilter(std::string_view topic);
/* The topic of a received MQTT topic name; false when a percent escape does
 * not decode or the result is empty or longer than 250 characters. */
bool topicOf(std::string_view name, std::string &topic);

/* The message as an MQTT 5 publish: the payload and the property list. */
velClient_returnCode_t encode(_velClient_msg *msg, std::vector<char> &payload, Properties &properties);

/* A new received message, owned by the caller, from a publish received on
 * topic name `name`. */
velClient_returnCode_t decode(std::string_view name, const void *payload, std::size_t size,
                              const mosquitto_property *properties, _velClient_session *session,
                              _velClient_msg **msg_p);

} // namespace vel::mqtt
