/* Starting the library with properties: the data-block classes and the pool
 * limit, and every refusal, which leaves the running configuration alone. */
#include <string>

#include "support/velTestSupport.h"

namespace {

/* The capacity a data block of size gets, then freed. */
velClient_uint32_t capacityFor(velClient_uint32_t size)
{
    velClient_opaqueDatablock_pt b = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&b, size));
    void *p = nullptr;
    velClient_uint32_t capacity = 0;
    velClient_datablock_getDataPtr(b, &p, &capacity);
    velClient_datablock_free(&b);
    return capacity;
}

struct DefaultsAfterwards {
    ~DefaultsAfterwards() { velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr); }
};

} // namespace

TEST(InitProperties, ClassesAndLimitFromProperties)
{
    DefaultsAfterwards restore;
    const char *props[] = {"GLOBAL_DBQUANTASIZE_0", "64",   "GLOBAL_DBQUANTASIZE_1", "128",
                           "GLOBAL_DBQUANTASIZE_2", "1000", "GLOBAL_DBQUANTASIZE_3", "5000",
                           "GLOBAL_DBQUANTASIZE_4", "9000", "GLOBAL_MAXPOOLMEM",     "0",
                           nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, props));
    EXPECT_EQ(64u, capacityFor(1));
    EXPECT_EQ(128u, capacityFor(65));
    EXPECT_EQ(9000u, capacityFor(5001));
    EXPECT_EQ(9001u, capacityFor(9001)); /* above the last class: exactly the size asked */
    /* A limit of 0 pools nothing. */
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_free(&m));
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_MSGS));
    EXPECT_EQ(0u, veltest::stat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0));
}

TEST(InitProperties, RefusalsChangeNothing)
{
    DefaultsAfterwards restore;
    const char *custom[] = {"GLOBAL_DBQUANTASIZE_0", "50", nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, custom));
    struct Case {
        const char *name;
        const char *value;
        std::string text;
    };
    const std::string digits(300, '1');
    const Case cases[] = {
        {"GLOBAL_DBQUANTASIZE_0", "abc",
         "Invalid value for property GLOBAL_DBQUANTASIZE_0 in velClient_initialize: 'abc'"},
        {"GLOBAL_DBQUANTASIZE_1", "-1",
         "Invalid value for property GLOBAL_DBQUANTASIZE_1 in velClient_initialize: '-1'"},
        {"GLOBAL_DBQUANTASIZE_2", "", "Invalid value for property GLOBAL_DBQUANTASIZE_2 in velClient_initialize: ''"},
        {"GLOBAL_DBQUANTASIZE_3", "4294967296",
         "Invalid value for property GLOBAL_DBQUANTASIZE_3 in velClient_initialize: '4294967296'"},
        {"GLOBAL_DBQUANTASIZE_4", "12x",
         "Invalid value for property GLOBAL_DBQUANTASIZE_4 in velClient_initialize: '12x'"},
        {"GLOBAL_DBQUANTASIZE_0", nullptr,
         "Invalid value for property GLOBAL_DBQUANTASIZE_0 in velClient_initialize: '(null)'"},
        {"GLOBAL_MAXPOOLMEM", "18446744073709551616",
         "Invalid value for property GLOBAL_MAXPOOLMEM in velClient_initialize: '18446744073709551616'"},
        /* A value too long for the error record is what gets cut, not the property's name. */
        {"GLOBAL_MAXPOOLMEM", digits.c_str(),
         ("Invalid value for property GLOBAL_MAXPOOLMEM in velClient_initialize: '" + digits).substr(0, 255)},
        {"GLOBAL_DBQUANTASIZE_5", "100", "Unknown property GLOBAL_DBQUANTASIZE_5 in velClient_initialize"},
        {"GLOBAL_DBQUANTASIZE_", "100", "Unknown property GLOBAL_DBQUANTASIZE_ in velClient_initialize"},
        {"GLOBAL_POOL", "1", "Unknown property GLOBAL_POOL in velClient_initialize"},
    };
    for (const Case &c : cases) {
        const char *props[] = {c.name, c.value, nullptr};
        EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, props)) << c.name;
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, c.text);
    }
    const char *unordered[] = {"GLOBAL_DBQUANTASIZE_2", "100", nullptr};
    EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(VELCLIENT_LOG_EMERGENCY, unordered));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                      "Property GLOBAL_DBQUANTASIZE_2 (100) is not above GLOBAL_DBQUANTASIZE_1 (2048) in "
                      "velClient_initialize");
    EXPECT_EQ(VELCLIENT_FAIL, velClient_initialize(static_cast<velClient_log_level_t>(9), nullptr));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Invalid log level of 9 in velClient_log_setFilterLevel");
    EXPECT_EQ(50u, capacityFor(1)); /* the classes set before every refusal still hold */
}
