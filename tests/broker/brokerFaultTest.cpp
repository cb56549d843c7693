/* Broker sessions when the network fails, through a relay the test controls:
 * a reset connection reconnects, restores its subscriptions and resends what
 * was not acknowledged; a broker that stays away ends in DOWN_ERROR; a silent
 * one is noticed through the keepalive; a full publish window blocks, times
 * out or answers WOULD_BLOCK and then CAN_SEND. And the broker itself killed
 * (SIGTERM, then SIGKILL) and restarted amid persistent sends: none is lost. */
#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

#include "broker/brokerFixture.h"
#include "support/brokerFaults.h"
#include "support/brokerProxy.h"

namespace {

using namespace veltest::broker;
using namespace std::chrono_literals;

std::string lastText()
{
    return velClient_getLastErrorInfo()->errorStr;
}

} // namespace

TEST(BrokerFaults, AResetConnectionReconnectsResendsAndRestoresSubscriptions)
{
    resetConnectionResendsAndRestores(true);
}

TEST(BrokerFaults, ABrokerThatStaysAwayEndsInDownError)
{
    brokerThatStaysAwayEndsInDownError(true);
}

TEST(BrokerFaults, ASilentBrokerIsNoticedThroughTheKeepalive)
{
    /* With the default keepalive of 30 s the wait would run out first. */
    silentBrokerIsNoticed("1000", 15s);
}

TEST(BrokerFaults, AFullPublishWindowBlocksOrWouldBlock)
{
    Proxy proxy(port());
    std::string queue = unique("window-q");
    {
        Client blocking({"SESSION_HOST", proxy.host(), "SESSION_PUB_WINDOW_SIZE", "1", "SESSION_SEND_TIMEOUT_MS",
                         "300"});
        ASSERT_TRUE(connectAll(blocking));
        proxy.pause(true);
        ASSERT_EQ(VELCLIENT_OK, send(blocking, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "1"));
        /* Direct messages take no place in the window. */
        EXPECT_EQ(VELCLIENT_OK, send(blocking, queue, true, VELCLIENT_DELIVERY_MODE_DIRECT, "d"));
        EXPECT_EQ(VELCLIENT_FAIL, send(blocking, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "2"));
        EXPECT_EQ(VELCLIENT_SUBCODE_TIMEOUT, velClient_getLastErrorInfo()->subCode);
        EXPECT_EQ("No room in the publish window within 300 ms in velClient_session_sendMsg", lastText());
        proxy.pause(false);
        EXPECT_TRUE(blocking.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 1));
    }
    Client nonBlocking({"SESSION_HOST", proxy.host(), "SESSION_PUB_WINDOW_SIZE", "2", "SESSION_SEND_BLOCKING", "0"});
    ASSERT_TRUE(connectAll(nonBlocking));
    proxy.pause(true);
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "1"));
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, queue, true, VELCLIENT_DELIVERY_MODE_NONPERSISTENT, "2"));
    EXPECT_EQ(VELCLIENT_WOULD_BLOCK, send(nonBlocking, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "3"));
    EXPECT_EQ(0u, nonBlocking.countEvents(VELCLIENT_SESSION_EVENT_CAN_SEND));
    proxy.pause(false);
    EXPECT_TRUE(nonBlocking.waitEvents(VELCLIENT_SESSION_EVENT_CAN_SEND, 1));
    EXPECT_EQ(VELCLIENT_OK, send(nonBlocking, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, "3"));
    EXPECT_TRUE(nonBlocking.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 3));
}

TEST(BrokerFaults, ABrokerKilledAmidPersistentSendsLosesNoMessage)
{
    /* Reconnecting for as long as a restart takes; a full window answers at once, so the sends stop at once. */
    const std::vector<std::string> patient = {"SESSION_RECONNECT_RETRIES", "-1", "SESSION_RECONNECT_RETRY_WAIT_MS", "200",
                                              "SESSION_SEND_BLOCKING", "0"};
    Client sender(patient), reader(patient);
    ASSERT_TRUE(connectAll(sender, reader));
    std::string queue = unique("killed-q");
    reader.subscribeAndSync(queue, true);
    int sent = 0;
    std::size_t round = 0;
    for (const char *signal : {"TERM", "KILL"}) {
        ++round;
        std::atomic<bool> stop{false};
        std::thread sends([&] {
            while (!stop) {
                velClient_returnCode_t rc =
                    send(sender, queue, true, VELCLIENT_DELIVERY_MODE_PERSISTENT, std::to_string(sent));
                ASSERT_NE(VELCLIENT_FAIL, rc) << lastText();
                sent += rc == VELCLIENT_OK;
                std::this_thread::sleep_for(2ms);
            }
        });
        /* Killed while messages go out and come back acknowledged, sent on while it is away and after. */
        auto acknowledgementsFlow = [&] {
            std::size_t acknowledged = sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT);
            return sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, acknowledged + 100, 60s);
        };
        bool before = acknowledgementsFlow();
        killBroker(signal);
        restartBroker();
        bool reconnected = sender.waitEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, round, 120s);
        bool after = reconnected && acknowledgementsFlow();
        stop = true;
        sends.join();
        ASSERT_FALSE(HasFatalFailure()) << signal;
        ASSERT_TRUE(before && reconnected && after)
            << signal << ": acknowledged before " << before << ", reconnected " << reconnected << ", after " << after;
    }
    /* Each message has exactly one outcome, an acknowledgement, and the reader has every one. */
    EXPECT_TRUE(sender.waitEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, sent, 60s));
    EXPECT_EQ(static_cast<std::size_t>(sent), sender.countEvents(VELCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(0u, sender.countEvents(VELCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    EXPECT_EQ(2u, reader.countEvents(VELCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
    EXPECT_TRUE(reader.waitMessages(sent, 60s));
    std::this_thread::sleep_for(300ms);
    std::set<int> seen;
    std::vector<velClient_opaqueMsg_pt> got = reader.messages();
    for (velClient_opaqueMsg_pt m : got) {
        seen.insert(std::stoi(attachmentOf(m)));
        velClient_msg_free(&m);
    }
    std::size_t duplicates = got.size() - seen.size();
    RecordProperty("duplicates", static_cast<int>(duplicates));
    std::printf("%d persistent messages across SIGTERM and SIGKILL of the broker: %zu duplicates\n", sent, duplicates);
    EXPECT_EQ(static_cast<std::size_t>(sent), seen.size()) << "lost " << sent - static_cast<int>(seen.size());
    EXPECT_TRUE(seen.empty() || (*seen.begin() == 0 && *seen.rbegin() == sent - 1));
}
