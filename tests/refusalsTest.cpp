/* Refusals, one table per family: every export called with a bad handle (a
 * forged value, a freed handle and a live handle of another type), then the
 * argument checks with their sub-codes and exact texts. */
#include <string>

#include "support/velTestSupport.h"

using veltest::BadHandleCall;
using veltest::format;
using veltest::Refusal;

/* The same, for the text "Bad <what> pointer (<p>) in <function>". */
#define REFUSE_BAD(fn, args, what, p) REFUSE(fn args, N, format("Bad " what " pointer (%p) in " #fn, (const void *)(p)))
/* An out-of-range flag setting, its text naming `named` and ending in a blank. */
#define REFUSE_SETTING(fn, v, what, named) REFUSE(fn(h, v), R, format("Invalid setting of " what " (%d) in " named " ", v))

namespace {

const veltest::AnyOut out;
char buf[8] = "x";
velClient_destination_t topicDest{VELCLIENT_TOPIC_DESTINATION, "t"};
constexpr std::size_t kDest = sizeof(velClient_destination_t);
constexpr std::size_t kField = sizeof(velClient_field_t);
velClient_opaqueSession_pt session = nullptr; /* for the bad-handle rows that need one */
constexpr auto N = VELCLIENT_SUBCODE_PARAM_NULL_PTR, R = VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
               C = VELCLIENT_SUBCODE_PARAM_CONFLICT;

/* Handles no export of the kind may take: forged ones (an entry never issued, a page never allocated), a
 * freed message's and a closed container's, whose entries the next message and container took over (the
 * table hands a thread the entry it freed last); a live container's is bad for the message exports only. */
struct BadHandles {
    char mem[2][16];
    velClient_opaqueMsg_pt next = nullptr;
    velClient_opaqueContainer_pt live = nullptr, closed = nullptr;
    std::vector<void *> all{reinterpret_cast<void *>(0x5151), reinterpret_cast<void *>(0x3fff000)};
    BadHandles()
    {
        velClient_opaqueMsg_pt m = nullptr;
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
        all.push_back(m);
        velClient_msg_free(&m);
        EXPECT_EQ(VELCLIENT_OK, velClient_msg_alloc(&next));
        EXPECT_EQ(VELCLIENT_OK, velClient_container_createMap(&closed, mem[0], sizeof mem[0]));
        all.push_back(closed);
        velClient_container_closeMapStream(&closed);
        EXPECT_EQ(VELCLIENT_OK, velClient_container_createMap(&live, mem[1], sizeof mem[1]));
        for (auto [freed, reused] : {std::pair<void *, void *>{all[2], next}, {all[3], live}}) {
            const auto bits = reinterpret_cast<std::uintptr_t>(freed) ^ reinterpret_cast<std::uintptr_t>(reused);
            EXPECT_TRUE(bits != 0 && (bits & 0x3ffffff) == 0); /* the same page and entry, another generation */
        }
    }
    ~BadHandles()
    {
        velClient_container_closeMapStream(&live);
        velClient_msg_free(&next);
    }
};

velClient_returnCode_t setDest(velClient_opaqueMsg_pt m, int type, const char *text, std::size_t size = kDest)
{
    velClient_destination_t d{VELCLIENT_TOPIC_DESTINATION, text};
    std::memcpy(&d.destType, &type, sizeof type);
    return velClient_msg_setDestination(m, &d, size);
}

std::string sizeText(int received, int expected, const char *function)
{
    return format("Unsupported %s structure size (received %d, expected %d) in %s",
                  expected == static_cast<int>(kDest) ? "destination" : "field", received, expected, function);
}

} // namespace

/* A bad-handle row whose text names another function (`named`) or that answers `rc`. */
#define BAD_AS(fn, args, named, ...) {#fn, [](void *b) -> int { return fn args; }, named __VA_OPT__(, ) __VA_ARGS__}
/* A message export called with a bad handle and the further arguments given. */
#define MSG_CALL(fn, ...) VEL_BAD_CALL(velClient_msg_##fn __VA_OPT__(, ) __VA_ARGS__)
/* The same for a container export. */
#define CONT_CALL(fn, ...) VEL_BAD_CALL(velClient_container_##fn __VA_OPT__(, ) __VA_ARGS__)

