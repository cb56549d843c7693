/* Message calls for other modules of the library. The header map's generic string properties: set, get,
 * delete by key, and their refusals (of a bad handle: with the HTTP properties that call them, among the
 * refusals of every export). The setters the receive side uses for values an application only reads:
 * message id and topic sequence number. */
#include "support/velTestSupport.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"

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

TEST(ReceiveSetters, MessageIdAndTopicSequenceNumberBecomePresent)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_msgId_t id = 9;
    velClient_int64_t seq = 9;
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setMsgId(m, 77));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setTopicSequenceNumber(m, 1234));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m, &id));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTopicSequenceNumber(m, &seq));
    EXPECT_TRUE(id == 77 && seq == 1234) << id << " " << seq;
    velClient_opaqueMsg_pt stale = m;
    velClient_msg_free(&m);
    /* A freed handle: both refuse (the first names the public getter, as the receive side always has). */
    veltest::expectRefusals(
        {{[stale] { return _velClient_msg_setMsgId(stale, 1); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
          veltest::format("Bad msg_p pointer (%p) in velClient_msg_getMsgId", stale)},
         {[stale] { return _velClient_msg_setTopicSequenceNumber(stale, 1); }, VELCLIENT_SUBCODE_PARAM_NULL_PTR,
          veltest::format("Bad msg_p pointer (%p) in velClient_msg_setTopicSequenceNumber", stale)}});
}
