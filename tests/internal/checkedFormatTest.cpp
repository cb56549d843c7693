/* Which printf texts vel::Format refuses for which argument types, checked
 * when this file compiles. (That it accepts every text the library uses, the
 * library's own build shows; the texts recorded and logged with them are
 * checked as exact texts by the refusal and log tests.) */
#include <cstddef>

#include "velClientLog/logPrivate.h"

using vel::formatMatches;

/* Refused: a type that does not fit, a count that does not match, or a
 * directive outside the supported set. */
static_assert(!formatMatches<int>("%p") && !formatMatches<const char *>("%p") && !formatMatches<const void *>("%s"));
static_assert(!formatMatches<unsigned>("%d") && !formatMatches<int>("%u") && !formatMatches<long>("%d"));
static_assert(!formatMatches<unsigned>("%zu") && !formatMatches<long long>("%ld") && !formatMatches<short>("%hd"));
static_assert(!formatMatches<int>("no directive") && !formatMatches<>("(%d)") && !formatMatches<int, int>("%d"));
static_assert(!formatMatches<>("50% off") && !formatMatches<>("ends in %") && !formatMatches<>(nullptr));
static_assert(!formatMatches<double>("%f") && !formatMatches<int>("%*d"));

/* A handle's text may leave the handle out; any other text must read all. */
static_assert(vel::format::matches<const void *>("Bad msg_p pointer in velClient_msg_setDestination", true));
static_assert(!vel::format::matches<const void *>("Bad msg_p pointer in velClient_msg_setDestination", false));
static_assert(!vel::format::matches<const void *>("Bad handle (%d)", true));
