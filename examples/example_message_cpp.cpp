/*
 * example_message_cpp.cpp - the road of a message with the C++ layer: the same
 * message as example_message.c (topic, reply-to, user properties, a map
 * attachment with a nested stream), sent on a loopback session, read back in
 * the callback, dumped, and its wire bytes written to a file. The two
 * examples write the same bytes.
 *
 * Usage: example_message_cpp [wire-output-file]   (default: message_cpp.vwf)
 */
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <variant>

#include "velclient/velClient.hpp"

namespace vc = velclient;

namespace {

/* A fixed sender timestamp keeps the wire bytes the same from run to run. */
constexpr std::int64_t kSenderTimestamp = 1795000000000;

vc::Message buildMessage()
{
    vc::Message msg = vc::Message::create();
    msg.set_topic("prices/eu/widgets");
    msg.set_reply_to(vc::Destination::topic("replies/desk-7"));
    msg.set_delivery_mode(VELCLIENT_DELIVERY_MODE_PERSISTENT);
    msg.set_sender_timestamp(kSenderTimestamp);

    vc::Map props = msg.create_user_properties(64);
    props.add("eu-west", "region");
    props.add(true, "priority");
    props.close();

    vc::Map map = msg.create_attachment_map(128);
    map.add(std::int32_t{42}, "count");
    map.add(19.95, "price");
    {
        vc::Stream history = map.open_stream("history");
        for (std::int64_t i = 1; i <= 4; ++i)
            history.add(i * 1000);
    } /* the stream closes here */
    map.add("shipped from the north warehouse", "note");
    return msg;
}

void printFields(vc::Message &msg)
{
    vc::Map props = msg.user_properties().value();
    std::cout << "received: sender id '" << msg.sender_id().value_or("") << "', sequence number "
              << msg.sequence_number().value_or(0) << ", reply-to '" << msg.reply_to()->name << "', region '"
              << props.get<std::string>("region").value_or("") << "'\n";

    vc::Map map = msg.attachment_map().value();
    std::cout << "attachment:";
    for (vc::Field &f : map) {
        std::cout << ' ' << f.name << '=';
        std::visit(
            [](auto &v) {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, vc::Stream>) {
                    for (vc::Field &e : v)
                        std::cout << std::get<std::int64_t>(e.value) << ';';
                } else if constexpr (std::is_arithmetic_v<T> || std::is_same_v<T, std::string_view>) {
                    std::cout << v;
                }
            },
            f.value);
    }
    std::cout << "\n\n";
}

/* Encoding closes the message's containers: the owners above are gone by then. */
void readBack(vc::Message &msg, const std::string &wireFile)
{
    printFields(msg);
    std::cout << msg.dump() << '\n';

    std::vector<std::uint8_t> wire = msg.to_wire();
    std::ofstream(wireFile, std::ios::binary).write(reinterpret_cast<const char *>(wire.data()), wire.size());
    std::cout << "wrote " << wire.size() << " wire bytes to " << wireFile << '\n';
}

} // namespace

int main(int argc, char **argv)
{
    const std::string wireFile = argc > 1 ? argv[1] : "message_cpp.vwf";
    try {
        vc::Library library;
        bool received = false;
        vc::Session session({{"SESSION_CLIENT_NAME", "example-client"},
                             {"SESSION_GENERATE_SENDER_ID", "1"},
                             {"SESSION_GENERATE_SEQUENCE_NUMBER", "1"}},
                            [&](vc::Message &msg) {
                                readBack(msg, wireFile);
                                received = true;
                            });
        session.send(buildMessage());
        if (!received) {
            std::cerr << "the message was not received\n";
            return 1;
        }
    } catch (const vc::Error &e) {
        std::cerr << "failed: " << e.what() << " (" << velClient_subCodeToString(e.sub_code()) << ")\n";
        return 1;
    }
    return 0;
}
