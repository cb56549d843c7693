/* The frame written straight into one buffer against the chunk list that
 * sessions send: the same bytes for messages with text parts, plain parts and
 * the metadata item; and a buffer too short for the frame gets every piece
 * that fits, a header counting those, and reports by how much the first
 * piece that does not fit overflows. */
#include <cstring>

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

TEST(FrameWriter, WritesTheChunkListsBytesAndReportsTheOverflowOfAShortBuffer)
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

        std::uint32_t measured = 0;
        _velClient_vwfFramePlan plan;
        ASSERT_EQ(VELCLIENT_OK, _velClient_vwfFrameSize(msg->bufInfo_a, _VELCLIENT_BUFINFO_NUM_PARTS,
                                                        msg->msgInfo.flags, 1, msg, &measured, &plan));
        EXPECT_EQ(wire.size(), measured);
        Bytes out(wire.size() + 8, 0xEE);
        EXPECT_EQ(0u, _velClient_vwfWriteFrame(msg->bufInfo_a, plan, msg->msgInfo.flags, 1, msg, out.data(),
                                               static_cast<std::uint32_t>(wire.size())));
        EXPECT_EQ(wire, Bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(wire.size())));
        EXPECT_EQ(0xEE, out[wire.size()]) << "nothing is written past the frame";

        /* One byte short: the last piece (the last part's bytes) does not
         * fit by one byte; everything before it is written. */
        std::fill(out.begin(), out.end(), 0xEE);
        const auto shortBy1 = static_cast<std::uint32_t>(wire.size() - 1);
        EXPECT_EQ(1u,
                  _velClient_vwfWriteFrame(msg->bufInfo_a, plan, msg->msgInfo.flags, 1, msg, out.data(), shortBy1));
        EXPECT_EQ(0xEE, out[shortBy1]);
        const std::uint32_t lastPiece = [&] {
            const int order[] = {VELCLIENT_BUFINFO_USER_PROPERTY_PART, _VELCLIENT_BUFINFO_HDR_MAP_PART,
                                 _VELCLIENT_BUFINFO_BINARY_META_PART};
            for (int part : order)
                if (msg->bufInfo_a[part].buf_p != nullptr && msg->bufInfo_a[part].bufSize != 0)
                    return msg->bufInfo_a[part].bufSize;
            return msg->bufInfo_a[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART].bufSize != 0
                       ? msg->bufInfo_a[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART].bufSize
                       : 1u; /* a text part's NUL */
        }();
        /* The header's frame length (bytes 6 to 9) counts what was written. */
        const std::size_t written = wire.size() - lastPiece;
        Bytes expected(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(written));
        for (int i = 0; i < 4; ++i)
            expected[6 + i] = static_cast<std::uint8_t>(written >> (8 * (3 - i)));
        EXPECT_EQ(expected, Bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(written)));
    }
}
