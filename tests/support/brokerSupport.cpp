/* The broker of the run, the entry point of the broker tests, the collecting
 * session and the message helpers (see brokerSupport.h). */
#include "support/brokerSupport.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <sstream>

#include "velclient/velClient.h"

namespace veltest::broker {

namespace {

/* The stem of the topics Client::sync sends its own messages to. */
const std::string kProbeStem = "velclient-test-sync/";

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
    if (amqp) {
        ASSERT_TRUE(std::ifstream(dir + "/tls_port") >> tlsPort) << "no TLS listener";
    }
}

void Broker::TearDown()
{
    if (!dir.empty())
        script("stop");
}

std::string Broker::script(const std::string &verb, const std::string &more)
{
    std::string command = std::string("bash " VELCLIENT_SOURCE_DIR "/scripts/") + (amqp ? "broker.sh " : "mosquitto.sh ");
    FILE *pipe = popen(command.append(verb).append(" ").append(dir).append(" ").append(more).c_str(), "r");
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

std::string closedHost()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
}

std::string unique(const std::string &stem)
{
    static std::atomic<int> counter{0};
    return stem + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

Client::Client(std::vector<std::string> props)
{
    props = with({"SESSION_TRANSPORT", broker().transport(), "SESSION_HOST", broker().host(), "SESSION_CONNECT_TIMEOUT_MS", "20000"},
                 props);
    std::vector<const char *> list;
    for (const std::string &p : props)
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
    freeAll(messages_);
}

velClient_rxMsgCallback_returnCode_t Client::rx(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg, void *user)
{
    auto *self = static_cast<Client *>(user);
    bool probe = destinationOf(msg).rfind(kProbeStem, 0) == 0;
    if (!probe && self->onMessage)
        self->onMessage(s, msg);
    std::lock_guard lock(self->mutex_);
    ++(probe ? self->probes_ : self->received_);
    self->changed_.notify_all();
    if (probe || !self->keep_)
        return VELCLIENT_CALLBACK_OK;
    self->messages_.push_back(msg);
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

void Client::ev(velClient_opaqueSession_pt s, velClient_session_eventCallbackInfo_pt info, void *user)
{
    auto *self = static_cast<Client *>(user);
    Event event{info->event, info->info_p ? info->info_p : "", info->correlation_p};
    if (self->onEvent)
        self->onEvent(s, event);
    std::lock_guard lock(self->mutex_);
    self->events_.push_back(std::move(event));
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

std::size_t Client::countEvents(velClient_session_event_t event)
{
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(events_.begin(), events_.end(), [&](const Event &e) { return e.event == event; }));
}

std::vector<Event> Client::events()
{
    std::lock_guard lock(mutex_);
    return events_;
}

std::vector<velClient_opaqueMsg_pt> Client::messages()
{
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

std::multiset<std::string> Client::bodies(std::size_t expected, std::chrono::milliseconds timeout)
{
    EXPECT_TRUE(waitMessages(expected, timeout)) << "expected " << expected << ", received " << received();
    std::this_thread::sleep_for(300ms);
    std::multiset<std::string> seen;
    std::vector<velClient_opaqueMsg_pt> got = messages();
    for (velClient_opaqueMsg_pt m : got)
        seen.insert(attachmentOf(m));
    freeAll(got);
    return seen;
}

bool Client::connect()
{
    if (velClient_session_connect(session_) == VELCLIENT_OK)
        return true;
    ADD_FAILURE() << "velClient_session_connect: " << velClient_getLastErrorInfo()->errorStr;
    return false;
}

void Client::subscribe(const std::string &name, bool queue)
{
    ASSERT_EQ(VELCLIENT_OK, queue ? velClient_session_queueSubscribe(session_, name.c_str())
                                  : velClient_session_topicSubscribe(session_, name.c_str()));
}

void Client::sync()
{
    /* The broker handles one session's requests in order: once the message
     * sent after them has come back, it has handled them all. */
    const std::string topic = unique(kProbeStem);
    std::size_t before = 0;
    {
        std::lock_guard lock(mutex_);
        before = probes_;
    }
    ASSERT_EQ(VELCLIENT_OK, velClient_session_topicSubscribe(session_, topic.c_str()));
    ASSERT_EQ(VELCLIENT_OK, send(*this, topic, false, VELCLIENT_DELIVERY_MODE_DIRECT, "sync"));
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, 20s, [&] { return probes_ > before; })) << "no message back on " << topic;
    lock.unlock();
    EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(session_, topic.c_str()));
}

std::vector<std::string> with(std::vector<std::string> props, const std::vector<std::string> &more)
{
    props.insert(props.end(), more.begin(), more.end());
    return props;
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

velClient_returnCode_t send(Client &c, const std::string &to, bool queue, velClient_uint32_t mode,
                            const std::string &body)
{
    velClient_opaqueMsg_pt m = makeMessage(to, queue, mode, body);
    velClient_returnCode_t rc = velClient_session_sendMsg(c.session(), m);
    velClient_msg_free(&m);
    return rc;
}

velClient_opaqueMsg_pt richMessage(const std::string &destination, bool queue, velClient_uint32_t mode)
{
    velClient_opaqueMsg_pt m = makeMessage(destination, queue, mode);
    velClient_opaqueContainer_pt map = nullptr, nested = nullptr, props = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m, &map, 512));
    velClient_container_addString(map, "outer", "level");
    EXPECT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &nested, "nested"));
    addOneOfEachType(nested);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m, &props, 256));
    addOneOfEachType(props);
    velClient_msg_setApplicationMessageId(m, "app-id-1");
    velClient_msg_setApplicationMsgType(m, "app-type");
    velClient_msg_setCorrelationId(m, "corr-1");
    velClient_msg_setSenderId(m, "sender-1");
    velClient_msg_setHttpContentType(m, "text/plain");
    velClient_msg_setHttpContentEncoding(m, "gzip");
    velClient_msg_setExpiration(m, 4102444800000LL);
    velClient_msg_setClassOfService(m, VELCLIENT_COS_3);
    velClient_msg_setDMQEligible(m, 1);
    velClient_msg_setDeliverToOne(m, 1);
    velClient_msg_setElidingEligible(m, 1);
    velClient_msg_setAckImmediately(m, 1);
    velClient_msg_setAsReplyMsg(m, 1);
    velClient_msg_setSenderTimestamp(m, 1700000000123LL);
    velClient_msg_setSequenceNumber(m, 77);
    velClient_msg_setUserData(m, "ud", 2);
    velClient_msg_setXml(m, "<x/>", 4);
    velClient_destination_t reply{VELCLIENT_TOPIC_DESTINATION, "replies/here"};
    velClient_msg_setReplyTo(m, &reply, sizeof reply);
    return m;
}

