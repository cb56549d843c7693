/* MQTT sessions when the broker or the network fails: a broker restarted
 * without its state gets the subscriptions and the inbox back from the
 * sessions; a broker killed (SIGTERM, then SIGKILL) amid QoS 1 sends loses
 * none of them; and the network faults of brokerFaults.h. */
#include <cstdio>
#include <set>
#include <thread>

#include "support/brokerClient.h"
#include "support/brokerFaults.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

/* Reconnecting for as long as a restart takes. */
const std::vector<std::string> kPatient = {"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "100"};

std::vector<std::string> withProps(std::vector<std::string> props, const std::vector<std::string> &more)
{
    props.insert(props.end(), more.begin(), more.end());
    return props;
}

/* Numbered messages sent in a thread of their own until stopped. */
class NumberedSends {
public:
    NumberedSends(Client &c, std::string topic) : client_(c), topic_(std::move(topic)) {}
    ~NumberedSends() { stop(); }
    void start()
    {
        stop_ = false;
        thread_ = std::thread([this] {
            while (!stop_) {
                velClient_returnCode_t rc =
                    send(client_, topic_, false, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::to_string(sent_.load()));
                EXPECT_NE(VELCLIENT_FAIL, rc) << veltest::lastErrorText();
                sent_ += rc == VELCLIENT_OK;
                std::this_thread::sleep_for(1ms);
            }
        });
    }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    int sent() const { return sent_; }

private:
    Client &client_;
    std::string topic_;
    std::atomic<bool> stop_{false};
    std::atomic<int> sent_{0};
    std::thread thread_;
};

} // namespace

TEST(MqttFaults, ABrokerRestartedWithoutItsStateGetsTheSubscriptionsBack)
{
    std::string name = unique("restored-");
    Client reader(withProps(kPatient, {"SESSION_CLIENT_NAME", name})), writer(kPatient);
    ASSERT_TRUE(connectAll(reader, writer));
    std::string root = unique("restored");
    reader.subscribeAndSync(root + "/>");
    killBroker("KILL");
    ASSERT_EQ(0, std::remove((broker().dir() + "/mosquitto.db").c_str())) << "no saved state to remove";
    restartBroker();
    for (Client *c : {&reader, &writer}) {
        ASSERT_TRUE(c->waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 30s));
        EXPECT_EQ(1u, c->countEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
        std::vector<Event> events = c->events();
        auto at = [&](velClient_session_event_t e) {
            return std::find_if(events.begin(), events.end(), [&](const Event &x) { return x.event == e; });
        };
        EXPECT_LT(at(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE), at(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
        EXPECT_EQ(0u, c->countEvents(VELCLIENT_SESSION_EVENT_DOWN_ERROR));
    }
    reader.sync();
    ASSERT_EQ(VELCLIENT_OK, send(writer, root + "/a/b", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "topic"));
    ASSERT_EQ(VELCLIENT_OK,
              send(writer, "#P2P/v:127.0.0.1/" + name + "/x", false, VELCLIENT_DELIVERY_MODE_DIRECT, "inbox"));
    ASSERT_TRUE(reader.waitMessages(2));
    std::vector<velClient_opaqueMsg_pt> got = reader.messages();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ("topic", attachmentOf(got[0]));
    EXPECT_EQ("inbox", attachmentOf(got[1]));
    freeAll(got);
}

TEST(MqttFaults, ABrokerKilledAmidQos1SendsLosesNoMessage)
{
    /* A full window answers at once, so the sends stop at once. The reader comes back later than the
     * sender: what is published meanwhile waits for it in its session on the broker. */
    Client sender(withProps(kPatient, {"SESSION_SEND_BLOCKING", "0"}));
    Client reader({"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "1500"});
    ASSERT_TRUE(connectAll(sender, reader));
    std::string topic = unique("killed/t");
    reader.subscribeAndSync(topic);
    NumberedSends sends(sender, topic);
    std::size_t markers = 0;
    auto acknowledgementsFlow = [&] {
        std::size_t acknowledged = sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT);
        return sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, acknowledged + 100, 60s);
    };
    for (std::size_t round = 1; round <= 2; ++round) {
        const char *signal = round == 1 ? "TERM" : "KILL";
        sends.start();
        ASSERT_TRUE(acknowledgementsFlow()) << signal;
        if (round == 2) {
            /* The broker acknowledges a publish before it saves it at the end of that pass of its
             * loop: once all are acknowledged, the acknowledgement of one more publish, taken in a
             * later pass, says the save is done. Sends go on while it is away. */
            sends.stop();
            ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sends.sent() + markers, 30s));
            ASSERT_EQ(VELCLIENT_OK, send(sender, unique("marker/t"), false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "m"));
            ++markers;
            ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sends.sent() + markers, 30s));
        }
        killBroker(signal);
        if (round == 2)
            sends.start();
        restartBroker();
        ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, round, 30s)) << signal;
        ASSERT_TRUE(acknowledgementsFlow()) << signal << " after the restart";
        sends.stop();
    }
    /* Each message has exactly one outcome, an acknowledgement, and the reader has every one. */
    const int sent = sends.sent();
    EXPECT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sent + markers, 30s));
    EXPECT_EQ(sent + markers, sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(0u, sender.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    /* The reader, slower to come back, may still be away from the first restart at the second. */
    EXPECT_TRUE(reader.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 30s));
    EXPECT_TRUE(reader.waitMessages(sent, 30s));
    reader.sync();
    std::set<int> seen;
    std::vector<velClient_opaqueMsg_pt> got = reader.messages();
    for (velClient_opaqueMsg_pt m : got)
        seen.insert(std::stoi(attachmentOf(m)));
    freeAll(got);
    std::size_t duplicates = got.size() - seen.size();
    RecordProperty("duplicates", static_cast<int>(duplicates));
    std::printf("%d QoS 1 messages across SIGTERM and SIGKILL of the broker: %zu duplicates\n", sent, duplicates);
    std::string lost;
    for (int i = 0; i < sent && lost.size() < 200; ++i)
        if (seen.count(i) == 0)
            lost.append(" ").append(std::to_string(i));
    EXPECT_EQ(static_cast<std::size_t>(sent), seen.size())
        << "lost " << sent - static_cast<int>(seen.size()) << ", the first:" << lost;
    EXPECT_TRUE(seen.empty() || (*seen.begin() == 0 && *seen.rbegin() == sent - 1));
}

TEST(MqttFaults, AResetConnectionResendsAndRestoresSubscriptions)
{
    resetConnectionResendsAndRestores(false);
}

TEST(MqttFaults, ABrokerThatStaysAwayEndsInDownError)
{
    brokerThatStaysAwayEndsInDownError(false);
}

TEST(MqttFaults, ASilentBrokerIsNoticedThroughTheKeepalive)
{
    /* 5 s, the shortest keepalive MQTT clients use: noticed within twice that. */
    silentBrokerIsNoticed("5000", 15s);
}
