/* The frame measured and written straight into one buffer against the chunk
 * list that sessions send: the same bytes for messages with text parts, plain
 * parts and the metadata item, in a buffer asked for at exactly the frame's
 * size; and no buffer, no frame. */
#include "support/velTestSupport.h"
#include "velClientMsg/velClientMsgPrivate.h"
#include "velClientVwf/vwf.h"

namespace {

using veltest::Bytes;

/* What the session path would send for msg (already prepared by an encode). */
Bytes chunkFrame(const _velClient_msg *msg)
{
    vel::vwf::Frame f;
    EXPECT_EQ(VELCLIENT_OK, f.build(msg->bufInfo_a, _VELCLIENT_BUFINFO_NUM_PARTS, msg->msgInfo.flags, 1, msg));
    Bytes out;
    for (std::uint32_t i = 0; i < f.numChunks; ++i)
        out.insert(out.end(), f.chunks[i].p, f.chunks[i].p + f.chunks[i].len);
    EXPECT_EQ(f.total, out.size());
    return out;
}

/* A place that hands out the buffer of a test, sized as asked (null when
 * refuse is set), and remembers the size. */
struct Place {
    Bytes buffer;
    std::uint32_t asked = 0;
    bool refuse = false;

    static std::uint8_t *give(void *ctx, std::uint32_t total)
    {
        auto *place = static_cast<Place *>(ctx);
        place->asked = total;
        if (place->refuse)
            return nullptr;
        place->buffer.assign(total + 8, 0xEE); /* 8 bytes past the frame, to see that nothing lands there */
        return place->buffer.data();
    }
};

struct Case {
    const char *what;
    const char *topic;
    std::size_t attachment;
    bool userProperties;
    bool header;
};

void build(veltest::Msg &m, const Case &c)
{
    if (c.topic != nullptr) {
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, c.topic));
    }
    const Bytes body(c.attachment, 0x5A);
    if (c.attachment != 0) {
        ASSERT_EQ(VELCLIENT_OK,
                  velClient_msg_setBinaryAttachment(m.h, body.data(), static_cast<velClient_uint32_t>(body.size())));
    }
    if (c.userProperties) {
        velClient_opaqueContainer_pt props = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_createUserPropertyMap(m.h, &props, 64));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(props, 7, "p1"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(props, "value", "p3"));
        ASSERT_EQ(VELCLIENT_OK, velClient_container_closeMapStream(&props));
    }
    if (c.header) {
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_setCorrelationId(m.h, "corr-1"));
    }
}

} // namespace

TEST(FrameWriter, WritesTheChunkListsBytesIntoABufferOfTheFramesSize)
{
    const Case cases[] = {
        {"text and short attachment", "a/b", 3, false, false},
        {"attachment past the inline copy", "orders/eu/widgets/01", 100, false, false},
        {"header map and user properties", "t", 40, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        veltest::Msg m;
        build(m, c);
        const Bytes wire = veltest::encode(m.h);
        const _velClient_msg *msg = vel::msgOf(m.h);
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(wire, chunkFrame(msg));

        Place place;
        std::uint32_t total = 0;
        ASSERT_EQ(VELCLIENT_OK, _velClient_vwfEncode(msg->bufInfo_a, msg->msgInfo.flags, 1, msg, Place::give, &place,
                                                     &total));
        EXPECT_EQ(wire.size(), total);
        EXPECT_EQ(wire.size(), place.asked);
        EXPECT_EQ(wire, Bytes(place.buffer.begin(), place.buffer.begin() + static_cast<std::ptrdiff_t>(total)));
        EXPECT_EQ(Bytes(8, 0xEE), Bytes(place.buffer.begin() + static_cast<std::ptrdiff_t>(total), place.buffer.end()))
            << "nothing is written past the frame";

        Place refusing;
        refusing.refuse = true;
        total = 0;
        EXPECT_EQ(VELCLIENT_FAIL, _velClient_vwfEncode(msg->bufInfo_a, msg->msgInfo.flags, 1, msg, Place::give,
                                                       &refusing, &total));
        EXPECT_EQ(wire.size(), refusing.asked);
        EXPECT_EQ(0u, total);
    }
}
