/*
 * libraryStart.cpp - library start and stop: reads the start properties (the
 * five data-block size classes and the pool memory limit), sets the SDK log
 * filter and starts or drains the message pool.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "velClientInit/libraryStart.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

std::atomic<bool> initialised_s{false};

/* A whole decimal number in [0, max]; false for anything else. */
bool parseDecimal(const char *text_p, std::uint64_t max, std::uint64_t *value_p)
{
    if (text_p == nullptr || *text_p < '0' || *text_p > '9')
        return false;
    errno = 0;
    char *end_p = nullptr;
    unsigned long long v = std::strtoull(text_p, &end_p, 10);
    if (errno != 0 || *end_p != '\0' || v > max)
        return false;
    *value_p = v;
    return true;
}

struct StartConfig {
    std::uint32_t quanta[_VELCLIENT_NUM_QUANTA];
    std::uint64_t maxPoolMem;
};

/* The property comes before the value, which may be long enough to be cut off. */
velClient_returnCode_t badValue(const char *name_p, const char *value_p)
{
    return VEL_FAIL_RANGE("Invalid value for property %s in velClient_initialize: '%s'", name_p,
                          value_p ? value_p : "(null)");
}

/* Applies one name/value pair to config; records the failure otherwise. */
velClient_returnCode_t applyProperty(StartConfig &config, const char *name_p, const char *value_p)
{
    static const char quantaPrefix[] = "GLOBAL_DBQUANTASIZE_";
    std::uint64_t value = 0;
    if (std::strncmp(name_p, quantaPrefix, sizeof quantaPrefix - 1) == 0 &&
        name_p[sizeof quantaPrefix - 1] >= '0' && name_p[sizeof quantaPrefix - 1] <= '4' &&
        name_p[sizeof quantaPrefix] == '\0') {
        if (!parseDecimal(value_p, UINT32_MAX, &value))
            return badValue(name_p, value_p);
        config.quanta[name_p[sizeof quantaPrefix - 1] - '0'] = static_cast<std::uint32_t>(value);
        return VELCLIENT_OK;
    }
    if (std::strcmp(name_p, "GLOBAL_MAXPOOLMEM") == 0) {
        if (!parseDecimal(value_p, UINT64_MAX, &value))
            return badValue(name_p, value_p);
        config.maxPoolMem = value;
        return VELCLIENT_OK;
    }
    return VEL_FAIL_RANGE("Unknown property %s in velClient_initialize", name_p);
}

velClient_returnCode_t readProperties(StartConfig &config, const char *const *props)
{
    for (std::size_t i = 0; props != nullptr && props[i] != nullptr; i += 2) {
        if (applyProperty(config, props[i], props[i + 1]) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
    }
    for (std::uint32_t q = 1; q < _VELCLIENT_NUM_QUANTA; ++q) {
        if (config.quanta[q] <= config.quanta[q - 1])
            return VEL_FAIL_RANGE("Property GLOBAL_DBQUANTASIZE_%u (%u) is not above GLOBAL_DBQUANTASIZE_%u (%u) in "
                                  "velClient_initialize",
                                  q, config.quanta[q], q - 1, config.quanta[q - 1]);
    }
    return VELCLIENT_OK;
}

} // namespace

bool _velClient_isInitialised()
{
    return initialised_s.load(std::memory_order_acquire);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_initialize(velClient_log_level_t initialLogLevel,
                                                                    const char *const *props)
{
    StartConfig config{};
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        config.quanta[q] = VEL_DEFAULT_QUANTA[q];
    config.maxPoolMem = kDefaultMaxPoolMem;
    if (readProperties(config, props) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    if (vel::log::setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, initialLogLevel) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    _velClient_msgPool_configure(config.quanta, config.maxPoolMem);
    velClient_returnCode_t rc = _velClient_msgInit();
    if (rc == VELCLIENT_OK)
        initialised_s.store(true, std::memory_order_release);
    return rc;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_cleanup(void)
{
    _velClient_msg_cleanup();
    initialised_s.store(false, std::memory_order_release);
    return VELCLIENT_OK;
}
