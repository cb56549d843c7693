/* A TCP relay between broker sessions and the test broker, on a free port of
 * 127.0.0.1, that a test can cut (every relayed connection reset), pause (bytes
 * held back in both directions, as from a dead peer) or make refuse new
 * connections: the faults of a network, made on demand. */
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace veltest::broker {

class Proxy {
public:
    explicit Proxy(int targetPort);
    ~Proxy();
    Proxy(const Proxy &) = delete;
    Proxy &operator=(const Proxy &) = delete;

    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    /* Resets every connection relayed now. */
    void cut() { cutRequested_ = true; }
    void pause(bool on) { paused_ = on; }
    /* New connections are closed at once while on. */
    void refuse(bool on) { refusing_ = on; }

private:
    struct Pair {
        int client;
        int broker;
    };
    void run();
    void closePair(Pair &pair);

    int targetPort_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> refusing_{false};
    std::atomic<bool> cutRequested_{false};
    std::vector<Pair> pairs_;
    std::thread thread_;
};

} // namespace veltest::broker
