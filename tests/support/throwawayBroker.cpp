/* The broker a broker-test executable shares, run through its script, and the
 * entry point that sets it up around the tests (see throwawayBroker.h). */
#include "support/throwawayBroker.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "velclient/velClient.h"

namespace veltest::broker {

namespace {

ThrowawayBroker *broker_s = nullptr;

/* The exit status that tells ctest the run was skipped (SKIP_RETURN_CODE). */
constexpr int kSkipped = 77;

} // namespace

std::string run(const std::string &command, int &status)
{
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        status = -1;
        return out;
    }
    char buf[256];
    while (std::fgets(buf, sizeof buf, pipe) != nullptr)
        out += buf;
    status = pclose(pipe);
    return out;
}

ThrowawayBroker::ThrowawayBroker(std::string script, std::string env, std::string dirTemplate, std::string missing)
    : script_(std::move(script)), env_(std::move(env)), dirTemplate_(std::move(dirTemplate)),
      missing_(std::move(missing))
{
}

std::string ThrowawayBroker::command(const std::string &verb) const
{
    return "bash " VELCLIENT_SOURCE_DIR "/scripts/" + script_ + " " + verb + " " + dir_;
}

void ThrowawayBroker::SetUp()
{
    std::vector<char> dir(dirTemplate_.begin(), dirTemplate_.end());
    dir.push_back('\0');
    ASSERT_NE(nullptr, mkdtemp(dir.data())) << "no temporary directory from " << dirTemplate_;
    dir_ = dir.data();
    int status = 0;
    std::string out = run(env_ + " " + command("start"), status);
    ASSERT_EQ(0, status) << "the broker did not start (is " << missing_
                         << " installed? set VELCLIENT_SKIP_BROKER_TESTS=1 to skip these tests): " << out;
    port_ = std::atoi(out.c_str());
    ASSERT_GT(port_, 0) << out;
}

void ThrowawayBroker::TearDown()
{
    if (dir_.empty())
        return;
    int status = 0;
    std::string out = run(command("stop"), status);
    EXPECT_EQ(0, status) << out;
}

void ThrowawayBroker::kill(const char *signal)
{
    int status = 0;
    std::string out = run(command("kill") + " " + signal + " 2>&1", status);
    ASSERT_EQ(0, status) << out;
}

void ThrowawayBroker::restart()
{
    int status = 0;
    std::string out = run(command("restart") + " 2>&1", status);
    ASSERT_EQ(0, status) << out;
    ASSERT_EQ(port_, std::atoi(out.c_str())) << out;
}

ThrowawayBroker &broker()
{
    return *broker_s;
}

int runBrokerTests(int argc, char **argv, ThrowawayBroker *broker)
{
    if (const char *skip = std::getenv("VELCLIENT_SKIP_BROKER_TESTS"); skip != nullptr && std::strcmp(skip, "1") == 0) {
        std::fprintf(stderr, "*** VELCLIENT_SKIP_BROKER_TESTS=1: every broker test is SKIPPED ***\n");
        delete broker;
        return kSkipped;
    }
    ::testing::InitGoogleTest(&argc, argv);
    broker_s = broker;
    ::testing::AddGlobalTestEnvironment(broker);
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    if (std::getenv("VEL_TEST_LOG") == nullptr)
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
    return RUN_ALL_TESTS();
}

} // namespace veltest::broker
