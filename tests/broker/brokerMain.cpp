/* The broker tests' entry point and shared pieces: the broker started once
 * for the run and stopped at its end, the collecting client session, and the
 * message helpers (see brokerFixture.h). */
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "broker/brokerFixture.h"

namespace veltest::broker {

namespace {

int port_s = 0;
int tlsPort_s = 0;
std::string tlsDir_s;
std::string brokerDir_s;
const std::string kBrokerScript = "bash " VELCLIENT_SOURCE_DIR "/scripts/broker.sh ";

/* Runs command and returns its standard output; status gets its exit status. */
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

class BrokerEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        char dir[] = "/tmp/velclient-broker-test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir)) << "no temporary directory";
        dir_ = dir;
        brokerDir_s = dir_;
        int status = 0;
        std::string out = run("VELCLIENT_BROKER_TLS=1 " + kBrokerScript + "start " + dir_, status);
        ASSERT_EQ(0, status) << "the broker did not start (is rabbitmq-server installed? set "
                                "VELCLIENT_SKIP_BROKER_TESTS=1 to skip these tests): "
                             << out;
        port_s = std::atoi(out.c_str());
        ASSERT_GT(port_s, 0) << out;
        tlsDir_s = dir_ + "/tls";
        FILE *f = std::fopen((dir_ + "/tls_port").c_str(), "r");
        ASSERT_NE(nullptr, f) << "no TLS listener";
        ASSERT_EQ(1, std::fscanf(f, "%d", &tlsPort_s));
        std::fclose(f);
    }
    void TearDown() override
    {
        if (dir_.empty())
            return;
        int status = 0;
        std::string out = run(kBrokerScript + "stop " + dir_, status);
        EXPECT_EQ(0, status) << out;
    }

private:
    std::string dir_;
};

std::atomic<int> uniqueCounter_s{0};

} // namespace

int port()
{
    return port_s;
}

int tlsPort()
{
    return tlsPort_s;
}

std::string tlsFile(const char *name)
{
    return tlsDir_s + "/" + name;
}

std::string host()
{
    return "127.0.0.1:" + std::to_string(port_s);
}

int closedPort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

std::string unique(const std::string &stem)
{
    return stem + std::to_string(getpid()) + "x" + std::to_string(++uniqueCounter_s);
}

void killBroker(const char *signal)
{
    int status = 0;
    std::string out = run(kBrokerScript + "kill " + brokerDir_s + " " + signal + " 2>&1", status);
    ASSERT_EQ(0, status) << out;
}

void restartBroker()
{
    int status = 0;
    std::string out = run(kBrokerScript + "restart " + brokerDir_s + " 2>&1", status);
    ASSERT_EQ(0, status) << out;
    ASSERT_EQ(port_s, std::atoi(out.c_str())) << out;
}

Client::Client(std::vector<std::string> props)
{
    std::vector<std::string> all = {"SESSION_TRANSPORT", "amqp", "SESSION_HOST", host(),
                                    "SESSION_CONNECT_TIMEOUT_MS", "20000"};
    all.insert(all.end(), props.begin(), props.end());
    std::vector<const char *> list;
    for (const std::string &p : all)
        list.push_back(p.c_str());
    list.push_back(nullptr);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_create(list.data(), &Client::rx, this, &session_));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_setEventCallback(session_, &Client::ev, this));
}

Client::~Client()
{
    if (session_ != nullptr) {
        EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&session_));
    }
    for (velClient_opaqueMsg_pt m : messages_)
        velClient_msg_free(&m);
}

velClient_rxMsgCallback_returnCode_t Client::rx(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg, void *user)
{
    auto *self = static_cast<Client *>(user);
    if (self->onMessage)
        self->onMessage(s, msg);
    std::lock_guard lock(self->mutex_);
    ++self->received_;
    self->changed_.notify_all();
    if (!self->keep_)
        return VELCLIENT_CALLBACK_OK;
    self->messages_.push_back(msg);
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

void Client::ev(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt info, void *user)
{
    auto *self = static_cast<Client *>(user);
    std::lock_guard lock(self->mutex_);
    self->events_.push_back({info->event, info->info_p ? info->info_p : "", info->correlation_p});
    self->changed_.notify_all();
}

bool Client::waitMessages(std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return messages_.size() >= count; });
}

bool Client::waitReceived(std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return received_ >= count; });
}

std::size_t Client::received()
{
    std::lock_guard lock(mutex_);
    return received_;
}

