/*
 * clock.h - the library clock and its readable time text.
 */
#pragma once

#include <cstddef>

#include "velclient/velClient.h"

extern "C" {
/* Wall-clock time in microseconds since 1970. */
velClient_uint64_t _velClient_getTimeInUs(void);

/* seconds (since 1970) as "Mmm DD, YYYY HH:MM:SS" in UTC, cut to fit bufSize
 * and always NUL-terminated when bufSize > 0. */
void _velClient_formatTime(velClient_uint64_t seconds, char *buf_p, size_t bufSize);
}
