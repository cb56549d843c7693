/*
 * sendCommand.cpp - the send command: builds one message from the options
 * (destination, attachment, user properties, time-to-live, delivery mode,
 * reply-to, correlation id), sends it --count times on a connected session
 * and, for persistent and non-persistent messages on a broker, waits for the
 * broker's outcome of every one before it ends.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commandSession.h"
#include "commands.h"
#include "userProperties.h"

namespace vel::tool {

namespace {

constexpr std::int64_t kMaxTimeToLive = 315360000000;
constexpr std::uint64_t kMaxCount = 0xFFFFFFFF;
/* How long the session down may take to report the messages it gives up on. */
constexpr std::chrono::seconds kDownGrace{2};

struct SendOptions {
    SessionOptions session;
    velclient::Destination destination;
    std::string text;
    std::string file;
    bool hasText = false;
    std::vector<UserProperty> properties;
    std::int64_t ttl = 0;
    velClient_uint32_t mode = VELCLIENT_DELIVERY_MODE_DIRECT;
    std::uint64_t count = 1;
    std::string replyTo;
    std::string correlationId;
    bool dump = false;
};

void usage(const char *program)
{
    std::printf("Usage: %s (--topic TOPIC | --queue QUEUE) [OPTION...]\n"
                "Connects a session and sends a message, --count times.\n"
                "\n"
                "Message:\n"
                "  --topic TOPIC              the destination: a topic, levels separated by '/'\n"
                "  --queue QUEUE              the destination: a queue (amqp and loopback only)\n"
                "  --text STRING              a text attachment\n"
                "  --file PATH                the bytes of a file as the attachment; - reads standard input\n"
                "                             (without --text or --file the message has no attachment)\n"
                "  --user-property NAME=VALUE a string user property; repeat for more\n"
                "  --user-property NAME:TYPE=VALUE\n"
                "                             a typed one; TYPE is one of %s;\n"
                "                             bool takes true, false, 1 or 0, char one character, bytes hex\n"
                "                             digits (0a1b), null no value (NAME:null)\n"
                "  --ttl MS                   time-to-live in milliseconds (0: none)\n"
                "  --mode MODE                direct (the default), persistent or nonpersistent\n"
                "  --reply-to [topic:|queue:]NAME\n"
                "                             where replies go (a topic unless queue: says otherwise)\n"
                "  --correlation-id ID        the correlation id\n"
                "  --count N                  send the message N times (default 1)\n"
                "  --dump                     print each message's dump before it is sent\n"
                "\n"
                "%s"
                "\n"
                "Persistent and non-persistent messages on a broker are each acknowledged by it; the command\n"
                "waits for every outcome and reports each refusal.\n"
                "Exit status: 0 when every message was sent (and acknowledged where that applies), 1 when the\n"
                "library failed or a message was refused, 2 for a usage or file error (--queue with --transport\n"
                "mqtt among them).\n",
                program, kUserPropertyTypes, kSessionOptionsHelp);
}

velClient_uint32_t parseMode(std::string_view option, const std::string &text)
{
    if (text == "direct")
        return VELCLIENT_DELIVERY_MODE_DIRECT;
    if (text == "persistent")
        return VELCLIENT_DELIVERY_MODE_PERSISTENT;
    if (text == "nonpersistent")
        return VELCLIENT_DELIVERY_MODE_NONPERSISTENT;
    refuseValue(option, text, "direct, persistent or nonpersistent");
}

/* Takes the current option into o when it is a message option; false for any other. */
bool takeMessageOption(OptionReader &args, SendOptions &o)
{
    if (args.is("--topic") || args.is("--queue")) {
        if (o.destination.type != velclient::DestinationType::Null)
            throw UsageError("give one --topic or --queue");
        o.destination = args.is("--topic") ? velclient::Destination::topic(args.value())
                                           : velclient::Destination::queue(args.value());
    } else if (args.is("--text") || args.is("--file")) {
        if (o.hasText || !o.file.empty())
            throw UsageError("give one --text or --file");
        (args.is("--text") ? o.text : o.file) = args.value();
        o.hasText = args.is("--text");
    } else if (args.is("--user-property")) {
        o.properties.push_back(parseUserProperty(args.name(), args.value()));
    } else if (args.is("--ttl")) {
        o.ttl = parseInteger(args.name(), args.value(), 0, kMaxTimeToLive);
    } else if (args.is("--mode")) {
        o.mode = parseMode(args.name(), args.value());
    } else if (args.is("--count")) {
        o.count = parseInteger(args.name(), args.value(), 1, kMaxCount);
    } else if (args.is("--reply-to")) {
        o.replyTo = args.value();
    } else if (args.is("--correlation-id")) {
        o.correlationId = args.value();
    } else {
        return false;
    }
    return true;
}

/* The options of the command line; false when it asks for help. */
bool parse(int argc, char **argv, SendOptions &o)
{
    for (OptionReader args(argc, argv); args.next();) {
        if (args.isHelp())
            return false;
        if (args.is("--dump")) {
            args.noValue();
            o.dump = true;
        } else if (!o.session.take(args) && !takeMessageOption(args, o)) {
            args.unknown();
        }
    }
    if (o.destination.type == velclient::DestinationType::Null)
        throw UsageError("needs --topic or --queue");
    if (o.destination.type == velclient::DestinationType::Queue)
        o.session.refuseQueue();
    return true;
}

