/*
 * clock.cpp - the library clock, the receive-time clock (the clock read
 * through a per-thread millisecond kept by the time-stamp counter) and the
 * readable time text.
 */
#include "velClientTime/clock.h"

#include <atomic>
#include <chrono>
#include <ctime>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <x86intrin.h>
#define VEL_HAVE_TSC 1
#else
#define VEL_HAVE_TSC 0
#endif

#include "velClientLifo/threadLocalStack.h"

extern "C" velClient_uint64_t _velClient_getTimeInUs(void)
{
    using namespace std::chrono;
    return static_cast<velClient_uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

#if VEL_HAVE_TSC
namespace {

/* The counter and the monotonic clock (which is never set, only slewed) read
 * together once: the reference for measuring the counter's rate. */
struct Reference {
    std::uint64_t ticks; /* 0 where the counter's rate may change */
    std::uint64_t us;
};

/* How long the counter is measured against the clock before it is trusted. */
constexpr std::uint64_t kMeasureUs = 20000;

/* Counter ticks per microsecond, rounded down and less a sixteenth: a lower
 * bound of the rate, so that ticks / rate overstates the time gone by. 0
 * until measured, and for good where the counter's rate may change. Every
 * thread reads it: it has a cache line to itself. */
struct alignas(64) Rate {
    std::atomic<std::uint64_t> ticksPerUsLow{0};
};
Rate rate_s;

/* The millisecond a thread read last, the counter when it did, and how many
 * ticks later it surely still holds (0: read the clock again). A counter
 * found behind its last value reads the clock as well. */
struct Millisecond {
    std::uint64_t ms;
    std::uint64_t ticks;
    std::uint64_t span;
};
thread_local constinit Millisecond lastMs_s VEL_HOT_TLS{};

bool invariantCounter()
{
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) < 0x80000007u)
        return false;
    __cpuid(0x80000007u, a, b, c, d);
    return (d & (1u << 8)) != 0; /* the counter runs at a constant rate in every state */
}

std::uint64_t monotonicUs()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

const Reference &reference()
{
    static const Reference ref = [] {
        const bool usable = invariantCounter();
        const std::uint64_t ticks = __rdtsc();
        return Reference{usable ? ticks : 0, monotonicUs()};
    }();
    return ref;
}

/* The rate's lower bound, measured once kMeasureUs have passed since the
 * reference; 0 before (and where the counter cannot be trusted). */
[[gnu::noinline]] std::uint64_t measureRate()
{
    const Reference &ref = reference();
    if (ref.ticks == 0)
        return 0;
    const std::uint64_t ticks = __rdtsc();
    const std::uint64_t us = monotonicUs();
    if (us < ref.us + kMeasureUs || ticks <= ref.ticks)
        return 0;
    std::uint64_t rate = (ticks - ref.ticks) / (us - ref.us);
    rate -= rate / 16;
    rate_s.ticksPerUsLow.store(rate, std::memory_order_relaxed);
    return rate;
}

} // namespace

extern "C" velClient_uint64_t _velClient_getTimeInMs(void)
{
    const std::uint64_t ticks = __rdtsc();
    Millisecond &last = lastMs_s;
    if (ticks - last.ticks < last.span)
        return last.ms;
    const std::uint64_t us = _velClient_getTimeInUs();
    std::uint64_t rate = rate_s.ticksPerUsLow.load(std::memory_order_relaxed);
    if (rate == 0)
        rate = measureRate();
    /* The counter was read before the clock, and the clock's microsecond may
     * be all but over: for rate * (whole microseconds left in the
     * millisecond) more ticks, the clock is still inside it. */
    last.ms = us / 1000;
    last.ticks = ticks;
    last.span = (999 - us % 1000) * rate;
    return last.ms;
}
#else
extern "C" velClient_uint64_t _velClient_getTimeInMs(void)
{
    return _velClient_getTimeInUs() / 1000;
}
#endif

extern "C" void _velClient_formatTime(velClient_uint64_t seconds, char *buf_p, size_t bufSize)
{
    if (buf_p == nullptr || bufSize == 0)
        return;
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (gmtime_r(&t, &parts) == nullptr || std::strftime(buf_p, bufSize, "%b %d, %Y %H:%M:%S", &parts) == 0) {
        /* strftime leaves the buffer undefined when the text does not fit:
         * format into room of our own and cut. */
        char full[64];
        std::size_t n = (gmtime_r(&t, &parts) != nullptr)
                            ? std::strftime(full, sizeof full, "%b %d, %Y %H:%M:%S", &parts)
                            : 0;
        std::size_t keep = n < bufSize - 1 ? n : bufSize - 1;
        for (std::size_t i = 0; i < keep; ++i)
            buf_p[i] = full[i];
        buf_p[keep] = '\0';
    }
}
