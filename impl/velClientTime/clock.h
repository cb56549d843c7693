/*
 * clock.h - the library clock, the receive-time clock and the readable time
 * text.
 */
#pragma once

#include <cstddef>

#include "velclient/velClient.h"

extern "C" {
/* Wall-clock time in microseconds since 1970. */
velClient_uint64_t _velClient_getTimeInUs(void);

/* Wall-clock time in milliseconds since 1970, _velClient_getTimeInUs() / 1000,
 * for stamping each received message. Where the processor's time-stamp
 * counter runs at a constant rate, a thread reads the clock once per
 * millisecond at most: until the counter shows that the millisecond read
 * last may have ended, that millisecond is the answer. */
velClient_uint64_t _velClient_getTimeInMs(void);

/* seconds (since 1970) as "Mmm DD, YYYY HH:MM:SS" in UTC, cut to fit bufSize
 * and always NUL-terminated when bufSize > 0. */
void _velClient_formatTime(velClient_uint64_t seconds, char *buf_p, size_t bufSize);
}
