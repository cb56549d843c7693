/* Out of memory while a received message is decoded: with the pools empty, each system allocation the decode of
 * a fuzz seed makes fails in turn; the decode then fails with the out-of-memory sub-code and leaves nothing
 * behind, or (when the failed allocation was one it can do without) gives the whole message. */
#include <filesystem>

#include "codecMessages.h"
#include "velClientAlloc/systemMemory.h"

using namespace codectest;

using CodecOutOfMemory = testing::TestWithParam<const Codec *>;

TEST_P(CodecOutOfMemory, EveryFailedAllocationFailsTheDecodeCleanly)
{
    const Codec &codec = *GetParam();
    velClient_msg_setMaxPoolMem(0);
    const veltest::LiveCounts before;
    int refusals = 0;
    const std::string folder = VELCLIENT_SOURCE_DIR "/fuzz/corpus/" + std::string(codec.name);
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        SCOPED_TRACE(entry.path().filename().string());
        const Wire wire = codec.wire(seedBytes(codec.name, entry.path().filename()));
        _velClient_allocFail_arm(0);
        const std::string whole = dumpWithoutReceiveLines(Msg(decoded(codec.decode, wire)).h);
        const std::uint64_t points = _velClient_allocFail_calls();
        for (std::uint64_t nth = 1; nth <= points; ++nth) {
            SCOPED_TRACE(nth);
            _velClient_allocFail_arm(nth);
            _velClient_msg *m = nullptr;
            const velClient_returnCode_t rc = codec.decode(wire, &m);
            _velClient_allocFail_arm(0);
            Msg held(m != nullptr ? m->opaqueMsg_p : nullptr);
            if (rc == VELCLIENT_OK) {
                ASSERT_NE(nullptr, held.h);
                EXPECT_EQ(whole, dumpWithoutReceiveLines(held.h));
                continue;
            }
            ++refusals;
            EXPECT_EQ(nullptr, m);
            EXPECT_EQ(VELCLIENT_SUBCODE_OUT_OF_MEMORY, veltest::lastSubCode()) << veltest::lastErrorText();
        }
    }
    EXPECT_GT(refusals, 0);
    before.expectBalanced();
    velClient_msg_setMaxPoolMem(veltest::kDefaultPoolLimit);
}

INSTANTIATE_TEST_SUITE_P(Codecs, CodecOutOfMemory, testing::Values(&kAmqp, &kMqtt),
                         [](const testing::TestParamInfo<const Codec *> &info) { return info.param->name; });
