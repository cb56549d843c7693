/* The velclient command on mosquitto: receive --transport mqtt prints what
 * send --transport mqtt publishes under its wildcard, persistent messages
 * acknowledged one by one and a direct one among them. */
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
    std::vector<std::string> found;
    for (std::size_t at = out.find("--- message "); at != std::string::npos;) {
        const std::size_t next = out.find("--- message ", at + 1);
        std::string dump = out.substr(at, next == std::string::npos ? std::string::npos : next - at);
        if (dump.find("Destination:                            Topic '" + topic + "'\n") != std::string::npos)
            found.push_back(dump);
        at = next;
    }
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

    const ToolResult sent = runTool(VELCLIENT_TOOL, line("send", "--topic " + topic +
                                                                     " --count 3 --mode persistent --ttl 60000 "
                                                                     "--user-property n:int32=5 --text hello"));
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ("velclient send: 3 sent, 3 acknowledged, 0 refused\n", sent.err);
    EXPECT_EQ(0, runTool(VELCLIENT_TOOL, line("send", "--topic " + topic + " --text last")).status);
    const ToolResult got = receiver.finish();
    EXPECT_EQ(0, got.status) << got.err;
    const std::vector<std::string> messages = dumpsTo(got.out, topic);
    ASSERT_EQ(4u, messages.size()) << got.out;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::string &m = messages[i];
        const bool last = i == 3;
        EXPECT_NE(std::string::npos, m.find(last ? "DeliveryMode:                           DIRECT\n"
                                                 : "DeliveryMode:                           PERSISTENT\n"))
            << m;
        EXPECT_EQ(!last, m.find("TimeToLive:                             60000\n") != std::string::npos) << m;
        EXPECT_EQ(!last, m.find("  Key 'n' (INT32) 5\n") != std::string::npos) << m;
        EXPECT_NE(std::string::npos, m.find(last ? "  6c 61 73 74 " : "  68 65 6c 6c 6f ")) << m;
    }
}

} // namespace veltest::broker

#endif
