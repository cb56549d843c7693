/*
 * mqttPublish.h - what the MQTT encoder and decoder share: the user property
 * that carries the rest of a message, the limits of MQTT property values,
 * base64, and the build of a message from another MQTT client.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "velClientMqtt/mqttCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel::mqtt {

/* Name of the user property holding the base64 of the message's wire frame
 * without its binary attachment, topic and correlation tag. A frame whose
 * base64 is longer than one property value holds is split over several
 * properties of this name, in order. */
inline constexpr char kFrameProperty[] = "x-vel-frame";
/* Longest MQTT string or binary property value. */
inline constexpr std::size_t kMaxPropertyValue = 65535;
/* Characters of base64 per frame property: the largest multiple of 4 that fits. */
inline constexpr std::size_t kFrameChunk = kMaxPropertyValue / 4 * 4;
/* Header map key of the HTTP content type. */
inline constexpr char kContentTypeKey[] = "ct";

/* Frees the texts that the mosquitto_property_read_* calls hand out. */
struct ReadTexts {
    char *first = nullptr;
    char *second = nullptr;
    ReadTexts() = default;
    ReadTexts(const ReadTexts &) = delete;
    ReadTexts &operator=(const ReadTexts &) = delete;
    ~ReadTexts()
    {
        std::free(first);
        std::free(second);
    }
};

/* Records what makes a received publish unusable (PROTOCOL_ERROR) and
 * returns VELCLIENT_FAIL. */
velClient_returnCode_t refuse(const char *what);

/* Appends the base64 (standard alphabet, padded) of n bytes at p to out. */
void appendBase64(const std::uint8_t *p, std::size_t n, std::string &out);
/* The bytes that text decodes to, or false when its length is not a
 * multiple of 4. */
bool base64Size(std::string_view text, std::size_t &size);
/* Decodes text into out (base64Size bytes); false at a character outside
 * the alphabet or padding anywhere but at the end. */
bool decodeBase64(std::string_view text, std::uint8_t *out);

/* A new message from a publish of another MQTT client (no frame property):
 * the payload as its binary attachment, the topic, and the standard
 * properties mapped. Ownership and failures as decode's. */
velClient_returnCode_t decodeForeign(std::string_view topic, const void *payload, std::size_t size,
                                     const mosquitto_property *properties, _velClient_msg **msg_p);

} // namespace vel::mqtt
