/* Replays the wire fuzz target's seed corpus, and mutations of it, through
 * the target's own walk, so every build exercises it without a fuzzer. */
#include <vector>

#include "corpusFiles.h"
#include "support/velTestSupport.h"
#include "vwfWalk.h"

namespace {

std::vector<std::vector<std::uint8_t>> corpus()
{
    return velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "vwf");
}

} // namespace

TEST(WireFuzzCorpus, SeedsDecodeReadAndEncodeBack)
{
    auto files = corpus();
    ASSERT_GE(files.size(), 3u);
    for (const auto &bytes : files) {
        velClient_bufInfo_t in{const_cast<std::uint8_t *>(bytes.data()), static_cast<velClient_uint32_t>(bytes.size())};
        velClient_opaqueMsg_pt m = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_msg_decodeFromVwf(&in, &m)); /* seeds are valid frames */
        velClient_msg_free(&m);
        EXPECT_TRUE(velfuzz::walkFrame(bytes.data(), bytes.size()));
    }
}

TEST(WireFuzzCorpus, TruncatedAndFlippedSeedsAreHandled)
{
    velClient_uint64_t live = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    for (const auto &bytes : corpus()) {
        for (std::size_t cut = 1; cut < bytes.size(); ++cut)
            EXPECT_TRUE(velfuzz::walkFrame(bytes.data(), cut));
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            auto copy = bytes;
            copy[at] ^= 0xFF;
            EXPECT_TRUE(velfuzz::walkFrame(copy.data(), copy.size())) << at;
        }
    }
    EXPECT_EQ(live, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
}
