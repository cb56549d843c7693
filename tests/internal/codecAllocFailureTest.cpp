/* Out of memory while a received message is decoded: with the pools empty, each system allocation the decode of
 * a fuzz seed makes fails in turn; the decode then fails with the out-of-memory sub-code and leaves nothing
 * behind, or (when the failed allocation was one it can do without) gives the whole message. */
#include <filesystem>

#include "codecMessages.h"
#include "mqttWalk.h"
#include "velClientAlloc/systemMemory.h"

using namespace codectest;

namespace {

/* A seed as its fuzz target reads it: an AMQP payload, or an MQTT publish as
 * name length (1) | topic name | frame length (2, BE) | frame | payload. */
Wire wireOf(const std::string &codec, const Bytes &seed)
{
    if (codec == "amqp")
        return {"", std::vector<char>(seed.begin(), seed.end()), nullptr};
    const std::size_t n = seed.at(0), frame = std::size_t{seed.at(1 + n)} << 8 | seed.at(2 + n);
    const std::uint8_t *at = seed.data() + 3 + n;
    return {std::string(seed.begin() + 1, seed.begin() + 1 + static_cast<std::ptrdiff_t>(n)),
            std::vector<char>(at + frame, seed.data() + seed.size()), velfuzz::frameProperties(at, frame)};
}

} // namespace

class CodecOutOfMemory : public testing::TestWithParam<const char *> {};

TEST_P(CodecOutOfMemory, EveryFailedAllocationFailsTheDecodeCleanly)
{
    const std::string codec = GetParam();
    const Decode decode = codec == "amqp" ? amqpDecode : mqttDecode;
    velClient_msg_setMaxPoolMem(0);
    const veltest::LiveCounts before;
    int refusals = 0;
    for (const auto &entry : std::filesystem::directory_iterator(VELCLIENT_SOURCE_DIR "/fuzz/corpus/" + codec)) {
        SCOPED_TRACE(entry.path().filename().string());
        const Wire wire = wireOf(codec, seedBytes(codec, entry.path().filename()));
        _velClient_allocFail_arm(0);
        const std::string whole = dumpWithoutReceiveLines(Msg(decoded(decode, wire)).h);
        const std::uint64_t points = _velClient_allocFail_calls();
        for (std::uint64_t nth = 1; nth <= points; ++nth) {
            SCOPED_TRACE(nth);
            _velClient_allocFail_arm(nth);
            _velClient_msg *m = nullptr;
            const velClient_returnCode_t rc = decode(wire, &m);
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

INSTANTIATE_TEST_SUITE_P(Codecs, CodecOutOfMemory, testing::Values("amqp", "mqtt"),
                         [](const testing::TestParamInfo<const char *> &info) { return std::string(info.param); });
