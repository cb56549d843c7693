/* Helpers shared by the public-API tests: reading the last-error record and
 * the pool counters. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "velclient/velClientMsg.h"

namespace veltest {

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

/* The live-record counters (messages, containers, data blocks of each class),
 * to check that a piece of work gave back everything it took. */
struct LiveCounts {
    velClient_uint64_t msgs = stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    velClient_uint64_t containers = stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    velClient_uint64_t blocks[6] = {stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 0),
                                    stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 1),
                                    stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 2),
                                    stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 3),
                                    stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 4),
                                    stat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, 5)};

    void expectBalanced() const
    {
        const LiveCounts now;
        EXPECT_EQ(msgs, now.msgs);
        EXPECT_EQ(containers, now.containers);
        for (int q = 0; q < 6; ++q)
            EXPECT_EQ(blocks[q], now.blocks[q]) << "data blocks of class " << q;
    }
};

/* Formats a text exactly as the library does, for texts that carry a %p. */
template <typename... Args>
std::string format(const char *fmt, Args... args)
{
    char text[512];
    std::snprintf(text, sizeof text, fmt, args...);
    return text;
}

/* The message's wire image, as bytes. */
inline std::vector<std::uint8_t> encode(velClient_opaqueMsg_pt msg)
{
    velClient_bufInfo_t info{};
    velClient_opaqueDatablock_pt block = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_encodeToVWF(msg, &info, &block));
    auto *p = static_cast<std::uint8_t *>(info.buf_p);
    std::vector<std::uint8_t> out(p, p + info.bufSize);
    velClient_datablock_free(&block);
    return out;
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

/* A message that is freed when it goes out of scope. */
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
};

} // namespace veltest

/* The failure's sub-code and exact text. */
#define EXPECT_LAST_ERROR(subCode, text)                   \
    do {                                                   \
        EXPECT_EQ((subCode), ::veltest::lastSubCode());    \
        EXPECT_EQ(std::string(text), ::veltest::lastErrorText()); \
    } while (0)
