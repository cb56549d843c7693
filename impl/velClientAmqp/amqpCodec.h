/*
 * amqpCodec.h - a message of this library as an AMQP 1.0 message and back,
 * and the mapping between topics or queues and AMQP addresses. Pure
 * conversions: no connection, no thread; the broker transport calls them on
 * the sending application's thread (encode) and on its I/O thread (decode).
 */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "velclient/velClientMsg.h"

struct _velClient_msg;
struct _velClient_session;

namespace vel::amqp {

/* How topics and queues become addresses (the session's AMQP properties). */
struct Addressing {
    std::string topicPrefix = "/topic/";
    std::string queuePrefix = "/queue/";
    std::string levelSeparator = ".";
    std::string wildcardOne = "*";
    std::string wildcardMore = "#";
    bool operator==(const Addressing &) const = default;
};

/* The address of a topic. Levels are separated by '/'; a level holding the
 * separator or '%' is percent-encoded. With subscription set, a level that is
 * exactly "*" becomes wildcardOne and a last level exactly ">" wildcardMore. */
std::string topicAddress(const Addressing &rules, std::string_view topic, bool subscription);
std::string queueAddress(const Addressing &rules, std::string_view queue);
/* The destination an address names; false when it has neither prefix or does
 * not decode. */
bool destinationOf(const Addressing &rules, std::string_view address, velClient_destinationType_t *type,
                   std::string *name);

/* The message, as the send path has prepared it (generated fields and the
 * sequence number in place), encoded as one AMQP 1.0 message into out. On
 * failure out is empty and the last error is recorded. address, when given,
 * is the address of the message's destination as the caller has worked it
 * out; otherwise encode works it out. */
velClient_returnCode_t encode(_velClient_msg *msg, const Addressing &rules, std::vector<char> &out,
                              const std::string *address = nullptr);

/* A new received message, owned by the caller, from one encoded AMQP 1.0
 * message: every part, property and field that encode wrote reads back as it
 * was sent, and a message from another AMQP client maps its standard fields.
 * The receive-side properties (receive timestamp, message id, redelivered,
 * destination) are the transport's to set. Bytes that do not convert are
 * refused with VELCLIENT_FAIL and the last error recorded; nothing leaks and
 * nothing outside the bytes is read. */
velClient_returnCode_t decode(const char *bytes, std::size_t size, const Addressing &rules,
                              _velClient_session *session, _velClient_msg **msg_p);

} // namespace vel::amqp
