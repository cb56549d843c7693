/*
 * brokerBench.h - what bench_broker's two contenders share: the settings of a
 * run, the figures a workload yields, the progress counter that a receiving
 * thread advances while the main thread waits, and the table through which
 * the driver runs each contender's three workloads.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace velbench {

using Clock = std::chrono::steady_clock;

struct Settings {
    int port = 0;
    std::string transport = "amqp"; /* velclient's; the plain contender is Proton-C on amqp, libmosquitto on mqtt */
    long directMessages = 50000;
    long persistentMessages = 20000;
    int window = 255;         /* unacknowledged persistent messages at most, both contenders */
    int receiveCredit = 256;  /* what velclient's receiver grants; the plain program grants the same */
    long warmup = 300;        /* request/reply rounds not measured */
    long requests = 3000;     /* request/reply rounds measured */
    std::chrono::milliseconds stall{10000}; /* a wait gives up after this long without progress */
};

/* Messages counted at the subscriber, between the first send and the last receive. */
struct Throughput {
    long expected = 0;
    long received = 0;
    double seconds = 0;
    double perSecond() const { return seconds > 0 ? received / seconds : 0; }
};

/* Round trips of one request and its reply, in microseconds. */
struct Latency {
    std::vector<double> samples;
    double percentile(double p) const;
};

/* The 100-byte attachment every benchmark message carries. */
constexpr std::size_t kPayloadSize = 100;
const char *payload();

/* A count that one thread advances and another waits on. Only reaching the
 * target wakes the waiter, so counting costs the counting thread no system
 * call; the waiter also looks every 50 ms whether progress has stalled. */
class Progress {
public:
    void add(long n = 1);
    long count() const { return count_.load(std::memory_order_acquire); }
    Clock::time_point last() const;
    /* True once the count reaches want; false when it stays unchanged for stall. */
    bool waitFor(long want, std::chrono::milliseconds stall);

private:
    std::atomic<long> count_{0};
    std::atomic<long> want_{LONG_MAX};
    std::atomic<Clock::rep> last_{0};
    std::mutex mutex_;
    std::condition_variable reached_;
};

/* The figures of count messages sent from start on, once the subscriber's count reaches count or stalls. */
Throughput throughputSince(Clock::time_point start, long count, Progress &messages, const Settings &settings);

/* Waits for want acknowledgements of count persistent messages; a shortfall is said on stderr as
 * "<who>: <seen> of <count> <what>". */
void awaitAcknowledged(Progress &acks, long want, long count, const Settings &settings, const char *who,
                       const char *what);

/* A failure that ends the benchmark with its text. */
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* One contender's three workloads; tag makes its addresses unique to the run. */
struct Contender {
    const char *name;
    /* count messages, direct (pre-settled, to a topic) or persistent (unsettled, to a queue; on MQTT QoS 1 to a
     * topic). */
    Throughput (*publish)(const Settings &settings, const std::string &tag, long count, bool persistent);
    Latency (*requestReply)(const Settings &settings, const std::string &tag);
};

extern const Contender kVelclient;
extern const Contender kProton;
extern const Contender kMosquitto;

} // namespace velbench
