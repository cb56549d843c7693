/*
 * bench_broker.cpp - broker sessions beside a plain program on the same
 * broker, in one run: with --transport amqp (the default) a plain Qpid
 * Proton-C program on an AMQP 1.0 broker, with --transport mqtt a plain
 * libmosquitto program on an MQTT 5 broker.
 *   direct      messages per second, 100-byte attachment, one publisher and
 *               one subscriber on a topic, pre-settled (MQTT: QoS 0),
 *               counted on arrival;
 *   persistent  the same to a queue, durable and unsettled, at most --window
 *               messages awaiting the broker's outcome (both contenders), the
 *               receiver granting the same credit; on MQTT to a topic at
 *               QoS 1, at most --window awaiting their PUBACK;
 *   latency     request/reply round trips (p50, p99): the requester sends,
 *               the responder answers to the requester's reply address.
 * Each round runs every workload for both contenders, alternating which goes
 * first, so that a slow spell of a shared machine falls on both. The summary
 * gives the median of the rounds, their spread and velclient/plain program.
 *
 * Usage: bench_broker --port PORT [--transport amqp|mqtt] [--rounds 3]
 *        [--direct 50000] [--persistent 20000] [--window 255]
 *        [--requests 3000] [--warmup 300] [--only direct|persistent|latency]
 *        [--contender velclient|Proton-C|libmosquitto]
 * The broker must be running (scripts/bench_broker.sh starts one of each).
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include <sys/resource.h>
#include <unistd.h>

#include "broker/brokerBench.h"
#include "velclient/velClient.h"

using namespace velbench;

namespace {

struct Options {
    Settings settings;
    int rounds = 3;
    std::string only;
    std::string contender; /* run only this one (for profiling) */
};

bool parse(int argc, char **argv, Options &o)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string name = argv[i];
        const char *value = argv[i + 1];
        long number = std::atol(value);
        if (name == "--port") o.settings.port = static_cast<int>(number);
        else if (name == "--rounds") o.rounds = static_cast<int>(number);
        else if (name == "--direct") o.settings.directMessages = number;
        else if (name == "--persistent") o.settings.persistentMessages = number;
        else if (name == "--window") o.settings.window = static_cast<int>(number);
        else if (name == "--requests") o.settings.requests = number;
        else if (name == "--warmup") o.settings.warmup = number;
        else if (name == "--only") o.only = value;
        else if (name == "--contender") o.contender = value;
        else if (name == "--transport") o.settings.transport = value;
        else return false;
    }
    const bool known = o.settings.transport == "amqp" || o.settings.transport == "mqtt";
    return argc % 2 == 1 && known && o.settings.port > 0 && o.rounds > 0 && o.settings.window >= 1 &&
           o.settings.window <= 255;
}

/* One figure of one workload, per contender, one value per round. */
struct Figure {
    const char *workload;
    const char *unit;
    bool higherIsBetter;
    double goal; /* velclient/plain program at least (throughput) or at most (latency) */
    std::vector<double> values[2];
};

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    std::size_t n = v.size();
    return n == 0 ? 0 : n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

/* What this process has used, every thread together: CPU time and the times
 * a thread gave up the processor to wait (each is a wake-up later). */
struct Usage {
    double cpuSeconds = 0;
    double waits = 0;

