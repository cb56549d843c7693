/* A plain Qpid Proton-C receiver, to see what this library sends as any other
 * AMQP 1.0 client sees it: on a proactor thread of its own it attaches to an
 * address of the test broker, accepts every message and keeps its encoded
 * bytes; the test decodes them with pn_message_decode. */
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct pn_proactor_t;
struct pn_connection_t;
struct pn_event_t;

namespace veltest::broker {

class ForeignReader {
public:
    /* A queue address asks for a durable terminus, as this library does. */
    ForeignReader(const std::string &address, bool queue);
    ~ForeignReader();
    ForeignReader(const ForeignReader &) = delete;
    ForeignReader &operator=(const ForeignReader &) = delete;

    /* True once the broker has answered the attach (a topic routes to it from then on). */
    bool waitAttached(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    /* Waits for count messages; the encoded bytes of those received so far. */
    std::vector<std::string> waitMessages(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20));

private:
    void run();
    void handle(pn_event_t *event);

    std::string address_;
    bool queue_;
    pn_proactor_t *proactor_;
    pn_connection_t *connection_ = nullptr;
    bool done_ = false; /* the I/O loop's own */
    std::mutex mutex_;
    std::condition_variable changed_;
    bool attached_ = false;
    bool closed_ = false; /* the connection is gone: no more wakes */
    std::vector<std::string> received_;
    std::thread thread_;
};

} // namespace veltest::broker
