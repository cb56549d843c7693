/* The broker example and the velclient command against the run's broker. On
 * either transport the example's subscriber gets both prices and its requester
 * the reply through its inbox. On AMQP, the command's receive with client
 * acknowledgement leaves unprinted messages on the queue, and SIGTERM ends it
 * cleanly. */
#include <signal.h>

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

TEST(AmqpTool, ClientAcknowledgementLeavesUnprintedMessagesOnTheQueueAndSigtermEndsReceiveCleanly)
{
    /* "velclient <command> --transport <the run's> --host <broker> <args>". */
    auto line = [](const std::string &command, const std::string &args) {
        return command + " --transport " + broker().transport() + " --host " + broker().host() + " " + args;
    };
    auto tool = [&](const std::string &command, const std::string &args) {
        return runTool(VELCLIENT_TOOL, line(command, args));
    };
    const std::string queue = unique("toolack"), pidFile = "/tmp/" + unique("velclient-tool-pid");
    ASSERT_EQ(0, tool("send", "--queue " + queue + " --count 3 --mode persistent --text m").status);
    const ToolResult two = tool("receive", "--queue " + queue + " --ack client --count 2 --sizes");
    EXPECT_EQ(0, two.status) << two.err;
    EXPECT_TRUE(two.out.find("--- message 2") != std::string::npos && two.out.find("--- message 3") == two.out.npos)
        << two.out;
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
    EXPECT_EQ(std::string::npos, r.out.find("--- message 2")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Destination:                            Queue '" + queue + "'\n"));
    const ToolResult none = tool("receive", "--queue " + unique("toolempty") + " --count 1 --timeout 1000");
    EXPECT_EQ(1, none.status);
    EXPECT_EQ("velclient receive: 0 of 1 messages before 1000 ms of silence\n", none.err);
}

#endif

} // namespace

} // namespace veltest::broker