/* The bytes of a file ("-": standard input); a file that cannot be read is refused like a bad option. */
std::string readFile(const std::string &path)
{
    const bool stdinput = path == "-";
    FILE *in = stdinput ? stdin : std::fopen(path.c_str(), "rb");
    if (in == nullptr)
        throw UsageError("option --file: cannot open " + path + ": " + std::strerror(errno));
    std::string bytes;
    char chunk[65536];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;)
        bytes.append(chunk, n);
    const bool failed = std::ferror(in) != 0;
    if (!stdinput)
        std::fclose(in);
    if (failed)
        throw UsageError("option --file: cannot read " + path);
    return bytes;
}

velclient::Destination replyDestination(const std::string &text)
{
    if (text.rfind("queue:", 0) == 0)
        return velclient::Destination::queue(text.substr(6));
    return velclient::Destination::topic(text.rfind("topic:", 0) == 0 ? text.substr(6) : text);
}

velclient::Message build(const SendOptions &o)
{
    velclient::Message msg = velclient::Message::create();
    msg.set_destination(o.destination);
    msg.set_delivery_mode(o.mode);
    if (o.ttl != 0)
        msg.set_time_to_live(o.ttl);
    if (!o.replyTo.empty())
        msg.set_reply_to(replyDestination(o.replyTo));
    if (!o.correlationId.empty())
        msg.set_correlation_id(o.correlationId);
    if (!o.properties.empty()) {
        velclient::Map map = msg.create_user_properties();
        addUserProperties(map, o.properties);
    }
    if (o.hasText)
        check(velClient_msg_setBinaryAttachmentString(msg.handle(), o.text.c_str()));
    else if (!o.file.empty())
        msg.set_attachment(readFile(o.file));
    return msg;
}

/* Sends msg once; a send that finds the publish window full waits for room. */
void sendOne(CommandSession &session, velclient::Message &msg)
{
    for (;;) {
        const std::uint64_t canSend = session.state().canSend;
        const velClient_returnCode_t rc = velClient_session_sendMsg(session.handle(), msg.handle());
        if (rc != VELCLIENT_WOULD_BLOCK) {
            check(rc);
            return;
        }
        session.waitUntil([&](const SessionState &s) { return s.canSend > canSend || s.down; },
                          std::chrono::hours(1));
        if (session.state().down)
            throw std::runtime_error("the session went down before every message was sent");
    }
}

/* Waits for the outcome of every message sent, reports the refusals and returns the exit status. */
int settle(const char *program, CommandSession &session, std::uint64_t sent, const std::vector<char> &tags)
{
    auto outcomes = [&](const SessionState &s) { return s.acknowledged + s.rejected.size(); };
    while (!session.waitUntil([&](const SessionState &s) { return outcomes(s) >= sent || s.down; },
                              std::chrono::hours(1))) {
    }
    session.waitUntil([&](const SessionState &s) { return outcomes(s) >= sent; }, kDownGrace);
    const SessionState s = session.state();
    for (const auto &[tag, text] : s.rejected)
        std::fprintf(stderr, "%s: message %td refused: %s\n", program, static_cast<const char *>(tag) - tags.data() + 1,
                     text.c_str());
    std::fprintf(stderr, "%s: %llu sent, %llu acknowledged, %zu refused\n", program,
                 static_cast<unsigned long long>(sent), static_cast<unsigned long long>(s.acknowledged),
                 s.rejected.size());
    return s.acknowledged == sent ? kExitOk : kExitFailure;
}

int send(const char *program, int argc, char **argv)
{
    SendOptions o;
    if (!parse(argc, argv, o)) {
        usage(program);
        return kExitOk;
    }
    velclient::Library library(VELCLIENT_LOG_ERROR);
    velclient::Message msg = build(o);
    CommandSession session(program, o.session, nullptr);
    const bool acknowledged = o.session.isBroker() && o.mode != VELCLIENT_DELIVERY_MODE_DIRECT;
    /* Each acknowledged message's correlation tag is its own byte here: the outcome events name it. */
    std::vector<char> tags(acknowledged ? o.count : 0);
    for (std::uint64_t i = 0; i < o.count; ++i) {
        if (o.dump) {
            check(velClient_msg_setCorrelationTagPtr(msg.handle(), nullptr, 0));
            printMessageDump("--- message " + std::to_string(i + 1), msg.handle(), VELCLIENT_MSGDUMP_FULL);
        }
        if (acknowledged)
            check(velClient_msg_setCorrelationTagPtr(msg.handle(), &tags[i], 1));
        sendOne(session, msg);
    }
    if (acknowledged)
        return settle(program, session, o.count, tags);
    std::fprintf(stderr, "%s: %llu sent\n", program, static_cast<unsigned long long>(o.count));
    return kExitOk;
}

} // namespace

int sendCommand(const char *program, int argc, char **argv)
{
    return runGuarded(program, [&] { return send(program, argc, argv); });
}

} // namespace vel::tool
