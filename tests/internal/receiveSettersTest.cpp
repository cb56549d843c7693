/* The setters the receive side uses for values an application only reads:
 * message id and topic sequence number. */
#include "support/velTestSupport.h"
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/velClientMsgPrivate.h"

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