TEST(Refusals, EveryMessageAndContainerExportRefusesABadHandle)
{
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(nullptr, nullptr, nullptr, &session));
    BadHandles bad;
    std::vector<void *> handles = bad.all;
    handles.push_back(bad.live);
    veltest::expectBadHandleRefusals(handles, {{"Bad msg_p pointer (%p) in %s", {
        MSG_CALL(reset), MSG_CALL(dup, out), BAD_AS(velClient_msg_free, (&b), nullptr), MSG_CALL(setUserData, buf, 1),
        MSG_CALL(setXml, buf, 1), MSG_CALL(setCorrelationTag, buf, 1), MSG_CALL(setBinaryAttachmentPtr, buf, 1),
        MSG_CALL(setBinaryAttachmentString, "x"), MSG_CALL(getUserDataPtr, out, out), MSG_CALL(getXmlPtr, out, out),
        MSG_CALL(getCorrelationTagPtr, out, out), MSG_CALL(getBinaryAttachmentPtr, out, out),
        MSG_CALL(getBinaryAttachmentString, out), MSG_CALL(getConsumerIdCount, out),
        BAD_AS(velClient_msg_getConsumerId, (b, 0, out), "velClient_msg_getConsumerIdCount"),
        MSG_CALL(getVWFPtr, out, out), MSG_CALL(extractDatablock, VELCLIENT_BUFINFO_XML_PART, out, out),
        MSG_CALL(getDestination, out, kDest), MSG_CALL(getReplyTo, out, kDest), MSG_CALL(setReplyTo, &topicDest, kDest),
        MSG_CALL(deleteReplyTo), BAD_AS(velClient_msg_setReplyToSuffix, (b, session, "x"), nullptr),
        BAD_AS(velClient_session_sendMsg, (session, b), nullptr), MSG_CALL(setClassOfService, 0),
        BAD_AS(velClient_msg_getClassOfService, (b, out), "velClient_msg_getReceivedClassOfService"),
        MSG_CALL(setDeliveryMode, 0), MSG_CALL(getDeliveryMode, out), MSG_CALL(setTimeToLive, 0),
        MSG_CALL(getTimeToLive, out), MSG_CALL(setExpiration, 0), MSG_CALL(getExpiration, out), MSG_CALL(getMsgId, out),
        MSG_CALL(getTopicSequenceNumber, out), MSG_CALL(getRcvTimestamp, out), MSG_CALL(getCacheRequestId, out),
        MSG_CALL(setDiscardIndication, 0), MSG_CALL(setDeliverToOne, 0), MSG_CALL(setDMQEligible, 0),
        MSG_CALL(setAsReplyMsg, 0), BAD_AS(velClient_msg_setElidingEligible, (b, 0), "velClient_msg_setAsReplyMsg"),
        MSG_CALL(setAckImmediately, 0), BAD_AS(velClient_msg_isReplyMsg, (b), nullptr, 0),
        BAD_AS(velClient_msg_isRedelivered, (b), nullptr, 0),
        BAD_AS(velClient_msg_isCacheMsg, (b), "velClient_msg_isRedelivered", VELCLIENT_CACHE_INVALID_MESSAGE),
        BAD_AS(velClient_msg_isDiscardIndication, (b), nullptr, 0),
        BAD_AS(velClient_msg_isDeliverToOne, (b), nullptr, 0),
        BAD_AS(velClient_msg_isDMQEligible, (b), "velClient_msg_setDMQEligible", 0),
        BAD_AS(velClient_msg_isElidingEligible, (b), "velClient_msg_isDeliverToOne", 0),
        BAD_AS(velClient_msg_isAckImmediately, (b), nullptr, 0xFF), MSG_CALL(getSenderId, out),
        MSG_CALL(deleteSenderId), MSG_CALL(getApplicationMsgType, out), MSG_CALL(setApplicationMsgType, "x"),
        MSG_CALL(deleteApplicationMsgType), MSG_CALL(getApplicationMessageId, out),
        MSG_CALL(setApplicationMessageId, "x"), MSG_CALL(deleteApplicationMessageId), MSG_CALL(getSequenceNumber, out),
        MSG_CALL(setSequenceNumber, 1), MSG_CALL(deleteSequenceNumber), MSG_CALL(getCorrelationId, out),
        MSG_CALL(setCorrelationId, "x"), MSG_CALL(deleteCorrelationId),
        BAD_AS(velClient_msg_getSenderTimestamp, (b, out), "velClient_msg_getSenderTimeStamp"),
        MSG_CALL(setSenderTimestamp, 1), MSG_CALL(deleteSenderTimestamp),
        BAD_AS(velClient_msg_getHttpContentType, (b, out), "_velClient_msgHeaderMap_getString"),
        BAD_AS(velClient_msg_setHttpContentEncoding, (b, "x"), "_velClient_msgHeaderMap_setString"),
        BAD_AS(velClient_msg_deleteHttpContentType, (b), "velClient_msgHeaderMap_deleteString"),
        MSG_CALL(createUserPropertyMap, out, 8), MSG_CALL(setUserPropertyMap, nullptr),
        MSG_CALL(getUserPropertyMap, out), MSG_CALL(createBinaryAttachmentMap, out, 0),
        MSG_CALL(createBinaryAttachmentStream, out, 0), MSG_CALL(setBinaryAttachmentContainer, nullptr),
        MSG_CALL(setBinaryAttachmentContainerPtr, nullptr), MSG_CALL(getBinaryAttachmentMap, out),
        MSG_CALL(getBinaryAttachmentStream, out), MSG_CALL(getBinaryAttachmentContainerSize, out),
        MSG_CALL(getBinaryAttachmentField, out, kField), MSG_CALL(encodeToVWF, nullptr, nullptr),
        MSG_CALL(dump, buf, sizeof buf), BAD_AS(velClient_msg_dumpExt, (b, buf, sizeof buf, 0), "velClient_msg_dump"),
    }}, {"Bad msg_p pointer in %s", {
        VEL_BAD_CALL(velClient_msg_setUserDataPtr, buf, 1), VEL_BAD_CALL(velClient_msg_setXmlPtr, buf, 1),
        VEL_BAD_CALL(velClient_msg_setCorrelationTagPtr, buf, 1), VEL_BAD_CALL(velClient_msg_setTopicPtr, "t"),
        BAD_AS(velClient_msg_setQueueNamePtr, (b, "q"), "velClient_msg_setTopicPtr"),
        VEL_BAD_CALL(velClient_msg_setBinaryAttachment, buf, 1),
        VEL_BAD_CALL(velClient_msg_setDestination, &topicDest, kDest),
    }}, {"Null msg_p pointer (%p) in %s", {VEL_BAD_CALL(velClient_msg_setSenderId, "x")}}});
    velClient_session_destroy(&session);
    veltest::expectBadHandleRefusals(bad.all, {{"Bad Container (%p) in %s", {
        CONT_CALL(getField, out, kField, "k"), CONT_CALL(getSize, out), CONT_CALL(getContainerPtr, out, out),
        CONT_CALL(deleteField, "k"), CONT_CALL(getBoolean, out, "k"), CONT_CALL(getUint8, out, "k"),
        CONT_CALL(getInt64, out, "k"), CONT_CALL(getWchar, out, "k"), CONT_CALL(getDouble, out, "k"),
        CONT_CALL(getStringPtr, out, "k"), CONT_CALL(getByteArrayPtr, out, out, "k"), CONT_CALL(getNull, "k"),
        CONT_CALL(getSubMap, out, "k"),
    }}, {"Bad container pointer (%p) in velClient_container_paramCheck", { /* every add names the check they share */
        CONT_CALL(addNull, "k"), CONT_CALL(addInt32, 1, "k"), CONT_CALL(addString, "v", "k"),
        CONT_CALL(addDestination, &topicDest, kDest, "k"), CONT_CALL(addContainer, nullptr, "k"),
    }}, {"Bad cont_p pointer (%p) in %s", {VEL_BAD_CALL(velClient_container_getNextField, out, kField, out)}},
        {"Bad container pointer (%p) in %s", {BAD_AS(velClient_container_hasNextField, (b), nullptr, 0),
                                              BAD_AS(velClient_container_closeMapStream, (&b), nullptr)}}});
}

