/* Bytes that move under the caller: every step that can grow, move or free a
 * message's or a container's bytes runs here between the moment a position
 * into them is taken and the moment it is used. Under AddressSanitizer a
 * stale position is a use-after-free; without it, a wrong value. */
#include <cstring>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

/* What a loopback session's callback saw of each received message. */
struct Received {
    long long sequence = -1;
    long long expiration = -1;
    std::string sender;
};

velClient_rxMsgCallback_returnCode_t record(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg, void *user)
{
    Received r;
    const char *sender = nullptr;
    velClient_int64_t seq = -1, expiration = -1;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSequenceNumber(msg, &seq));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getExpiration(msg, &expiration));
    if (velClient_msg_getSenderId(msg, &sender) == VELCLIENT_OK)
        r.sender = sender;
    r.sequence = seq;
    r.expiration = expiration;
    static_cast<std::vector<Received> *>(user)->push_back(r);
    return VELCLIENT_CALLBACK_OK;
}

} // namespace

/* The sequence number's place in the header map is reserved before the
 * expiration and the metadata are written; both may grow the map into a new
 * block or move the entry. Sender ids of every length around the point where
 * the header map's first block fills make each send cross it at some step;
 * each message is sent twice, so the second send also deletes and re-adds
 * entries in front of the reserved one. */
TEST(MovedBytes, SequenceNumberLandsInTheHeaderMapWhateverMovedIt)
{
    const char *props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", "SESSION_CLIENT_NAME", "mover", nullptr};
    std::vector<Received> got;
    velClient_opaqueSession_pt session = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, record, &got, &session));
    const veltest::LiveCounts before;
    long long expected = 0;
    for (std::size_t length = 150; length <= 300; ++length) {
        veltest::Msg m;
        const std::string sender(length, 's');
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setSenderId(m.h, sender.c_str()));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setExpiration(m.h, 1700000000000 + static_cast<long long>(length)));
        for (int send = 0; send < 2; ++send) {
            got.clear();
            ASSERT_EQ(VELCLIENT_OK, velClient_session_sendMsg(session, m.h)) << length;
            ASSERT_EQ(1u, got.size());
            EXPECT_EQ(++expected, got[0].sequence) << "sender id of " << length << ", send " << send;
            EXPECT_EQ(1700000000000 + static_cast<long long>(length), got[0].expiration) << length;
            EXPECT_EQ(sender, got[0].sender) << length;
        }
    }
    before.expectBalanced();
    velClient_session_destroy(&session);
}

/* A lookup that passes over other entries does not leave them in the
 * caller's field: a miss leaves it as it was, a hit holds only the entry
 * found. */
TEST(MovedBytes, LookupsWriteOnlyTheEntryFound)
{
    char mem[256];
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mem, sizeof mem));
    velClient_destination_t dest{VELCLIENT_TOPIC_DESTINATION, "a/b"};
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addDestination(map, &dest, sizeof dest, "d"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, -7, "i"));
    velClient_field_t field;
    std::memset(&field, 0xA5, sizeof field);
    const velClient_field_t untouched = field;
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getField(map, &field, sizeof field, "none"));
    EXPECT_EQ(0, std::memcmp(&untouched, &field, sizeof field));
    std::memset(&field, 0, sizeof field);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getField(map, &field, sizeof field, "i"));
    EXPECT_EQ(VELCLIENT_INT32, field.type);
    EXPECT_EQ(-7, field.value.int32);
    const auto *bytes = reinterpret_cast<const unsigned char *>(&field.value);
    for (std::size_t i = sizeof(velClient_int32_t); i < sizeof field.value; ++i)
        EXPECT_EQ(0, bytes[i]) << "byte " << i << " of the value holds a leftover";
    velClient_container_closeMapStream(&map);
}

/* A sub-map opened on an entry that is then deleted (the map's last) is
 * closed with it; the map's later adds and deletes stay inside its bytes. */
