/*
 * fuzzSetup.h - how every fuzz target starts the library: quiet, with data
 * block classes of 1 to 5 bytes and no pooling, so that every growth takes a
 * fresh block and any later use of the old bytes is a use after free. With
 * VELFUZZ_DEFAULT_CLASSES set in the environment the defaults are used
 * instead, to see whether a finding needs the tiny classes.
 */
#pragma once

#include <cstdlib>

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

} // namespace velfuzz

/* A libFuzzer target: the library started as above, then walk(data, size) on
 * each input; a walk that answers false (an invariant broken, such as an
 * accepted message whose new encoding does not decode) aborts. */
#define VELFUZZ_TARGET(walk)                                                                \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)                                    \
    {                                                                                       \
        velfuzz::startLibrary();                                                            \
        return 0;                                                                           \
    }                                                                                       \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)       \
    {                                                                                       \
        if (!(walk)(data, size))                                                            \
            std::abort();                                                                   \
        return 0;                                                                           \
    }
