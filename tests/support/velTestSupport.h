/* Helpers shared by the public-API tests: the last-error record and pool
 * counters, one message owner, one container in application memory, one
 * wire-frame builder, one log capture, and the table runner for refusals. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "velclient/velClientMsg.h"

namespace veltest {

using Bytes = std::vector<std::uint8_t>;

inline std::string lastErrorText()
{
    return velClient_getLastErrorInfo()->errorStr;
}

inline velClient_subCode_t lastSubCode()
{
    return velClient_getLastErrorInfo()->subCode;
}

inline velClient_uint64_t stat(velClient_msg_stats_t type, velClient_uint32_t index = 0)
{
    velClient_uint64_t value = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getStat(type, index, &value));
    return value;
}

constexpr velClient_uint64_t kDefaultPoolLimit = 64ull << 20;

/* The live-record counters (messages, containers, data blocks of each class
 * and their bytes), to check that a piece of work gave back everything it took. */
struct LiveCounts {
    velClient_uint64_t msgs = stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    velClient_uint64_t containers = stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    velClient_uint64_t memory = stat(VELCLIENT_MSG_STATS_ALLOC_MEMORY);
    velClient_uint64_t blocks[6] = {};
    LiveCounts()
    {
        for (velClient_uint32_t q = 0; q < 6; ++q)
            blocks[q] = stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, q);
    }

    void expectBalanced() const
    {
        const LiveCounts now;
        EXPECT_EQ(msgs, now.msgs);
        EXPECT_EQ(containers, now.containers);
        EXPECT_EQ(memory, now.memory) << "bytes in live data blocks";
        for (int q = 0; q < 6; ++q)
            EXPECT_EQ(blocks[q], now.blocks[q]) << "data blocks of class " << q;
    }
};

/* Drains the pools (a limit of 0) and expects every free list empty. */
inline void expectDrainedPools()
{
    velClient_msg_setMaxPoolMem(0);
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_CONTAINERS));
    for (velClient_uint32_t q = 0; q < 5; ++q)
        EXPECT_EQ(0u, stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, q)) << "free blocks of class " << q;
    velClient_msg_setMaxPoolMem(kDefaultPoolLimit);
}

/* Formats a text exactly as the library does, for texts that carry a %p. */
template <typename... Args>
std::string format(const char *fmt, Args... args)
{
    char text[512];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

inline Bytes bytesAt(const void *p, std::size_t n)
{
    const auto *b = static_cast<const std::uint8_t *>(p);
    return Bytes(b, b + n);
}

/* The message's wire image, as bytes. */
inline Bytes encode(velClient_opaqueMsg_pt msg)
{
    velClient_bufInfo_t info{};
    velClient_opaqueDatablock_pt block = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(msg, &info, &block));
    Bytes out = bytesAt(info.buf_p, info.bufSize);
    velClient_datablock_free(&block);
    return out;
}

inline velClient_returnCode_t decode(Bytes bytes, velClient_opaqueMsg_pt *msg)
{
    velClient_bufInfo_t info{bytes.data(), static_cast<velClient_uint32_t>(bytes.size())};
    return velClient_msg_decodeFromVwf(&info, msg);
}

/* The names of a map's entries in order (the cursor is rewound first). */
inline std::vector<std::string> names(velClient_opaqueContainer_pt h)
{
    std::vector<std::string> out;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_rewind(h));
    velClient_field_t f{};
    const char *name = nullptr;
    while (velClient_container_getNextField(h, &f, sizeof f, &name) == VELCLIENT_OK)
        out.emplace_back(name);
    return out;
}

/* A container's whole encoding (finalised first), header included. */
inline Bytes bytesOf(velClient_opaqueContainer_pt h)
{
    void *p = nullptr;
    velClient_uint32_t size = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getContainerPtr(h, &p, &size));
    return bytesAt(p, size);
}

/* A message that is freed when it goes out of scope; a handle given to it is
 * taken over (a received or duplicated message). */
