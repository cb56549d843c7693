/* Test entry point: starts the library as an application would, and keeps
 * library log lines quiet (failures are still stored in the last-error record,
 * which the tests read) unless VEL_TEST_LOG is set. */
#include <cstdlib>

#include <gtest/gtest.h>

#include "velclient/velClient.h"

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr);
    if (std::getenv("VEL_TEST_LOG") == nullptr)
        velClient_log_setFilterLevel(VELCLIENT_LOG_CATEGORY_ALL, VELCLIENT_LOG_EMERGENCY);
    return RUN_ALL_TESTS();
}
