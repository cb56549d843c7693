/*
 * brokerBench.cpp - the pieces of bench_broker that both contenders use: the
 * attachment, percentiles, the progress counter and the end of a throughput run.
 */
#include "broker/brokerBench.h"

#include <algorithm>
#include <climits>
#include <cstdio>

namespace velbench {

const char *payload()
{
    static const std::string bytes = [] {
        std::string text(kPayloadSize, '\0');
        for (std::size_t i = 0; i < kPayloadSize; ++i)
            text[i] = static_cast<char>('a' + i % 26);
        return text;
    }();
    return bytes.data();
}

double Latency::percentile(double p) const
{
    if (samples.empty())
        return 0;
    std::vector<double> sorted = samples;
    auto rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size() - 1) + 0.5);
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(rank), sorted.end());
    return sorted[rank];
}

void Progress::add(long n)
{
    long now = count_.fetch_add(n, std::memory_order_acq_rel) + n;
    last_.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
    if (now >= want_.load(std::memory_order_acquire)) {
        std::lock_guard lock(mutex_);
        reached_.notify_all();
    }
}

Clock::time_point Progress::last() const
{
    return Clock::time_point(Clock::duration(last_.load(std::memory_order_acquire)));
}

bool Progress::waitFor(long want, std::chrono::milliseconds stall)
{
    want_.store(want, std::memory_order_release);
    long seen = count();
    auto since = Clock::now();
    std::unique_lock lock(mutex_);
    while (true) {
        if (reached_.wait_for(lock, std::chrono::milliseconds(50), [&] { return count() >= want; })) {
            want_.store(LONG_MAX, std::memory_order_release);
            return true;
        }
        if (count() != seen) {
            seen = count();
            since = Clock::now();
        } else if (Clock::now() - since > stall) {
            want_.store(LONG_MAX, std::memory_order_release);
            return false;
        }
    }
}

Throughput throughputSince(Clock::time_point start, long count, Progress &messages, const Settings &settings)
{
    messages.waitFor(count, settings.stall);
    Throughput result;
    result.expected = count;
    result.received = messages.count();
    result.seconds = std::chrono::duration<double>(messages.last() - start).count();
    return result;
}

void awaitAcknowledged(Progress &acks, long want, long count, const Settings &settings, const char *who,
                       const char *what)
{
    if (!acks.waitFor(want, settings.stall))
        std::fprintf(stderr, "%s: %ld of %ld %s\n", who, acks.count(), count, what);
}

} // namespace velbench