bool Client::waitEvents(velClient_session_event_t event, std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        return static_cast<std::size_t>(std::count_if(events_.begin(), events_.end(),
                                                      [&](const Event &e) { return e.event == event; })) >= count;
    });
}

std::vector<velClient_opaqueMsg_pt> Client::messages()
{
    std::lock_guard lock(mutex_);
    std::vector<velClient_opaqueMsg_pt> taken;
    taken.swap(messages_);
    return taken;
}

std::vector<Event> Client::events()
{
    std::lock_guard lock(mutex_);
    return events_;
}

std::size_t Client::countEvents(velClient_session_event_t event)
{
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(events_.begin(), events_.end(), [&](const Event &e) { return e.event == event; }));
}

bool Client::connect()
{
    if (velClient_session_connect(session_) == VELCLIENT_OK)
        return true;
    ADD_FAILURE() << "velClient_session_connect: " << velClient_getLastErrorInfo()->errorStr;
    return false;
}

void Client::subscribeAndSync(const std::string &name, bool queue)
{
    /* A subscribe returns once the broker has attached the link: what is
     * published from here on reaches it. */
    ASSERT_EQ(VELCLIENT_OK, queue ? velClient_session_queueSubscribe(session_, name.c_str())
                                  : velClient_session_topicSubscribe(session_, name.c_str()));
}

velClient_opaqueMsg_pt makeMessage(const std::string &destination, bool queue, velClient_uint32_t mode,
                                   const std::string &attachment)
{
    velClient_opaqueMsg_pt m = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_destination_t dest{queue ? VELCLIENT_QUEUE_DESTINATION : VELCLIENT_TOPIC_DESTINATION, destination.c_str()};
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setDestination(m, &dest, sizeof dest));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setDeliveryMode(m, mode));
    EXPECT_EQ(VELCLIENT_OK,
              velClient_msg_setBinaryAttachment(m, attachment.data(), static_cast<velClient_uint32_t>(attachment.size())));
    return m;
}

void addOneOfEachType(velClient_opaqueContainer_pt map)
{
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addBoolean(map, 1, "bool"));
    velClient_container_addUint8(map, 200, "u8");
    velClient_container_addInt8(map, -8, "i8");
    velClient_container_addUint16(map, 60000, "u16");
    velClient_container_addInt16(map, -300, "i16");
    velClient_container_addUint32(map, 4000000000u, "u32");
    velClient_container_addInt32(map, -42, "i32");
    velClient_container_addUint64(map, 10000000000ULL, "u64");
    velClient_container_addInt64(map, -5000000000LL, "i64");
    velClient_container_addWchar(map, 0x263A, "wchar");
    velClient_container_addFloat(map, 1.5f, "float");
    velClient_container_addDouble(map, 2.25, "double");
    velClient_container_addString(map, "text", "string");
    velClient_container_addByteArray(map, reinterpret_cast<const velClient_uint8_t *>("\x00\x7f"), 2, "bytes");
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addNull(map, "null"));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
}

std::string attachmentOf(velClient_opaqueMsg_pt msg)
{
    void *p = nullptr;
    velClient_uint32_t size = 0;
    if (velClient_msg_getBinaryAttachmentPtr(msg, &p, &size) != VELCLIENT_OK)
        return {};
    return std::string(static_cast<const char *>(p), size);
}

std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg)
{
    std::vector<char> buffer(1 << 16);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(msg, buffer.data(), buffer.size()));
    std::string dump(buffer.data()), kept, line;
    for (std::size_t at = 0; at < dump.size();) {
        std::size_t end = dump.find('\n', at);
        line = dump.substr(at, end == std::string::npos ? std::string::npos : end - at + 1);
        at = end == std::string::npos ? dump.size() : end + 1;
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            kept += line;
    }
    return kept;
}

} // namespace veltest::broker

/* The exit status that tells ctest the run was skipped (SKIP_RETURN_CODE). */
constexpr int kSkipped = 77;

int main(int argc, char **argv)
{
    if (const char *skip = std::getenv("VELCLIENT_SKIP_BROKER_TESTS"); skip != nullptr && std::strcmp(skip, "1") == 0) {
        std::fprintf(stderr, "*** VELCLIENT_SKIP_BROKER_TESTS=1: every broker test is SKIPPED ***\n");
        return kSkipped;
    }
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new veltest::broker::BrokerEnvironment);
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    if (std::getenv("VEL_TEST_LOG") == nullptr)
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
    return RUN_ALL_TESTS();
}
