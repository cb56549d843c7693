/* The binary attachment as structured data: set from a container by copy and
 * by reference, from a container inside the attachment being replaced, read
 * back as a field, and the refusals of each call. */
#include <cstring>
#include <string>

#include "support/velTestSupport.h"

using veltest::Msg;

namespace {

/* The attachment's bytes as a string, for comparisons. */
std::string attachmentBytes(velClient_opaqueMsg_pt m)
{
    void *p = nullptr;
    velClient_uint32_t n = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(m, &p, &n));
    return std::string(static_cast<const char *>(p), n);
}

} // namespace

TEST(AttachmentContainer, ByCopyAndByReference)
{
    char mem[64];
    velClient_opaqueContainer_pt map = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createMap(&map, mem, sizeof mem));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(map, 3, "x"));
    /* Finalised on the way in: map header with its length, key "x", int8 3. */
    const std::string encoded("\x2B\x00\x00\x00\x0C\x1C\x04x\x00\x08\x03\x03", 12);

    Msg copied, referred;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainer(copied.h, map));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainerPtr(referred.h, map));
    EXPECT_EQ(encoded, attachmentBytes(copied.h));
    void *p = nullptr;
    velClient_uint32_t n = 0;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentPtr(referred.h, &p, &n));
    EXPECT_EQ(static_cast<void *>(mem), p); /* the application's memory, not a copy */

    /* A later change to the container shows through the reference only. */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt8(map, 4, "y"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&map));
    velClient_int8_t y = 0;
    velClient_opaqueContainer_pt got = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(copied.h, &got));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_container_getInt8(got, &y, "y"));
    velClient_container_closeMapStream(&got);
    /* A map is not a stream. */
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentStream(copied.h, &got));
    /* Fetched again while open: the same container, one more reference. */
    velClient_opaqueContainer_pt open = nullptr, again = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(copied.h, &open, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentMap(copied.h, &again));
    EXPECT_EQ(open, again);
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&again));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_addInt8(open, 5, "z")); /* still open */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&open));
}

TEST(AttachmentContainer, FromAContainerInsideTheAttachmentBeingReplaced)
{
    Msg m;
    velClient_opaqueContainer_pt map = nullptr, sub = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentMap(m.h, &map, 64));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(map, 1, "outer"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_openSubStream(map, &sub, "inner"));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(sub, 7, nullptr));
    /* The sub-stream's bytes die with the attachment it replaces: they are kept first. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachmentContainer(m.h, sub));
    velClient_opaqueContainer_pt stream = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentStream(m.h, &stream));
    velClient_int32_t v = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(stream, &v, nullptr));
    EXPECT_EQ(7, v);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getInt32(stream, &v, nullptr));
    velClient_container_closeMapStream(&stream);
    /* The old attachment's containers were closed with it. */
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(sub));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_rewind(map));
}

TEST(AttachmentContainer, ReadAsAField)
{
    Msg m;
    velClient_field_t f{};
    velClient_opaqueContainer_pt stream = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_createBinaryAttachmentStream(m.h, &stream, 16));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addBoolean(stream, 1, nullptr));
    /* While open: the same container, one more reference. */
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentField(m.h, &f, sizeof f));
    EXPECT_EQ(VELCLIENT_STREAM, f.type);
    EXPECT_EQ(stream, f.value.stream);
    EXPECT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&f.value.stream));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_rewind(stream)); /* still open: it had two holders */
    ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&stream));

    /* Received: opened from the bytes and kept as the message's attachment container. */
    Msg b(nullptr);
    ASSERT_EQ(VELCLIENT_OK, veltest::decode(veltest::encode(m.h), &b.h));
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentField(b.h, &f, sizeof f));
    EXPECT_EQ(VELCLIENT_STREAM, f.type);
    velClient_bool_t flag = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(f.value.stream, &flag, nullptr));
    EXPECT_EQ(1, flag);
    size_t size = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getBinaryAttachmentContainerSize(b.h, &size));
    EXPECT_EQ(5u + 3u, size);

    /* Plain bytes are no structured data. */
    Msg plain;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setBinaryAttachment(plain.h, "abc", 3));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentField(plain.h, &f, sizeof f));
    EXPECT_EQ(VELCLIENT_NOT_FOUND, velClient_msg_getBinaryAttachmentContainerSize(plain.h, &size));
}
