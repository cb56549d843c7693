/* The setters the receive side uses for values an application only reads:
 * message id and topic sequence number. */
#include <cstdio>

#include <gtest/gtest.h>

#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"

TEST(ReceiveSetters, MessageIdAndTopicSequenceNumberBecomePresent)
{
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    velClient_msgId_t id = 9;
    velClient_int64_t seq = 9;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getMsgId(m, &id));
    EXPECT_EQ(0u, id);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getTopicSequenceNumber(m, &seq));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setMsgId(m, 77));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setTopicSequenceNumber(m, 1234));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getMsgId(m, &id));
    EXPECT_EQ(77u, id);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getTopicSequenceNumber(m, &seq));
    EXPECT_EQ(1234, seq);
    velClient_opaqueMsg_pt stale = m;
    velClient_msg_free(&m);
    /* A freed handle: both refuse (the first names the public getter, as the receive side always has). */
    char text[128];
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msg_setMsgId(stale, 1));
    std::snprintf(text, sizeof text, "Bad msg_p pointer (%p) in velClient_msg_getMsgId", stale);
    EXPECT_STREQ(text, velClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(VELCLIENT_FAIL, _velClient_msg_setTopicSequenceNumber(stale, 1));
    std::snprintf(text, sizeof text, "Bad msg_p pointer (%p) in velClient_msg_setTopicSequenceNumber", stale);
    EXPECT_STREQ(text, velClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(VELCLIENT_SUBCODE_PARAM_NULL_PTR, velClient_getLastErrorInfo()->subCode);
}