TEST(Refusals, MessageArguments)
{
    veltest::Msg m;
    velClient_opaqueSession_pt s = nullptr;
    const char *props[] = {"SESSION_P2P_TOPIC_BASE", "B", "SESSION_TRANSPORT", "null", nullptr};
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &s));
    void *bad = reinterpret_cast<void *>(0x6161);
    velClient_opaqueMsg_pt h = m.h;
    velClient_bufInfo_t info{};
    std::uint8_t byte = 0;
    velClient_bufInfo_t empty{&byte, 0}, nullBuf{nullptr, 4};
    const std::string t251(251, 't'), q201(201, 'q'), tmp251 = "#P2P/QTMP/" + std::string(241, 'q');
    const int dest = static_cast<int>(kDest), field = static_cast<int>(kField);
    const auto xml = VELCLIENT_BUFINFO_XML_PART;
    const std::string destLen = "Destination string length of ";
    char text[8];
    std::vector<Refusal> rows = {
        REFUSE_IN(velClient_msg_alloc, (nullptr), N, "Null reference to msg_p pointer"),
        REFUSE_IN(velClient_msg_free, (nullptr), N, "Null reference to msg_p pointer"),
        REFUSE(velClient_msg_setUserData(h, nullptr, 5), N,
               "Null buf_p pointer with non-zero size in velClient_msg_setBufinfo"),
        REFUSE(velClient_msg_getXmlPtr(h, nullptr, out), N, "Null bufPtr_p pointer in velClient_msg_getBufinfoPtr"),
        REFUSE(velClient_msg_getXmlPtr(h, out, nullptr), N, "Null size_p pointer in velClient_msg_getBufinfoPtr"),
        REFUSE(velClient_bufInfo_getConsumerIdCount(nullptr, out), N,
               "Null pointer in velClient_bufInfo_getConsumerIdCount"),
        REFUSE(velClient_bufInfo_getConsumerId(nullptr, 0, out), N, "Null pointer in velClient_bufInfo_getConsumerId"),
        REFUSE_IN(velClient_msg_getBinaryAttachmentString, (h, nullptr), N, "Null buf pointer"),
        REFUSE_IN(velClient_msg_setTopicPtr, (h, t251.c_str()), R, "Topic length of 251 exceeds maximum of 250"),
        REFUSE_IN(velClient_msg_setQueueNamePtr, (h, q201.c_str()), R, "Queue name length of 201 exceeds maximum of 200"),
        REFUSE(setDest(h, VELCLIENT_QUEUE_DESTINATION, q201.c_str()), R,
               destLen + "201 exceeds maximum of 200 for destination type 1 in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_TOPIC_DESTINATION, t251.c_str()), R,
               destLen + "251 exceeds maximum of 250 for destination type 0 in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_QUEUE_TEMP_DESTINATION, tmp251.c_str()), R,
               destLen + "251 exceeds maximum of 250 for destination type 3 in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_QUEUE_DESTINATION, "#P2P/QUE/abc"), R,
               "Invalid string dest pointer (#P2P/QUE/abc) in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_NULL_DESTINATION, "x"), R,
               "Non-null dest pointer with VELCLIENT_NULL_DESTINATION type in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_TOPIC_DESTINATION, ""), R, "Empty string dest pointer in velClient_msg_setDestination"),
        REFUSE(setDest(h, VELCLIENT_TOPIC_DESTINATION, nullptr), N, "Null dest pointer in velClient_msg_setDestination"),
        REFUSE(setDest(h, 9, "x"), R, "Unsupported destination type of 9 in velClient_msg_setDestination"),
        REFUSE(setDest(h, 0, "x", 3), R, sizeText(3, dest, "velClient_msg_setDestination")),
        REFUSE(velClient_msg_getDestination(h, out, kDest - 1), R, sizeText(dest - 1, dest, "velClient_msg_getDestination")),
        REFUSE_IN(velClient_msg_setReplyTo, (h, nullptr, kDest), N, "Null velClient_destination_t pointer"),
        REFUSE(velClient_msg_setReplyTo(h, &topicDest, kDest + 1), R, sizeText(dest + 1, dest, "velClient_msg_setReplyTo")),
        REFUSE_IN(velClient_msg_getReplyTo, (h, nullptr, kDest), N, "Null velClient_destination_t pointer"),
        REFUSE_IN(velClient_msg_setReplyToSuffix, (h, s, nullptr), N, "Null suffix pointer"),
        REFUSE_BAD(velClient_msg_setReplyToSuffix, (h, nullptr, "x"), "session", nullptr),
        REFUSE_IN(velClient_msg_getDestinationTopicSuffix, (h, s, nullptr), N, "Null reference to suffix pointer"),
        REFUSE_BAD(velClient_msg_getDestinationTopicSuffix, (h, bad, out), "session", bad),
        REFUSE_IN(velClient_msg_setClassOfService, (h, 3), R, "Invalid setting of COS flags (3)"),
        REFUSE(velClient_msg_getClassOfService(h, nullptr), N, "Null cos_p pointer in velClient_msg_getReceivedClassOfService"),
        REFUSE_SETTING(velClient_msg_setDeliveryMode, 0x30, "Delivery Mode", "velClient_msg_setDeliveryMode"),
        REFUSE_IN(velClient_msg_setTimeToLive, (h, 315360000001LL), R, "Invalid time to live value"),
        REFUSE_IN(velClient_msg_setTimeToLive, (h, -1), R, "Invalid time to live value"),
        REFUSE_SETTING(velClient_msg_setDMQEligible, 2, "Dead Message Queue Eligible", "velClient_msg_setDMQEligible"),
        REFUSE_SETTING(velClient_msg_setDeliverToOne, 5, "Deliver-To-One", "velClient_msg_setDeliveToOne"),
        REFUSE_SETTING(velClient_msg_setDiscardIndication, 0xFF, "Discard Indication", "velClient_msg_setDiscardIndication"),
        REFUSE_IN(velClient_msg_createUserPropertyMap, (h, nullptr, 8), N, "Null map_p pointer"),
        REFUSE_BAD(velClient_msg_setUserPropertyMap, (h, bad), "map", bad),
        REFUSE_IN(velClient_msg_getUserPropertyMap, (h, nullptr), N, "Null map_p pointer"),
        REFUSE_IN(velClient_msg_createBinaryAttachmentMap, (h, nullptr, 0), N, "Null map_p pointer"),
        REFUSE_IN(velClient_msg_createBinaryAttachmentStream, (h, nullptr, 0), N, "Null stream_p pointer"),
        REFUSE_BAD(velClient_msg_setBinaryAttachmentContainer, (h, bad), "cont_p", bad),
        REFUSE(velClient_msg_setBinaryAttachmentContainerPtr(h, bad), N,
               format("Bad cont_p pointer (%p) in velClient_msg_setBinaryAttachmentContainer", bad)),
        REFUSE_IN(velClient_msg_getBinaryAttachmentMap, (h, nullptr), N, "Null map_p pointer"),
        REFUSE_IN(velClient_msg_getBinaryAttachmentStream, (h, nullptr), N, "Null stream_p pointer"),
        REFUSE_IN(velClient_msg_getBinaryAttachmentField, (h, nullptr, kField), N, "Null field_p pointer"),
        REFUSE(velClient_msg_getBinaryAttachmentField(h, out, kField - 1), R,
               sizeText(field - 1, field, "_velClient_msg_getField")),
        REFUSE(velClient_msg_extractDatablock(h, static_cast<velClient_bufInfo_index_t>(12), out, out), R,
               "Invalid bufInfo part in velClient_msg_extractDatablock"),
        REFUSE_IN(velClient_msg_extractDatablock, (h, xml, nullptr, out), N, "Null datablock pointer"),
        REFUSE_IN(velClient_msg_extractDatablock, (h, xml, out, nullptr), N, "Null bufInfo_p pointer"),
        REFUSE(velClient_msg_encodeToVWF(h, &info, nullptr), C,
               format("One and only one of %p and %p is a NULL pointer in velClient_msg_encodeToVWF",
                      static_cast<void *>(&info), nullptr)),
        REFUSE_IN(velClient_msg_decodeFromVwf, (nullptr, nullptr), N, "Null reference to msg_p pointer"),
        REFUSE_IN(velClient_msg_decodeFromVwf, (nullptr, out), N, "Null VWF bufinfo pointer"),
        REFUSE_IN(velClient_msg_decodeFromVwf, (&empty, out), R, "Zero length VWF buffer"),
        REFUSE_IN(velClient_msg_decodeFromVwf, (&nullBuf, out), N, "Null VWF pointer"),
        REFUSE_IN(velClient_msg_dump, (h, text, 0), C, "Zero buffer size with non-NULL buffer"),
        REFUSE_IN(velClient_msg_dump, (h, nullptr, 8), C, "Non-zero buffer size with NULL buffer"),
    };
    for (const char *prefix : {"#P2P/QUE/q1", "#P2P/QUE/", "#P2P/QUE/abc/"})
        rows.push_back({[h, prefix] { return velClient_msg_setQueueNamePtr(h, prefix); }, R,
                        format("Invalid string pointer (%s) in velClient_msg_setQueueNamePtr", prefix)});
    veltest::expectRefusals(rows);
    /* Refusals change nothing: the message is still empty. */
    EXPECT_EQ(nullptr, m.destination(VELCLIENT_NOT_FOUND).dest);
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getUserPropertyMap(h, out));
    velClient_session_destroy(&s);
}