TEST(MovedBytes, DeletingTheEntryOfAnOpenSubMapClosesIt)
{
    const veltest::LiveCounts before;
    {
        veltest::Msg msg;
        const velClient_uint8_t zeros[16] = {};
        velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(msg.h, &map, 256));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addVwf(map, zeros, sizeof zeros, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(map, &sub, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "a"));
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_addBoolean(sub, 1, "x")); /* closed with its entry */
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addVwf(map, zeros, sizeof zeros, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(map, 16, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "a"));
        EXPECT_TRUE(veltest::names(map).empty());
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(map, 1, "b"));
        EXPECT_EQ((std::vector<std::string>{"b"}), veltest::names(map));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    }
    before.expectBalanced();
}

/* A container that lives in another message's data block is copied even by
 * the by-reference setter: that block moves when the container grows and
 * goes when its message is freed. */
TEST(MovedBytes, AnAttachmentSetByReferenceFromAnotherMessagesContainerKeepsItsBytes)
{
    veltest::Msg a;
    std::vector<std::uint8_t> wire;
    {
        veltest::Msg b;
        velClient_opaqueContainer_pt map = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(b.h, &map, 16));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 42, "x"));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainerPtr(a.h, map));
        for (int i = 0; i < 64; ++i) /* grows b's map into new blocks, freeing the old ones */
            ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt64(map, i, "y"));
    }
    wire = veltest::encode(a.h);
    velClient_bufInfo_t in{wire.data(), static_cast<velClient_uint32_t>(wire.size())};
    velClient_opaqueMsg_pt back = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_decodeFromVwf(&in, &back));
    veltest::Msg received(back);
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(received.h, &map));
    EXPECT_EQ((std::vector<std::string>{"x"}), veltest::names(map));
    velClient_int32_t x = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(map, &x, "x"));
    EXPECT_EQ(42, x);
    velClient_container_closeMapStream(&map);
}

/* A part that refers to the application's memory is never written into: a
 * delete in the container read from it copies the bytes first, so a
 * container the application still has open on that memory keeps them. */
TEST(MovedBytes, ADeleteInAnAttachmentThatRefersToApplicationMemoryCopiesFirst)
{
    const veltest::LiveCounts before;
    {
        char mem[200];
        velClient_opaqueContainer_pt own = nullptr, sub = nullptr, read = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&own, mem, sizeof mem));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(own, 513, "a"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubMap(own, &sub, "b"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(sub, -1, "a"));
        veltest::Msg m;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainerPtr(m.h, own));
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(m.h, &read));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(read, "a"));
        EXPECT_EQ((std::vector<std::string>{"b"}), veltest::names(read));
        EXPECT_EQ((std::vector<std::string>{"a", "b"}), veltest::names(own));
        velClient_int8_t a = 0;
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt8(sub, &a, "a"));
        EXPECT_EQ(-1, a);
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&sub));
        velClient_container_closeMapStream(&read);
        velClient_container_closeMapStream(&own);
    }
    before.expectBalanced();
}

/* A delete before any read puts the cursor before the first field; growth at
 * that point (a full map) moves the cursor with the bytes, into the entry a
 * sub-container then opens. Deleting that entry leaves the cursor where the
 * entry was, not in front of the map's own header. */
TEST(MovedBytes, ACursorInsideADeletedEntryStaysInsideTheMap)
{
    veltest::Msg msg;
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(msg.h, &map, 5));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "a"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &sub, "b"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint16(sub, 2, nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_deleteField(map, "b"));
    velClient_field_t f{};
    const char *name = nullptr;
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(map, &f, sizeof f, &name));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(map));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addUint8(map, 7, "c"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_getNextField(map, &f, sizeof f, &name));
    EXPECT_STREQ("c", name);
    EXPECT_EQ(7, f.value.uint8);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getNextField(map, &f, sizeof f, &name));
    velClient_container_closeMapStream(&map);
}
