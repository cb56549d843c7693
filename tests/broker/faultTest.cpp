/* Broker sessions when the network or the broker fails, through a relay the
 * test controls: a reset connection reconnects, restores its subscriptions and
 * resends what was not acknowledged; a broker that stays away ends in
 * DOWN_ERROR; a silent one times a connect out and is noticed through the keepalive; a full publish
 * window blocks until there is room or it times out, or answers WOULD_BLOCK
 * and then CAN_SEND. The broker killed (SIGTERM, then SIGKILL) and restarted
 * amid guaranteed sends loses none; restarted without its state (MQTT), it
 * gets the subscriptions again. */
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <optional>

#include "support/brokerSupport.h"
#include "support/velTestSupport.h"

namespace {

using namespace veltest::broker;

/* A TCP relay between sessions and the broker, on a free port of 127.0.0.1,
 * that a test can cut (every relayed connection reset), pause (bytes held
 * back in both directions, as from a dead peer) or end (every connection
 * reset, new ones refused): the faults of a network, made on demand. One thread polls the
 * listener and both ends of every relayed connection. */
class Proxy {
public:
    Proxy() : listener_(listening(port_)), thread_(&Proxy::run, this) {}
    ~Proxy()
    {
        stop_ = true;
        thread_.join();
        cutAll();
        close(listener_);
    }

    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    /* Resets every connection relayed now, within 10 ms. */
    void cut() { cut_ = true; }
    void pause(bool on) { paused_ = on; }

private:
    static sockaddr_in loopback(int port)
    {
        return sockaddr_in{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    }
    static int listening(int &port)
    {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(0);
        bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        listen(fd, 16);
        socklen_t len = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
        port = ntohs(addr.sin_port);
        return fd;
    }
    /* Moves what from holds to to; false when either end is gone. */
    static bool relay(int from, int to)
    {
        char buf[16384];
        ssize_t got = read(from, buf, sizeof buf);
        for (ssize_t sent = 0, n = 0; sent < got; sent += n)
            if ((n = write(to, buf + sent, static_cast<std::size_t>(got - sent))) <= 0)
                return false;
        return got > 0;
    }
    void cutAll()
    {
        for (auto [client, toBroker] : pairs_) {
            linger hard{1, 0}; /* a reset, as from a crashed peer */
            setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            close(client);
            close(toBroker);
        }
        pairs_.clear();
    }
    void accept()
    {
        int client = ::accept(listener_, nullptr, nullptr), toBroker = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(broker().port);
        connect(toBroker, reinterpret_cast<sockaddr *>(&addr), sizeof addr); /* when it fails, the pair dies */
        pairs_.emplace_back(client, toBroker);
    }
    void run()
    {
        while (!stop_) {
            if (cut_.exchange(false))
                cutAll();
            std::vector<pollfd> fds = {{listener_, POLLIN, 0}};
            for (auto [client, toBroker] : paused_ ? decltype(pairs_){} : pairs_) {
                fds.push_back({client, POLLIN, 0});
                fds.push_back({toBroker, POLLIN, 0});
            }
            if (poll(fds.data(), fds.size(), 10) <= 0)
                continue;
            if (fds[0].revents & POLLIN)
                accept();
            for (std::size_t i = 1; i + 1 < fds.size(); i += 2) {
                auto &[client, toBroker] = pairs_[i / 2];
                const short ready = POLLIN | POLLHUP | POLLERR;
                if (((fds[i].revents & ready) && !relay(client, toBroker)) ||
                    ((fds[i + 1].revents & ready) && !relay(toBroker, client))) {
                    close(std::exchange(client, -1));
                    close(toBroker);
                }
            }
            std::erase_if(pairs_, [](const std::pair<int, int> &p) { return p.first < 0; });
        }
    }

    int port_ = 0;
    int listener_;
    std::atomic<bool> stop_{false}, paused_{false}, cut_{false};
    std::vector<std::pair<int, int>> pairs_; /* client, broker */
    std::thread thread_;
};

/* A queue on AMQP, a topic on MQTT (which has no queues). */
std::string target(const std::string &stem)
{
    return unique(broker().amqp ? stem + "-q" : stem + "/t");
}

TEST(BrokerFaults, AResetConnectionReconnectsResendsAndRestoresSubscriptionsOneThatStaysAwayEndsInDownError)
{
    std::optional<Proxy> proxy(std::in_place);
    Client through({"SESSION_HOST", proxy->host(), "SESSION_RECONNECT_RETRY_WAIT_MS", "100", "SESSION_RECONNECT_RETRIES",
                    "3"});
    Client once({"SESSION_HOST", proxy->host(), "SESSION_RECONNECT_RETRIES", "0"}), reader;
    ASSERT_TRUE(connectAll(through, once, reader));
    const std::string to = target("resend"), topic = unique("restored/t");
    reader.subscribe(to, broker().amqp);
    through.subscribe(topic);
    constexpr int kCount = 200;
    for (int i = 0; i < kCount; ++i) {
        if (i == kCount / 2)
            proxy->cut();
        ASSERT_EQ(VELCLIENT_OK, send(through, to, broker().amqp, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::to_string(i)))
            << veltest::lastErrorText();
    }
    ASSERT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1));
    EXPECT_EQ(1u, through.countEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, kCount));
    EXPECT_EQ(0u, through.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    /* None lost; duplicates are allowed. */
    std::multiset<std::string> got = reader.bodies(kCount, 30s);
    EXPECT_EQ(static_cast<std::size_t>(kCount), std::set<std::string>(got.begin(), got.end()).size());
    /* The topic subscription came back with the connection. */
    ASSERT_EQ(VELCLIENT_OK, send(reader, topic, false, VELCLIENT_DELIVERY_MODE_DIRECT, "after"));
    EXPECT_EQ(std::multiset<std::string>{"after"}, through.bodies(1));
    /* Without retries the lost connection was the end, with no attempt to come back. */
    ASSERT_TRUE(once.waitEvents(VELCLIENT_SESSION_EVENT_DOWN_ERROR, 1));
    EXPECT_EQ(0u, once.countEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    /* A broker that stays away: the unacknowledged message is rejected and the session goes down. */
    static int tag;
    proxy->pause(true);
    ASSERT_EQ(VELCLIENT_OK, send(through, to, broker().amqp, VELCLIENT_DELIVERY_MODE_PERSISTENT, "lost", &tag));
    proxy.reset(); /* its connection reset, new ones refused */
    ASSERT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_DOWN_ERROR, 1));
    const std::vector<Event> rejected = through.events(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR);
    ASSERT_EQ(1u, rejected.size());
    EXPECT_EQ(&tag, rejected[0].correlation_p);
    EXPECT_EQ("session down", rejected[0].info);
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_FAIL, send(through, to, broker().amqp, VELCLIENT_DELIVERY_MODE_PERSISTENT, "late"));
    EXPECT_EQ(VELCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, veltest::lastSubCode());
}

