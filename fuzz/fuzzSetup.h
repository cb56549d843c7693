/*
 * fuzzSetup.h - how every fuzz target starts the library: quiet, with data
 * block classes of 1 to 5 bytes and no pooling, so that every growth takes a
 * fresh block and any later use of the old bytes is a use after free; and
 * what it checks after every input: the records it left live. With
 * VELFUZZ_DEFAULT_CLASSES set in the environment the defaults are used
 * instead, to see whether a finding needs the tiny classes.
 */
#pragma once

#include <cstdlib>
#include <vector>

#include "velclient/velClientMsg.h"

namespace velfuzz {

/* Start-up properties under which every growth takes a new data block: five
 * tiny size classes and a pool that keeps nothing for reuse. */
inline const char *const tinyClasses[] = {"GLOBAL_DBQUANTASIZE_0", "1", "GLOBAL_DBQUANTASIZE_1", "2",
                                          "GLOBAL_DBQUANTASIZE_2", "3", "GLOBAL_DBQUANTASIZE_3", "4",
                                          "GLOBAL_DBQUANTASIZE_4", "5", "GLOBAL_MAXPOOLMEM",     "0",
                                          nullptr};

inline void startLibrary()
{
    const bool defaults = std::getenv("VELFUZZ_DEFAULT_CLASSES") != nullptr;
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, defaults ? nullptr : tinyClasses);
    velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
}

/* What the library holds live: messages, containers, data blocks of every
 * class and their bytes. Every record also stays reachable through its handle,
 * so a record never freed is no leak to LeakSanitizer: these counts show it. */
inline std::vector<velClient_uint64_t> liveRecords()
{
    std::vector<velClient_uint64_t> live;
    auto add = [&live](velClient_msg_stats_t type, velClient_uint32_t index) {
        velClient_uint64_t v = 0;
        velClient_msg_getStat(type, index, &v);
        live.push_back(v);
    };
    add(VELCLIENT_MSG_STATS_ALLOC_MSGS, 0);
    add(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS, 0);
    add(VELCLIENT_MSG_STATS_ALLOC_MEMORY, 0);
    for (velClient_uint32_t q = 0; q <= 5; ++q)
        add(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, q);
    return live;
}

} // namespace velfuzz

/* A libFuzzer target: the library started as above, then walk(data, size) on
 * each input; a walk that answers false (an invariant broken, such as an
 * accepted message whose new encoding does not decode), or leaves a record
 * live that it did not have before, aborts. */
#define VELFUZZ_TARGET(walk)                                                                \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)                                    \
    {                                                                                       \
        velfuzz::startLibrary();                                                            \
        return 0;                                                                           \
    }                                                                                       \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)       \
    {                                                                                       \
        const std::vector<velClient_uint64_t> before = velfuzz::liveRecords();              \
        if (!(walk)(data, size) || velfuzz::liveRecords() != before)                        \
            std::abort();                                                                   \
        return 0;                                                                           \
    }
