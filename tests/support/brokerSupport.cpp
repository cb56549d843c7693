/* The broker of the run and the entry point of the broker tests (see brokerSupport.h). */
#include "support/brokerSupport.h"

#include <cstdio>
#include <cstring>
#include <fstream>

namespace veltest::broker {

namespace {

Broker *broker_s = nullptr;

} // namespace

void Broker::SetUp()
{
    const char *base = amqp || access("/dev/shm", W_OK) != 0 ? "/tmp" : "/dev/shm";
    std::string made = std::string(base) + "/velclient-broker-test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(made.data())) << "no temporary directory in " << base;
    dir = made;
    if (amqp)
        setenv("VELCLIENT_BROKER_TLS", "1", 1);
    const std::string out = script("start");
    ASSERT_GT(port = std::atoi(out.c_str()), 0)
        << "the broker did not start (is " << (amqp ? "rabbitmq-server" : "mosquitto")
        << " installed? set VELCLIENT_SKIP_BROKER_TESTS=1 to skip these tests): " << out;
    ASSERT_TRUE(std::ifstream(dir + "/tls_port") >> tlsPort) << "no TLS listener";
    if (!amqp) {
        ASSERT_TRUE(std::ifstream(dir + "/login_port") >> loginPort) << "no listener with a password";
    }
}

void Broker::TearDown()
{
    if (!dir.empty())
        script("stop");
}

std::string Broker::script(const std::string &verb, const std::string &more)
{
    std::string command = std::string("bash " VELCLIENT_SOURCE_DIR "/scripts/") + (amqp ? "broker.sh" : "mosquitto.sh");
    FILE *pipe = popen(command.append(" ").append(verb).append(" ").append(dir).append(" ").append(more).c_str(), "r");
    std::string out;
    char buf[256];
    while (pipe != nullptr && std::fgets(buf, sizeof buf, pipe) != nullptr)
        out += buf;
    EXPECT_EQ(0, pipe == nullptr ? -1 : pclose(pipe)) << command << ": " << out;
    return out;
}

Broker &broker()
{
    return *broker_s;
}

} // namespace veltest::broker

/* velclient_broker_tests [gtest flags] [amqp|mqtt]: exit status 77 (skipped) when
 * VELCLIENT_SKIP_BROKER_TESTS=1. */
int main(int argc, char **argv)
{
    using namespace veltest::broker;
    if (const char *skip = std::getenv("VELCLIENT_SKIP_BROKER_TESTS"); skip != nullptr && std::strcmp(skip, "1") == 0) {
        std::fprintf(stderr, "*** VELCLIENT_SKIP_BROKER_TESTS=1: every broker test is SKIPPED ***\n");
        return 77;
    }
    ::testing::InitGoogleTest(&argc, argv);
    const bool amqp = argc < 2 || std::strcmp(argv[1], "mqtt") != 0;
    /* The other transport's own suites are left out. */
    std::string filter = GTEST_FLAG_GET(filter);
    filter.append(filter.find('-') == std::string::npos ? "-" : ":").append(amqp ? "Mqtt*" : "Amqp*");
    GTEST_FLAG_SET(filter, filter);
    broker_s = new Broker(amqp);
    ::testing::AddGlobalTestEnvironment(broker_s);
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    if (std::getenv("VEL_TEST_LOG") == nullptr)
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
    return RUN_ALL_TESTS();
}
