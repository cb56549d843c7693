/* The header map's generic string properties, for other modules of the
 * library: set, get, delete by key, and their refusals (of a bad handle: with
 * the HTTP properties that call them, among the refusals of every export). */
#include "support/velTestSupport.h"
#include "velClientMsg/header/headerMaps.h"

TEST(HeaderMapStrings, SetGetDeleteByKeyAndRefusals)
{
    veltest::Msg m;
    const char *s = nullptr;
    EXPECT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_deleteString(m.h, "k", 0)); /* no header map: no failure */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, _velClient_msgHeaderMap_getString(m.h, &s, "zz"));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_setString(m.h, "value", "zz", 0));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_getString(m.h, &s, "zz"));
    EXPECT_STREQ("value", s);
    ASSERT_EQ(VELCLIENT_OK, _velClient_msgHeaderMap_deleteString(m.h, "zz", 0));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, _velClient_msgHeaderMap_getString(m.h, &s, "zz"));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSequenceNumber(m.h, 3));
    const char *get = "_velClient_msgHeaderMap_getString", *set = "_velClient_msgHeaderMap_setString";
    const velClient_subCode_t null = VELCLIENT_SUBCODE_PARAM_NULL_PTR;
    veltest::expectRefusals({
        {[&] { return _velClient_msgHeaderMap_getString(m.h, &s, "sn"); }, VELCLIENT_SUBCODE_COMMUNICATION_ERROR,
         "Invalid string field 'sn' in kestrel header map"}, /* a key holding another type */
        {[&] { return _velClient_msgHeaderMap_getString(m.h, nullptr, "k"); }, null, veltest::format("Null string pointer in %s", get)},
        {[&] { return _velClient_msgHeaderMap_getString(m.h, &s, nullptr); }, null, veltest::format("Null key pointer in %s", get)},
        {[&] { return _velClient_msgHeaderMap_setString(m.h, "v", nullptr, 0); }, null, veltest::format("Null key pointer in %s", set)},
        {[&] { return _velClient_msgHeaderMap_setString(m.h, nullptr, "k", 0); }, null, veltest::format("Null string pointer in %s", set)},
    });
}
