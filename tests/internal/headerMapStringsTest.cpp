/* The header map's generic string properties, for other modules of the
 * library: set, get, delete by key, and their refusals. */
#include <string>

#include <gtest/gtest.h>

#include "velClientMsg/header/headerMaps.h"

namespace {

std::string lastText()
{
    return velClient_getLastErrorInfo()->errorStr;
}

void *const kBad = reinterpret_cast<void *>(0x7777);

} // namespace

TEST(HeaderMapStrings, SetGetDeleteByKey)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    const char *s = nullptr;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, _velClient_msgHeaderMap_getString(m, &s, "zz"));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_setString(m, "value", "zz", 0));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_getString(m, &s, "zz"));
    EXPECT_STREQ("value", s);
    /* A key holding another type is not a string property. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m, 3));
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_getString(m, &s, "sn"));
    EXPECT_EQ(VELCLIENT_SUBCODE_COMMUNICATION_ERROR, velClient_getLastErrorInfo()->subCode);
    EXPECT_EQ("Invalid string field 'sn' in kestrel header map", lastText());
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_deleteString(m, "zz", 0));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, _velClient_msgHeaderMap_getString(m, &s, "zz"));
    velClient_msg_free(&m);
}

TEST(HeaderMapStrings, Refusals)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    const char *s = nullptr;
    char text[128];
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_getString(kBad, &s, "k"));
    std::snprintf(text, sizeof text, "Bad msg_p pointer (%p) in _velClient_msgHeaderMap_getString", kBad);
    EXPECT_EQ(text, lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_getString(m, nullptr, "k"));
    EXPECT_EQ("Null string pointer in _velClient_msgHeaderMap_getString", lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_getString(m, &s, nullptr));
    EXPECT_EQ("Null key pointer in _velClient_msgHeaderMap_getString", lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_setString(kBad, "v", "k", 0));
    std::snprintf(text, sizeof text, "Bad msg_p pointer (%p) in _velClient_msgHeaderMap_setString", kBad);
    EXPECT_EQ(text, lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_setString(m, "v", nullptr, 0));
    EXPECT_EQ("Null key pointer in _velClient_msgHeaderMap_setString", lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_setString(m, nullptr, "k", 0));
    EXPECT_EQ("Null string pointer in _velClient_msgHeaderMap_setString", lastText());
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msgHeaderMap_deleteString(kBad, "k", 0));
    std::snprintf(text, sizeof text, "Bad msg_p pointer (%p) in velClient_msgHeaderMap_deleteString", kBad);
    EXPECT_EQ(text, lastText());
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, velClient_getLastErrorInfo()->subCode);
    /* Deleting from a message without a header map is no failure. */
    EXPECT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_deleteString(m, "k", 0));
    velClient_msg_free(&m);
}
