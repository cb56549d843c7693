/*
 * receiveCommand.cpp - the receive command: subscribes a connected session to
 * topics and queues and prints the dump of each message received, until
 * --count messages, --timeout of silence, SIGINT or SIGTERM, or a failure.
 */
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "commandSession.h"
#include "commands.h"

namespace vel::tool {

namespace {

constexpr std::int64_t kMaxTimeout = 0x7FFFFFFF;
/* How often the command looks at signals, the count and the silence. */
constexpr long kPollNs = 50'000'000;

struct ReceiveOptions {
    SessionOptions session;
    std::vector<std::string> topics;
    std::vector<std::string> queues;
    std::uint64_t count = 0; /* 0: no limit */
    std::int64_t timeoutMs = 0; /* 0: none */
    bool clientAck = false;
    velClient_uint32_t flags = VELCLIENT_MSGDUMP_FULL;
};

void usage(const char *program)
{
    std::printf("Usage: %s (--topic TOPIC | --queue QUEUE)... [OPTION...]\n"
                "Connects a session, subscribes and prints the dump of each message received.\n"
                "\n"
                "  --topic TOPIC              subscribe to a topic; a level that is * matches any one level,\n"
                "                             a last level that is > one or more (prices/*/eu, prices/>)\n"
                "  --queue QUEUE              receive from a queue (the broker creates it when absent; amqp only)\n"
                "                             (--topic and --queue may be repeated and mixed)\n"
                "  --count N                  stop after N messages\n"
                "  --timeout MS               stop after MS milliseconds without a message\n"
                "  --ack auto|client          auto (the default): a queue's message is accepted once received;\n"
                "                             client: once its dump is printed. Messages the broker delivers\n"
                "                             after the count is reached are not printed: with client they go\n"
                "                             back to the queue, with auto they are accepted and lost\n"
                "  --sizes                    show the user property map, attachment and XML as sizes only\n"
                "\n"
                "%s"
                "\n"
                "Without --count or --timeout it runs until SIGINT (Ctrl-C) or SIGTERM.\n"
                "Exit status: 0 when it stopped as asked, 1 when the library failed, a subscription was\n"
                "refused or --timeout came before --count messages, 2 for a usage error (--queue with\n"
                "--transport mqtt among them).\n",
                program, kSessionOptionsHelp);
}

/* The options of the command line; false when it asks for help. */
bool parse(int argc, char **argv, ReceiveOptions &o)
{
    for (OptionReader args(argc, argv); args.next();) {
        if (args.isHelp())
            return false;
        if (o.session.take(args))
            continue;
        if (args.is("--topic") || args.is("--queue")) {
            (args.is("--topic") ? o.topics : o.queues).push_back(args.value());
        } else if (args.is("--count")) {
            o.count = static_cast<std::uint64_t>(parseInteger(args.name(), args.value(), 1, INT64_MAX));
        } else if (args.is("--timeout")) {
            o.timeoutMs = parseInteger(args.name(), args.value(), 1, kMaxTimeout);
        } else if (args.is("--ack")) {
            const std::string mode = args.value();
            if (mode != "auto" && mode != "client")
                refuseValue(args.name(), mode, "auto or client");
            o.clientAck = mode == "client";
        } else if (args.is("--sizes")) {
            args.noValue();
            o.flags = VELCLIENT_MSGDUMP_BRIEF;
        } else {
            args.unknown();
        }
    }
    if (o.topics.empty() && o.queues.empty())
        throw UsageError("needs --topic or --queue");
    if (!o.session.isBroker())
        throw UsageError("receive needs a broker transport, amqp or mqtt (a loopback session receives only what it "
                         "sends)");
    if (!o.queues.empty())
        o.session.refuseQueue();
    o.session.set("SESSION_RECEIVE_ACK_MODE", o.clientAck ? "client" : "auto");
    return true;
}

/* Prints what arrives; the receive callback runs on the session's I/O thread. */
class Printer {
public:
    explicit Printer(const ReceiveOptions &o) : options_(o) {}

    void operator()(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg)
    {
        const std::uint64_t n = printed_ + 1;
        if (options_.count != 0 && n > options_.count)
            return;
        printMessageDump("--- message " + std::to_string(n), msg, options_.flags);
        velClient_destination_t dest{};
        velClient_msgId_t id = 0;
        if (options_.clientAck && velClient_msg_getDestination(msg, &dest, sizeof dest) == VELCLIENT_OK &&
            dest.destType == VELCLIENT_QUEUE_DESTINATION && velClient_msg_getMsgId(msg, &id) == VELCLIENT_OK)
            check(velClient_session_ack(session, id));
        lastNs_ = nowNs();
        printed_ = n;
    }

    std::uint64_t printed() const { return printed_; }
    bool counted() const { return options_.count != 0 && printed_ >= options_.count; }
    /* Whether --timeout milliseconds have passed since the last message (or since start). */
    bool silent() const { return options_.timeoutMs != 0 && nowNs() - lastNs_ >= options_.timeoutMs * 1'000'000; }

private:
    static std::int64_t nowNs()
    {
        timespec t{};
        clock_gettime(CLOCK_MONOTONIC, &t);
        return std::int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
    }

    const ReceiveOptions &options_;
    std::atomic<std::uint64_t> printed_{0};
    std::atomic<std::int64_t> lastNs_{nowNs()};
};

/* Blocks SIGINT and SIGTERM in this thread and the threads it starts: the command takes them with
 * sigtimedwait, so that they end it cleanly. */
sigset_t blockStopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

int receive(const char *program, int argc, char **argv)
{
    ReceiveOptions o;
    if (!parse(argc, argv, o)) {
        usage(program);
        return kExitOk;
    }
    const sigset_t stopSignals = blockStopSignals();
    velclient::Library library(VELCLIENT_LOG_ERROR);
    Printer printer(o);
    CommandSession session(program, o.session, std::ref(printer));
    for (const std::string &topic : o.topics)
        check(velClient_session_topicSubscribe(session.handle(), topic.c_str()));
    for (const std::string &queue : o.queues)
        check(velClient_session_queueSubscribe(session.handle(), queue.c_str()));
    const timespec poll{0, kPollNs};
    while (!printer.counted() && !printer.silent() && session.state().failures.empty()) {
        if (sigtimedwait(&stopSignals, nullptr, &poll) > 0)
            break;
    }
    if (!session.state().failures.empty())
        return kExitFailure;
    if (o.count != 0 && !printer.counted() && printer.silent()) {
        std::fprintf(stderr, "%s: %llu of %llu messages before %lld ms of silence\n", program,
                     static_cast<unsigned long long>(printer.printed()), static_cast<unsigned long long>(o.count),
                     static_cast<long long>(o.timeoutMs));
        return kExitFailure;
    }
    return kExitOk;
}

} // namespace

int receiveCommand(const char *program, int argc, char **argv)
{
    return runGuarded(program, [&] { return receive(program, argc, argv); });
}

} // namespace vel::tool