TEST(BrokerFaults, ASilentBrokerTimesTheConnectOutAndIsNoticedThroughTheKeepalive)
{
    Proxy proxy;
    proxy.pause(true); /* the connection is taken, the handshake never answered */
    Client timesOut({"SESSION_HOST", proxy.host(), "SESSION_CONNECT_TIMEOUT_MS", "300"});
    velClient_resetLastErrorInfo();
    EXPECT_EQ(VELCLIENT_FAIL, velClient_session_connect(timesOut.session()));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_TIMEOUT, "Could not connect to " + proxy.host() +
                                                     " (no answer within 300 ms) in velClient_session_connect");
    /* The shortest keepalive each transport takes (5 s for MQTT); the default of 30 s would run out the wait. */
    proxy.pause(false);
    Client through({"SESSION_HOST", proxy.host(), "SESSION_KEEPALIVE_MS", broker().amqp ? "1000" : "5000"});
    ASSERT_TRUE(connectAll(through));
    proxy.pause(true);
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, 1, 15s));
    proxy.pause(false);
    EXPECT_TRUE(through.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 30s));
}

TEST(BrokerFaults, AFullPublishWindowBlocksOrWouldBlock)
{
    Proxy proxy;
    const std::string to = target("window");
    const bool q = broker().amqp;
    {
        Client blocking(
            {"SESSION_HOST", proxy.host(), "SESSION_PUB_WINDOW_SIZE", "1", "SESSION_SEND_TIMEOUT_MS", "300"});
        ASSERT_TRUE(connectAll(blocking));
        proxy.pause(true);
        static int tag;
        ASSERT_EQ(VELCLIENT_OK, send(blocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "1", &tag));
        /* Direct messages take no place in the window. */
        EXPECT_EQ(VELCLIENT_OK, send(blocking, to, q, VELCLIENT_DELIVERY_MODE_DIRECT, "d"));
        EXPECT_EQ(VELCLIENT_FAIL, send(blocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "2"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_TIMEOUT,
                          "No room in the publish window within 300 ms in velClient_session_sendMsg");
        /* A send that waits gets the room the first acknowledgement makes. */
        std::jthread resume([&] {
            std::this_thread::sleep_for(50ms);
            proxy.pause(false);
        });
        EXPECT_EQ(VELCLIENT_OK, send(blocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "3"));
        ASSERT_TRUE(blocking.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 2));
        EXPECT_EQ(&tag, blocking.events()[1].correlation_p) << "the first acknowledgement, after UP_NOTICE";
    }
    Client nonBlocking({"SESSION_HOST", proxy.host(), "SESSION_PUB_WINDOW_SIZE", "2", "SESSION_SEND_BLOCKING", "0"});
    ASSERT_TRUE(connectAll(nonBlocking));
    proxy.pause(true);
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "1"));
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, to, q, VELCLIENT_DELIVERY_MODE_NONPERSISTENT, "2"));
    EXPECT_EQ(VELCLIENT_WOULD_BLOCK, send(nonBlocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "3"));
    EXPECT_EQ(0u, nonBlocking.countEvents(VELCLIENT_SESSION_EVENT_CAN_SEND));
    proxy.pause(false);
    EXPECT_TRUE(nonBlocking.waitEvents(VELCLIENT_SESSION_EVENT_CAN_SEND, 1));
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, to, q, VELCLIENT_DELIVERY_MODE_PERSISTENT, "3"));
    EXPECT_TRUE(nonBlocking.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 3));
}

