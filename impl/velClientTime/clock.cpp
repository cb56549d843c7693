/*
 * clock.cpp - the library clock and its readable time text.
 */
#include "velClientTime/clock.h"

#include <chrono>
#include <ctime>

extern "C" velClient_uint64_t _velClient_getTimeInUs(void)
{
    using namespace std::chrono;
    return static_cast<velClient_uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

extern "C" void _velClient_formatTime(velClient_uint64_t seconds, char *buf_p, size_t bufSize)
{
    if (buf_p == nullptr || bufSize == 0)
        return;
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (gmtime_r(&t, &parts) == nullptr || std::strftime(buf_p, bufSize, "%b %d, %Y %H:%M:%S", &parts) == 0) {
        /* strftime leaves the buffer undefined when the text does not fit:
         * format into room of our own and cut. */
        char full[64];
        std::size_t n = (gmtime_r(&t, &parts) != nullptr)
                            ? std::strftime(full, sizeof full, "%b %d, %Y %H:%M:%S", &parts)
                            : 0;
        std::size_t keep = n < bufSize - 1 ? n : bufSize - 1;
        for (std::size_t i = 0; i < keep; ++i)
            buf_p[i] = full[i];
        buf_p[keep] = '\0';
    }
}