struct Msg {
    velClient_opaqueMsg_pt h = nullptr;
    Msg() { EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&h)); }
    explicit Msg(velClient_opaqueMsg_pt handle) : h(handle) {}
    Msg(const Msg &) = delete;
    Msg &operator=(const Msg &) = delete;
    ~Msg()
    {
        if (h != nullptr)
            velClient_msg_free(&h);
    }
    Bytes attachment() const
    {
        void *p = nullptr;
        velClient_uint32_t len = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(h, &p, &len));
        return bytesAt(p, len);
    }
    velClient_destination_t destination(velClient_returnCode_t expected = VELCLIENT_OK) const
    {
        velClient_destination_t d{VELCLIENT_NULL_DESTINATION, nullptr};
        EXPECT_EQ(expected, velClient_msg_getDestination(h, &d, sizeof d));
        return d;
    }
    std::string dump(velClient_uint32_t flags = VELCLIENT_MSGDUMP_FULL) const
    {
        std::vector<char> text(1 << 16);
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_dumpExt(h, text.data(), text.size(), flags));
        return text.data();
    }
};

/* A map or stream in application memory. Made empty in `size` bytes, or
 * opened over given bytes held in an allocation of exactly their size, so
 * that a sanitizer build catches any read past them. Not copyable (it owns
 * its memory). */
struct Container {
    std::unique_ptr<std::uint8_t[]> mem;
    std::size_t size;
    velClient_opaqueContainer_pt h = nullptr;
    velClient_returnCode_t rc;
    explicit Container(bool map = true, std::size_t n = 512) : mem(new std::uint8_t[n]()), size(n)
    {
        char *p = reinterpret_cast<char *>(mem.get());
        rc = map ? velClient_container_createMap(&h, p, size) : velClient_container_createStream(&h, p, size);
        EXPECT_EQ(VELCLIENT_OK, rc);
    }
    explicit Container(const Bytes &b) : mem(new std::uint8_t[b.size()]), size(b.size())
    {
        std::copy(b.begin(), b.end(), mem.get());
        rc = velClient_container_openMapFromPtr(&h, mem.get(), static_cast<velClient_uint32_t>(size));
    }
    ~Container()
    {
        if (h != nullptr)
            velClient_container_closeMapStream(&h);
    }
    /* The fields written so far (without the 5-byte header). */
    Bytes fields() const
    {
        size_t used = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getSize(h, &used));
        return Bytes(mem.get() + 5, mem.get() + used);
    }
};

/* The encoding of a map (0x2B) or stream (0x2F) holding the given field bytes. */
inline Bytes container(std::uint8_t type, const Bytes &fields)
{
    Bytes b(fields.size() + 5, 0);
    b[0] = type;
    b[4] = static_cast<std::uint8_t>(fields.size() + 5);
    std::copy(fields.begin(), fields.end(), b.begin() + 5);
    return b;
}