TEST(BrokerFaults, ABrokerKilledAmidGuaranteedSendsLosesNoMessage)
{
    /* Reconnecting for as long as a restart takes; a full window answers at once, so the sends stop at once.
     * The reader comes back later than the sender: what is sent meanwhile waits for it on the broker. */
    Client sender({"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "100", "SESSION_SEND_BLOCKING",
                   "0"});
    Client reader({"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "1500"});
    ASSERT_TRUE(connectAll(sender, reader));
    const std::string to = target("killed");
    reader.subscribe(to, broker().amqp);
    /* Numbered messages, sent in a thread of their own from sends = std::jthread(numbered) to sends = {}. */
    std::atomic<int> sent{0};
    auto numbered = [&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            const velClient_returnCode_t rc =
                send(sender, to, broker().amqp, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::to_string(sent.load()));
            EXPECT_NE(VELCLIENT_FAIL, rc) << veltest::lastErrorText();
            sent += rc == VELCLIENT_OK;
            std::this_thread::sleep_for(1ms);
        }
    };
    std::jthread sends;
    std::size_t markers = 0;
    auto acknowledgementsFlow = [&] {
        std::size_t acknowledged = sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT);
        return sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, acknowledged + 100, 60s);
    };
    for (std::size_t round = 1; round <= 2; ++round) {
        const char *signal = round == 1 ? "TERM" : "KILL";
        sends = std::jthread(numbered);
        ASSERT_TRUE(acknowledgementsFlow()) << signal;
        if (round == 2) {
            /* A broker may acknowledge a message before it has saved it, at the end of that pass of its
             * loop: once all are acknowledged, the acknowledgement of one more, taken in a later pass,
             * says the save is done. Sends go on while it is away. */
            sends = {};
            ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sent + markers, 30s));
            ASSERT_EQ(VELCLIENT_OK,
                      send(sender, target("marker"), broker().amqp, VELCLIENT_DELIVERY_MODE_PERSISTENT, "m"));
            ++markers;
            ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sent + markers, 30s));
        }
        broker().kill(signal);
        if (round == 2)
            sends = std::jthread(numbered);
        broker().restart();
        ASSERT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, round, 120s)) << signal;
        ASSERT_TRUE(acknowledgementsFlow()) << signal << " after the restart";
        sends = {};
    }
    /* Each message has exactly one outcome, an acknowledgement, and the reader has every one. */
    EXPECT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sent + markers, 60s));
    EXPECT_EQ(sent + markers, sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(0u, sender.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    /* The reader, slower to come back, may still be away from the first restart at the second. */
    EXPECT_TRUE(reader.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 60s));
    std::set<int> seen;
    for (const std::string &body : reader.bodies(sent, 60s))
        seen.insert(std::stoi(body));
    EXPECT_EQ(static_cast<std::size_t>(sent), seen.size()) << "lost " << sent - static_cast<int>(seen.size());
    EXPECT_TRUE(seen.empty() || (*seen.begin() == 0 && *seen.rbegin() == sent - 1));
}

/* A broker that comes back without the sessions it saved owes them nothing: the subscriptions are made again. */
TEST(MqttFaults, ABrokerRestartedWithoutItsStateGetsTheSubscriptionsBack)
{
    const std::string name = unique("restored-"), root = unique("restored");
    Client reader(
        {"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "100", "SESSION_CLIENT_NAME", name});
    Client writer({"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "100"});
    ASSERT_TRUE(connectAll(reader, writer));
    reader.subscribe(root + "/>");
    broker().kill("KILL");
    ASSERT_EQ(0, std::remove((broker().dir + "/mosquitto.db").c_str())) << "no saved state to remove";
    broker().restart();
    for (Client *c : {&reader, &writer}) {
        ASSERT_TRUE(c->waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 1, 30s));
        const std::vector<Event> events = c->events();
        ASSERT_EQ(3u, events.size());
        EXPECT_EQ(VELCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, events[1].event);
        EXPECT_EQ(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, events[2].event);
    }
    reader.sync();
    ASSERT_EQ(VELCLIENT_OK, send(writer, root + "/a/b", false, VELCLIENT_DELIVERY_MODE_PERSISTENT, "topic"));
    ASSERT_EQ(VELCLIENT_OK, send(writer, "#P2P/v:127.0.0.1/" + name + "/x", false, VELCLIENT_DELIVERY_MODE_DIRECT,
                                 "inbox"));
    EXPECT_EQ((std::multiset<std::string>{"topic", "inbox"}), reader.bodies(2));
}

} // namespace
