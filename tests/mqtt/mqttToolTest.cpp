/* The velclient command on mosquitto: receive --transport mqtt prints what
 * send --transport mqtt publishes under its wildcard, persistent messages
 * acknowledged one by one and a direct one among them. */
#include <algorithm>
#include <atomic>
#include <thread>

#include "support/brokerClient.h"
#include "support/toolProcess.h"

#ifdef VELCLIENT_TOOL

namespace veltest::broker {

namespace {

/* "velclient <command> --transport mqtt --host <broker> <args>". */
std::string line(const std::string &command, const std::string &args)
{
    return command + " --transport mqtt --host " + host() + " " + args;
}

/* The dumps in receive's output whose destination is topic. */
std::vector<std::string> dumpsTo(const std::string &out, const std::string &topic)
{
    std::vector<std::string> found = receivedDumps(out);
    const std::string destination = "Destination:                            Topic '" + topic + "'\n";
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const std::string &dump) { return dump.find(destination) == std::string::npos; }),
                found.end());
    return found;
}

} // namespace

TEST(MqttTool, ReceivePrintsWhatSendPublishesUnderItsWildcard)
{
    const std::string base = unique("tool"), topic = base + "/eu/widgets", ready = base + "/ready";
    /* The receiver is subscribed once it prints a message sent under its wildcard: until then the test keeps
     * sending one. */
    ToolProcess receiver(VELCLIENT_TOOL, line("receive", "--topic '" + base + "/>' --timeout 3000"));
    std::atomic<bool> heard{false};
    std::thread probe([&] {
        for (int i = 0; i < 100 && !heard; ++i) {
            runTool(VELCLIENT_TOOL, line("send", "--topic " + ready));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    std::string first;
    const bool any = receiver.readLine(first);
    heard = true;
    probe.join();
    ASSERT_TRUE(any);
    EXPECT_EQ("--- message 1", first);

    const ToolResult sent = runTool(VELCLIENT_TOOL, line("send", "--topic " + topic + " " + kToolSendPersistent));
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ("velclient send: 3 sent, 3 acknowledged, 0 refused\n", sent.err);
    EXPECT_EQ(0, runTool(VELCLIENT_TOOL, line("send", "--topic " + topic + " " + kToolSendDirect)).status);
    const ToolResult got = receiver.finish();
    EXPECT_EQ(0, got.status) << got.err;
    const std::vector<std::string> messages = dumpsTo(got.out, topic);
    ASSERT_EQ(4u, messages.size()) << got.out;
    for (std::size_t i = 0; i < messages.size(); ++i)
        expectToolSent(messages[i], i);
}

} // namespace veltest::broker

#endif