inline Bytes cat(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline void putBE(Bytes &b, std::uint64_t v, int width)
{
    for (int i = width - 1; i >= 0; --i)
        b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

/* One wire-frame item: tag, 4-byte length, value. */
inline Bytes item(std::uint8_t tag, const Bytes &value)
{
    Bytes b{tag};
    putBE(b, value.size(), 4);
    return cat(b, value);
}

/* A frame with the given protocol, flags and item bytes. */
inline Bytes frame(std::uint8_t protocol, std::uint32_t flags, const Bytes &items)
{
    Bytes b{1, protocol};
    putBE(b, flags, 4);
    putBE(b, items.size() + 12, 4);
    b.push_back(0);
    b.push_back(0);
    return cat(b, items);
}

/* A received message decoded from an application frame holding items. */
inline velClient_opaqueMsg_pt received(const Bytes &items, std::uint32_t flags = 0)
{
    velClient_opaqueMsg_pt msg = nullptr;
    EXPECT_EQ(VELCLIENT_OK, decode(frame(13, flags, items), &msg));
    return msg;
}

/* One log line as the callback received it. */
struct Line {
    velClient_log_category_t category;
    velClient_log_level_t level;
    std::string text;
};

/* Collects every log line at `level` and above while it lives; afterwards
 * the library is quiet again, without a callback. */
struct LogCapture {
    std::vector<Line> lines;
    explicit LogCapture(velClient_log_level_t level = VELCLIENT_LOG_INFO)
    {
        velClient_log_setCallback(
            [](velClient_log_callbackInfo_pt info, void *user) {
                static_cast<std::vector<Line> *>(user)->push_back({info->category, info->level, info->msg_p});
            },
            &lines);
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, level);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture()
    {
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
        velClient_log_setCallback(nullptr, nullptr);
    }
    bool saw(const std::string &text) const
    {
        return std::any_of(lines.begin(), lines.end(), [&](const Line &l) { return l.text == text; });
    }
};

/* A call that must fail, with its return value, sub-code and exact text. */
struct Refusal {
    std::function<int()> call;
    velClient_subCode_t subCode;
    std::string text;
    int rc = VELCLIENT_FAIL;
};

/* Runs each row on a cleared last-error record, so a row cannot pass on the
 * text an earlier one left. */
inline void expectRefusals(const std::vector<Refusal> &rows)
{
    for (const Refusal &r : rows) {
        velClient_resetLastErrorInfo();
        EXPECT_EQ(r.rc, r.call()) << r.text;
        EXPECT_EQ(r.subCode, lastSubCode()) << r.text;
        EXPECT_EQ(r.text, lastErrorText());
    }
}

/* An output argument of any pointer type, for calls that fail before they write. */
struct AnyOut {
    template <class T> operator T *() const
    {
        alignas(16) static unsigned char scratch[512];
        return reinterpret_cast<T *>(scratch);
    }
};

/* One export called with a bad handle; `named` is the function its text names
 * when that is another one, and rc what it answers when it is no return code. */
struct BadHandleCall {
    const char *function;
    std::function<int(void *)> call;
    const char *named = nullptr;
    int rc = VELCLIENT_FAIL;
};

/* Calls that refuse a bad handle with the text `fmt` (%p for the handle, %s for the function named). */
struct BadHandleGroup {
    const char *fmt;
    std::vector<BadHandleCall> calls;
};

/* Every call of every group with each handle: the sub-code PARAM_NULL_PTR and the group's text. */
inline void expectBadHandleRefusals(const std::vector<void *> &handles, const std::vector<BadHandleGroup> &groups)
{
    for (void *bad : handles) {
        SCOPED_TRACE(testing::Message() << "handle " << bad);
        std::vector<Refusal> rows;
        for (const BadHandleGroup &g : groups) {
            for (const BadHandleCall &c : g.calls) {
                const char *name = c.named != nullptr ? c.named : c.function;
                std::string text = std::strstr(g.fmt, "%p") != nullptr ? format(g.fmt, bad, name) : format(g.fmt, name);
                rows.push_back({[c, bad] { return c.call(bad); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR, text, c.rc});
            }
        }
        expectRefusals(rows);
    }
}

} // namespace veltest

/* An export called with the handle `b` and the further arguments given. */
#define VEL_BAD_CALL(fn, ...) {#fn, [](void *b) -> int { return fn(b __VA_OPT__(, ) __VA_ARGS__); }}

/* A refusal row: the call (locals captured by reference), its sub-code and text. */
#define REFUSE(expr, sub, ...) ::veltest::Refusal{[&]() -> int { return (expr); }, sub, __VA_ARGS__}
/* The same, for a text that ends " in " and the function called. */
#define REFUSE_IN(fn, args, sub, text) REFUSE(fn args, sub, std::string(text) + " in " #fn)

/* A call that must succeed for the test to go on. */
#define OK(call) do { ASSERT_EQ(VELCLIENT_OK, (call)); } while (0)

/* The failure's sub-code and exact text. */
#define EXPECT_LAST_ERROR(subCode, text)                          \
    do {                                                          \
        EXPECT_EQ((subCode), ::veltest::lastSubCode());           \
        EXPECT_EQ(std::string(text), ::veltest::lastErrorText()); \
    } while (0)

/* Helpers of the broker tests. */
namespace veltest {

/* A message's dump without the lines that only the receive side sets (its receive time and message id): what
 * a message sent and the same message received have in common. */
inline std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg)
{
    std::vector<char> buffer(1 << 20);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(msg, buffer.data(), buffer.size()));
    const std::string dump = buffer.data();
    std::string kept;
    for (std::size_t at = 0, end; at < dump.size(); at = end + 1) {
        end = std::min(dump.find('\n', at), dump.size());
        if (dump.compare(at, 13, "RcvTimestamp:") != 0 && dump.compare(at, 11, "Message Id:") != 0)
            kept.append(dump, at, end - at).append("\n");
    }
    return kept;
}

} // namespace veltest
