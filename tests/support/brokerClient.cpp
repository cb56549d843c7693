/* The collecting broker session and the message helpers of the broker tests
 * (see brokerClient.h). */
#include "support/brokerClient.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace veltest::broker {

namespace {

std::atomic<int> uniqueCounter_s{0};

/* The stem of the topics Client::sync sends its own messages to. */
const std::string kProbeStem = "velclient-test-sync/";

velClient_rxMsgCallback_returnCode_t keep(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user)
{
    static_cast<std::vector<velClient_opaqueMsg_pt> *>(user)->push_back(msg);
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

} // namespace

int port()
{
    return broker().port();
}

std::string host()
{
    return "127.0.0.1:" + std::to_string(port());
}

void killBroker(const char *signal)
{
    broker().kill(signal);
}

void restartBroker()
{
    broker().restart();
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

Client::Client(std::vector<std::string> props)
{
    std::vector<std::string> all = {"SESSION_TRANSPORT", transport().name, "SESSION_HOST", host(),
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

bool Client::isProbe(velClient_opaqueMsg_pt msg)
{
    velClient_destination_t d{};
    return velClient_msg_getDestination(msg, &d, sizeof d) == VELCLIENT_OK && d.dest != nullptr &&
           std::strncmp(d.dest, kProbeStem.c_str(), kProbeStem.size()) == 0;
}

velClient_rxMsgCallback_returnCode_t Client::rx(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt msg, void *user)
{
    auto *self = static_cast<Client *>(user);
    if (self->isProbe(msg)) {
        std::lock_guard lock(self->mutex_);
        ++self->probes_;
        self->changed_.notify_all();
        return VELCLIENT_CALLBACK_OK;
    }
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
    ASSERT_EQ(VELCLIENT_OK, queue ? velClient_session_queueSubscribe(session_, name.c_str())
                                  : velClient_session_topicSubscribe(session_, name.c_str()));
    if (!transport().subscribeWaitsForBroker)
        sync();
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
    velClient_opaqueMsg_pt probe = makeMessage(topic, false, VELCLIENT_DELIVERY_MODE_DIRECT, "sync");
    ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session_, probe));
    velClient_msg_free(&probe);
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, std::chrono::seconds(20), [&] { return probes_ > before; }))
        << "the broker did not send back a message to " << topic;
    lock.unlock();
    EXPECT_EQ(VELCLIENT_OK, velClient_session_topicUnsubscribe(session_, topic.c_str()));
}

/* A message with every part and header property a sender sets: a user
 * property map with one entry of each type, an attachment map holding a
 * nested map, every text, number and mark of the header. */
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

velClient_returnCode_t send(Client &c, const std::string &to, bool queue, velClient_uint32_t mode,
                            const std::string &body)
{
    velClient_opaqueMsg_pt m = makeMessage(to, queue, mode, body);
    velClient_returnCode_t rc = velClient_session_sendMsg(c.session(), m);
    velClient_msg_free(&m);
    return rc;
}

void reply(velClient_opaqueSession_pt s, velClient_opaqueMsg_pt request, velClient_uint32_t mode,
           const std::string &body)
{
    velClient_destination_t replyTo{};
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getReplyTo(request, &replyTo, sizeof replyTo));
    velClient_opaqueMsg_pt answer = makeMessage(replyTo.dest, false, mode, body);
    const char *correlation = nullptr;
    if (velClient_msg_getCorrelationId(request, &correlation) == VELCLIENT_OK)
        velClient_msg_setCorrelationId(answer, correlation);
    velClient_msg_setAsReplyMsg(answer, 1);
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(s, answer));
    velClient_msg_free(&answer);
}

void pumpThrough(Client &c, const std::string &topic, std::size_t count, const std::vector<velClient_uint32_t> &modes)
{
    const std::size_t backlog = count / 10, batch = backlog / 10, synced = c.received();
    for (std::size_t i = 0; i < count; ++i) {
        velClient_opaqueMsg_pt m = makeMessage(topic, false, modes[i % modes.size()], std::to_string(i));
        ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(c.session(), m)) << velClient_getLastErrorInfo()->errorStr;
        velClient_msg_free(&m);
        /* At most backlog on their way, so that neither side piles them up. */
        if (i % batch == 0 && i >= backlog) {
            ASSERT_TRUE(c.waitReceived(synced + i - backlog, std::chrono::seconds(60)))
                << c.received() - synced << " of " << i;
        }
    }
    ASSERT_TRUE(c.waitReceived(synced + count, std::chrono::seconds(60))) << c.received() - synced << " of " << count;
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

std::string loopbackDump(velClient_opaqueMsg_pt m)
{
    std::vector<velClient_opaqueMsg_pt> got;
    velClient_opaqueSession_pt loop = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, keep, &got, &loop));
    EXPECT_EQ(VELCLIENT_OK, velClient_session_sendMsg(loop, m));
    velClient_session_destroy(&loop);
    EXPECT_EQ(1u, got.size());
    std::string dump = got.empty() ? "" : dumpWithoutReceiveLines(got[0]);
    freeAll(got);
    return dump;
}

void freeAll(std::vector<velClient_opaqueMsg_pt> messages)
{
    for (velClient_opaqueMsg_pt m : messages)
        velClient_msg_free(&m);
}

} // namespace veltest::broker
