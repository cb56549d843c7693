/* The velclient command against the broker: what send puts on a queue, receive
 * prints; client acknowledgement leaves unprinted messages on the queue;
 * SIGTERM ends receive cleanly; refused messages give status 1. */
#include <signal.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "broker/brokerFixture.h"
#include "support/toolProcess.h"

#ifdef VELCLIENT_TOOL

namespace veltest::broker {

namespace {

/* "velclient <command> --host <broker> <args>". */
ToolResult tool(const std::string &command, const std::string &args)
{
    return runTool(VELCLIENT_TOOL, command + " --host " + host() + " " + args);
}

} // namespace

TEST(BrokerTool, ReceivePrintsWhatSendPutOnAQueue)
{
    const std::string queue = unique("toolq");
    ToolProcess receiver(VELCLIENT_TOOL, "receive --host " + host() + " --queue " + queue + " --count 4 --timeout 30000");
    const ToolResult sent = tool("send", "--queue " + queue + " " + kToolSendPersistent);
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ("velclient send: 3 sent, 3 acknowledged, 0 refused\n", sent.err);
    /* A direct message goes out before the command disconnects. */
    EXPECT_EQ(0, tool("send", "--queue " + queue + " " + kToolSendDirect).status);
    const ToolResult got = receiver.finish();
    EXPECT_EQ(0, got.status) << got.err;
    const std::vector<std::string> messages = receivedDumps(got.out);
    ASSERT_EQ(4u, messages.size()) << got.out;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::string &m = messages[i];
        EXPECT_EQ(0u, m.find("--- message " + std::to_string(i + 1) + "\n")) << m;
        EXPECT_NE(std::string::npos, m.find("Destination:                            Queue '" + queue + "'\n")) << m;
        expectToolSent(m, i);
    }
}

TEST(BrokerTool, ClientAcknowledgementLeavesUnprintedMessagesOnTheQueue)
{
    const std::string queue = unique("toolack");
    ASSERT_EQ(0, tool("send", "--queue " + queue + " --count 3 --mode persistent --text m").status);
    const ToolResult two = tool("receive", "--queue " + queue + " --ack client --count 2 --sizes");
    EXPECT_EQ(0, two.status) << two.err;
    EXPECT_EQ(2u, receivedDumps(two.out).size()) << two.out;
    const ToolResult rest = tool("receive", "--queue " + queue + " --timeout 2000 --sizes");
    EXPECT_EQ(0, rest.status) << rest.err;
    EXPECT_EQ(1u, receivedDumps(rest.out).size()) << rest.out;
    const ToolResult none = tool("receive", "--queue " + queue + " --count 1 --timeout 1000");
    EXPECT_EQ(1, none.status);
    EXPECT_EQ("velclient receive: 0 of 1 messages before 1000 ms of silence\n", none.err);
}

TEST(BrokerTool, SigtermEndsReceiveCleanly)
{
    const std::string queue = unique("toolterm"), pidFile = "/tmp/" + unique("velclient-tool-pid");
    ASSERT_EQ(0, tool("send", "--queue " + queue + " --text m").status);
    ToolProcess receiver(VELCLIENT_TOOL, "receive --host " + host() + " --queue " + queue, pidFile);
    std::string line;
    ASSERT_TRUE(receiver.readLine(line));
    EXPECT_EQ("--- message 1", line);
    pid_t pid = 0;
    std::ifstream(pidFile) >> pid;
    std::remove(pidFile.c_str());
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGTERM));
    const ToolResult r = receiver.finish();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
}

TEST(BrokerTool, RefusedMessagesAreReportedWithStatus1)
{
    /* An exchange that does not exist refuses the sender's attach, and with it each message. */
    const ToolResult r = tool("send", "--topic a --count 2 --mode persistent --text m --property "
                                      "SESSION_AMQP_TOPIC_PREFIX=/exchange/" +
                                          unique("missing") + "/");
    EXPECT_EQ(1, r.status) << r.err;
    for (const char *text : {"velclient send: message 1 refused: ", "velclient send: message 2 refused: ",
                             "velclient send: 2 sent, 0 acknowledged, 2 refused\n"})
        EXPECT_NE(std::string::npos, r.err.find(text)) << r.err;
}

} // namespace veltest::broker

#endif