TEST(Refusals, PoolDataBlocksSessionsAndLogs)
{
    velClient_opaqueDatablock_pt none = nullptr, block = nullptr;
    velClient_opaqueSession_pt noSession = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_datablock_alloc(&block, 10));
    const auto freeBlocks = VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, allocs = VELCLIENT_MSG_STATS_MSG_ALLOCS;
    const auto all = VELCLIENT_LOG_CATEGORY_ALL;
    veltest::expectRefusals({
        REFUSE_IN(velClient_msg_getStat, (freeBlocks, 5, out), R,
                  "Index of 5 out of range of max index value of 4 for statistic type 10"),
        REFUSE_IN(velClient_msg_getStat, (allocs, 1, out), R,
                  "Index of 1 out of range of max index value of 0 for statistic type 2"),
        REFUSE_IN(velClient_msg_getStat, (velClient_msg_stats_t(12), 0, out), R, "Invalid statistic type of 12"),
        REFUSE_IN(velClient_msg_getStat, (allocs, 0, nullptr), N, "Null statValue_p"),
        REFUSE_IN(velClient_datablock_alloc, (nullptr, 1), N, "Null reference to datab_p pointer"),
        REFUSE_IN(velClient_datablock_free, (nullptr), N, "Null reference to datab_p pointer"),
        REFUSE_BAD(velClient_datablock_free, (&none), "datablock", &none),
        REFUSE(velClient_datablock_dup(nullptr), N, format("Bad datablock pointer (%p) in velClient_datablock_incRef", nullptr)),
        REFUSE_BAD(velClient_datablock_getDataPtr, (nullptr, out, out), "datablock", nullptr),
        REFUSE_IN(velClient_datablock_getDataPtr, (block, nullptr, nullptr), N, "Null output pointer"),
        REFUSE_BAD(velClient_session_sendMsg, (nullptr, nullptr), "session", nullptr),
        REFUSE_BAD(velClient_session_destroy, (&noSession), "session", nullptr),
        REFUSE_IN(velClient_log_setFilterLevel, (all, static_cast<velClient_log_level_t>(8)), R, "Invalid log level of 8"),
        REFUSE_IN(velClient_log_setFilterLevel, (velClient_log_category_t(3), VELCLIENT_LOG_DEBUG), R, "Invalid log category of 3"),
        REFUSE(velClient_initialize(static_cast<velClient_log_level_t>(9), nullptr), R,
               "Invalid log level of 9 in velClient_log_setFilterLevel"),
        });
    velClient_datablock_free(&block);
}
