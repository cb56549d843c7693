/* Replays the metadata fuzz target's seed corpus, cut short and with every
 * byte flipped, through the target's own walk. */
#include <fstream>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

#include "corpusFiles.h"
#include "metadataWalk.h"

namespace {

std::vector<std::vector<std::uint8_t>> corpus()
{
    return velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "metadata");
}

velClient_uint64_t liveMessages()
{
    velClient_uint64_t n = 0;
    velClient_msg_getStat(VELCLIENT_MSG_STATS_ALLOC_MSGS, 0, &n);
    return n;
}

} // namespace

TEST(MetadataFuzzCorpus, SeedsReadBackTheirHeaderAndProperties)
{
    auto files = corpus();
    ASSERT_GE(files.size(), 3u);
    for (const auto &bytes : files)
        EXPECT_TRUE(velfuzz::walkMetadata(bytes.data(), bytes.size()));
    /* The seed with a header map carries the sender id it was made with. */
    std::ifstream in(VELCLIENT_SOURCE_DIR "/fuzz/corpus/metadata/header_only", std::ios::binary);
    std::vector<std::uint8_t> seed{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    velClient_opaqueMsg_pt m = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_alloc(&m));
    ASSERT_EQ(VELCLIENT_OK, _velClient_msg_setBufinfo(vel::resolve<_velClient_msg>(m, _MSG_PTR_TYPE),
                                                      _VELCLIENT_BUFINFO_BINARY_META_PART, seed.data(),
                                                      static_cast<std::uint32_t>(seed.size()), 0));
    const char *sender = nullptr;
    velClient_int64_t seq = 0;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSenderId(m, &sender));
    EXPECT_STREQ("sender", sender);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_getSequenceNumber(m, &seq));
    EXPECT_EQ(42, seq);
    velClient_msg_free(&m);
}

TEST(MetadataFuzzCorpus, TruncatedAndFlippedSeedsAreHandled)
{
    velClient_uint64_t live = liveMessages();
    for (const auto &bytes : corpus()) {
        for (std::size_t cut = 1; cut < bytes.size(); ++cut)
            EXPECT_TRUE(velfuzz::walkMetadata(bytes.data(), cut)) << cut;
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            auto copy = bytes;
            copy[at] ^= 0xFF;
            EXPECT_TRUE(velfuzz::walkMetadata(copy.data(), copy.size())) << at;
        }
    }
    EXPECT_EQ(live, liveMessages());
}
