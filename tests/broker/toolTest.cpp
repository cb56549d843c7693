/* The velclient command and the broker example against the run's broker.
 * On either transport: receive prints what send publishes under its wildcard,
 * persistent messages acknowledged one by one and a direct one among them;
 * the example's subscriber gets both prices and its requester the reply. On
 * AMQP: client acknowledgement leaves unprinted messages on the queue; SIGTERM
 * ends receive cleanly; refused messages give status 1. */
#include <signal.h>

#include <algorithm>
#include <fstream>

#include "support/brokerSupport.h"
#include "support/toolProcess.h"

namespace veltest::broker {

namespace {

#ifdef VELCLIENT_BROKER_EXAMPLE

TEST(BrokerExample, PublishSubscribeAndRequestReplyRun)
{
    const ToolResult run = runTool(VELCLIENT_BROKER_EXAMPLE, broker().host() + " " + broker().transport());
    EXPECT_EQ(0, run.status) << run.err;
    for (const char *line : {"subscriber: prices/eu/widgets costs 12.50 EUR\n",
                             "subscriber: prices/us/widgets costs 13.75 USD\n",
                             "requester: reply to quote-42 in inbox 'quotes': widgets at 12.40 EUR until noon\n"})
        EXPECT_NE(std::string::npos, run.out.find(line)) << run.out;
}

#endif
#ifdef VELCLIENT_TOOL

/* "velclient <command> --transport <the run's> --host <broker> <args>". */
std::string line(const std::string &command, const std::string &args)
{
    return command + " --transport " + broker().transport() + " --host " + broker().host() + " " + args;
}

ToolResult tool(const std::string &command, const std::string &args)
{
    return runTool(VELCLIENT_TOOL, line(command, args));
}

TEST(BrokerTool, ReceivePrintsWhatSendPublishesUnderItsWildcard)
{
    const std::string base = unique("tool"), topic = base + "/eu/widgets";
    /* The receiver is subscribed once it prints a message sent under its wildcard: until then the test keeps
     * sending one. */
    ToolProcess receiver(VELCLIENT_TOOL, line("receive", "--topic '" + base + "/>' --timeout 3000"));
    std::atomic<bool> heard{false};
    std::thread probe([&] {
        for (int i = 0; i < 100 && !heard; ++i) {
            tool("send", "--topic " + base + "/ready");
            std::this_thread::sleep_for(100ms);
        }
    });
    std::string first;
    const bool any = receiver.readLine(first);
    heard = true;
    probe.join();
    ASSERT_TRUE(any);
    EXPECT_EQ("--- message 1", first);

    const ToolResult sent = tool("send", "--topic " + topic + " " + kToolSendPersistent);
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ("velclient send: 3 sent, 3 acknowledged, 0 refused\n", sent.err);
    EXPECT_EQ(0, tool("send", "--topic " + topic + " " + kToolSendDirect).status);
    const ToolResult got = receiver.finish();
    EXPECT_EQ(0, got.status) << got.err;
    std::vector<std::string> messages = receivedDumps(got.out);
    const std::string destination = "Destination:                            Topic '" + topic + "'\n";
    std::erase_if(messages, [&](const std::string &dump) { return dump.find(destination) == std::string::npos; });
    ASSERT_EQ(4u, messages.size()) << got.out;
    for (std::size_t i = 0; i < messages.size(); ++i)
        expectToolSent(messages[i], i);
}

TEST(AmqpTool, ClientAcknowledgementLeavesUnprintedMessagesOnTheQueueAndSigtermEndsReceiveCleanly)
{
    const std::string queue = unique("toolack"), pidFile = "/tmp/" + unique("velclient-tool-pid");
    ASSERT_EQ(0, tool("send", "--queue " + queue + " --count 3 --mode persistent --text m").status);
    const ToolResult two = tool("receive", "--queue " + queue + " --ack client --count 2 --sizes");
    EXPECT_EQ(0, two.status) << two.err;
    EXPECT_EQ(2u, receivedDumps(two.out).size()) << two.out;
    /* The third is left: a receive without a count prints it and ends on SIGTERM; an empty queue gives status 1. */
    ToolProcess rest(VELCLIENT_TOOL, line("receive", "--queue " + queue), pidFile);
    std::string first;
    ASSERT_TRUE(rest.readLine(first));
    EXPECT_EQ("--- message 1", first);
    pid_t pid = 0;
    std::ifstream(pidFile) >> pid;
    std::remove(pidFile.c_str());
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGTERM));
    const ToolResult r = rest.finish();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(1u, receivedDumps(r.out).size()) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Destination:                            Queue '" + queue + "'\n"));
    const ToolResult none = tool("receive", "--queue " + unique("toolempty") + " --count 1 --timeout 1000");
    EXPECT_EQ(1, none.status);
    EXPECT_EQ("velclient receive: 0 of 1 messages before 1000 ms of silence\n", none.err);
}

TEST(AmqpTool, RefusedMessagesAreReportedWithStatus1)
{
    /* An exchange that does not exist refuses the sender's attach, and with it each message. */
    const ToolResult r = tool("send", "--topic a --count 2 --mode persistent --text m --property "
                                      "SESSION_AMQP_TOPIC_PREFIX=/exchange/" + unique("missing") + "/");
    EXPECT_EQ(1, r.status) << r.err;
    for (const char *text : {"velclient send: message 1 refused: ", "velclient send: message 2 refused: ",
                             "velclient send: 2 sent, 0 acknowledged, 2 refused\n"})
        EXPECT_NE(std::string::npos, r.err.find(text)) << r.err;
}

#endif

} // namespace

} // namespace veltest::broker