    static Usage now()
    {
        rusage r{};
        getrusage(RUSAGE_SELF, &r);
        auto seconds = [](const timeval &t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
        return {seconds(r.ru_utime) + seconds(r.ru_stime), static_cast<double>(r.ru_nvcsw)};
    }
    Usage operator-(const Usage &earlier) const { return {cpuSeconds - earlier.cpuSeconds, waits - earlier.waits}; }
    /* "client CPU x us, y waits per <what>" */
    std::string per(double count, const char *what) const
    {
        char text[96];
        std::snprintf(text, sizeof text, "client CPU %.1f us, %.1f waits per %s", count > 0 ? cpuSeconds * 1e6 / count : 0.0,
                      count > 0 ? waits / count : 0.0, what);
        return text;
    }
};

void runThroughput(const Contender &c, bool persistent, const Options &o, const std::string &tag, Figure &figure,
                   int slot)
{
    const char *kind = persistent ? "persistent" : "direct";
    Usage before = Usage::now();
    Throughput t = c.publish(o.settings, tag, persistent ? o.settings.persistentMessages : o.settings.directMessages,
                             persistent);
    Usage used = Usage::now() - before;
    std::printf("  %-10s %-10s %10.0f msg/s  (%ld of %ld in %.2f s; %s)\n", kind, c.name, t.perSecond(), t.received,
                t.expected, t.seconds, used.per(static_cast<double>(t.received), "message").c_str());
    if (t.received < t.expected)
        std::printf("  %-10s %-10s lost %ld messages\n", kind, c.name, t.expected - t.received);
    figure.values[slot].push_back(t.perSecond());
}

void runLatency(const Contender &c, const Options &o, const std::string &tag, Figure &p50, Figure &p99, int slot)
{
    Usage before = Usage::now();
    Latency l = c.requestReply(o.settings, tag);
    Usage used = Usage::now() - before;
    double rounds = static_cast<double>(o.settings.warmup + o.settings.requests);
    std::printf("  %-10s %-10s p50 %7.1f us  p99 %7.1f us  (%zu round trips; %s)\n", "latency", c.name,
                l.percentile(50), l.percentile(99), l.samples.size(), used.per(rounds, "round trip").c_str());
    p50.values[slot].push_back(l.percentile(50));
    p99.values[slot].push_back(l.percentile(99));
}

void summarise(const std::vector<Figure> &figures, int rounds, const char *plain)
{
    std::printf("\n=== medians of %d rounds [min - max]; ratio = velclient / %s (per round in brackets)\n", rounds, plain);
    std::printf("%-22s %-34s %-34s %-22s %s\n", "figure", "velclient", plain, "ratio", "goal");
    for (const Figure &f : figures) {
        if (f.values[0].empty() || f.values[1].empty())
            continue;
        char cells[2][64];
        for (int slot = 0; slot < 2; ++slot) {
            auto [lo, hi] = std::minmax_element(f.values[slot].begin(), f.values[slot].end());
            std::snprintf(cells[slot], sizeof cells[slot], "%.1f %s [%.1f - %.1f]", median(f.values[slot]), f.unit,
                          *lo, *hi);
        }
        std::vector<double> ratios;
        std::string perRound;
        for (std::size_t r = 0; r < f.values[0].size(); ++r) {
            ratios.push_back(f.values[0][r] / f.values[1][r]);
            char one[16];
            std::snprintf(one, sizeof one, "%s%.2f", r == 0 ? "" : " ", ratios.back());
            perRound += one;
        }
        double ratio = median(f.values[0]) / median(f.values[1]);
        bool met = f.higherIsBetter ? ratio >= f.goal : ratio <= f.goal;
        char cell[64];
        std::snprintf(cell, sizeof cell, "%.2fx [%s]", ratio, perRound.c_str());
        std::printf("%-22s %-34s %-34s %-22s %s %.1fx: %s\n", f.workload, cells[0], cells[1], cell,
                    f.higherIsBetter ? ">=" : "<=", f.goal, met ? "met" : "MISSED");
    }
}

int run(const Options &o)
{
    std::vector<Figure> figures = {{"direct throughput", "msg/s", true, 0.9, {}},
                                   {"persistent throughput", "msg/s", true, 0.9, {}},
                                   {"request/reply p50", "us", false, 1.1, {}},
                                   {"request/reply p99", "us", false, 1.1, {}}};
    const Contender *contenders[2] = {&kVelclient, o.settings.transport == "mqtt" ? &kMosquitto : &kProton};
    auto wanted = [&](const char *kind) { return o.only.empty() || o.only == kind; };
    for (int round = 0; round < o.rounds; ++round) {
        std::printf("round %d of %d\n", round + 1, o.rounds);
        /* Each workload runs for both contenders back to back; who goes first alternates. */
        auto forBoth = [&](const std::function<void(const Contender &, const std::string &, int)> &work) {
            for (int k = 0; k < 2; ++k) {
                int slot = (round + k) % 2;
                if (!o.contender.empty() && o.contender != contenders[slot]->name)
                    continue;
                work(*contenders[slot], std::to_string(getpid()) + "." + std::to_string(round) + "." +
                                            std::to_string(slot), slot);
            }
        };
        if (wanted("direct"))
            forBoth([&](const Contender &c, const std::string &tag, int slot) {
                runThroughput(c, false, o, "d" + tag, figures[0], slot);
            });
        if (wanted("persistent"))
            forBoth([&](const Contender &c, const std::string &tag, int slot) {
                runThroughput(c, true, o, "p" + tag, figures[1], slot);
            });
        if (wanted("latency"))
            forBoth([&](const Contender &c, const std::string &tag, int slot) {
                runLatency(c, o, "r" + tag, figures[2], figures[3], slot);
            });
        std::fflush(stdout);
    }
    summarise(figures, o.rounds, contenders[1]->name);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s --port PORT [--transport amqp|mqtt] [--rounds N] [--direct N] [--persistent N] "
                     "[--window 1..255] [--requests N] [--warmup N] [--only direct|persistent|latency] "
                     "[--contender velclient|Proton-C|libmosquitto]\n",
                     argv[0]);
        return 2;
    }
    if (velClient_initialize(VELCLIENT_LOG_ERROR, nullptr) != VELCLIENT_OK)
        return 1;
    int rc = 1;
    try {
        rc = run(options);
    } catch (const Failure &failure) {
        std::fprintf(stderr, "bench_broker: %s\n", failure.what());
    }
    velClient_cleanup();
    return rc;
}