void reply(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request, velClient_uint32_t mode,
           const std::string &body)
{
    velClient_destination_t replyTo{};
    if (velClient_msg_getReplyTo(request, &replyTo, sizeof replyTo) != VELCLIENT_OK)
        return;
    velClient_opaqueMsg_pt answer = makeMessage(replyTo.dest, false, mode, body);
    const char *correlation = nullptr;
    if (velClient_msg_getCorrelationId(request, &correlation) == VELCLIENT_OK)
        velClient_msg_setCorrelationId(answer, correlation);
    velClient_msg_setAsReplyMsg(answer, 1);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, answer));
    velClient_msg_free(&answer);
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

std::string destinationOf(velClient_opaqueMsg_pt msg)
{
    velClient_destination_t d{};
    if (velClient_msg_getDestination(msg, &d, sizeof d) != VELCLIENT_OK || d.dest == nullptr)
        return "(none)";
    return (d.destType == VELCLIENT_QUEUE_DESTINATION ? "queue " : "") + std::string(d.dest);
}

std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg)
{
    std::vector<char> buffer(1 << 16);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(msg, buffer.data(), buffer.size()));
    std::istringstream dump(buffer.data());
    std::string kept;
    for (std::string line; std::getline(dump, line);)
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            kept.append(line).append("\n");
    return kept;
}

std::string loopbackDump(velClient_opaqueMsg_pt m)
{
    std::vector<velClient_opaqueMsg_pt> got;
    auto keep = [](velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user) {
        static_cast<std::vector<velClient_opaqueMsg_pt> *>(user)->push_back(msg);
        return VELCLIENT_CALLBACK_TAKE_MSG;
    };
    velClient_opaqueSession_pt loop = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, keep, &got, &loop));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(loop, m));
    velClient_session_destroy(&loop);
    EXPECT_EQ(1u, got.size());
    std::string dump = got.empty() ? "" : dumpWithoutReceiveLines(got[0]);
    freeAll(got);
    return dump;
}

void freeAll(const std::vector<velClient_opaqueMsg_pt> &messages)
{
    for (velClient_opaqueMsg_pt m : messages)
        velClient_msg_free(&m);
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
