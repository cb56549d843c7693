/* Replays the structured-data fuzz target's seed corpus, and every
 * truncation and byte flip of it, through the target's own walk, so every
 * build exercises it (under the sanitizers in the asan preset). */
#include <vector>

#include "corpusFiles.h"
#include "containerWalk.h"
#include "support/velTestSupport.h"

TEST(ContainerFuzzCorpus, SeedsAndTheirMutationsWalkWithoutLeaks)
{
    const auto seeds = velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "container");
    ASSERT_GE(seeds.size(), 3u);
    velClient_uint64_t msgs = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    velClient_uint64_t containers = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    for (const auto &bytes : seeds) {
        velfuzz::walkContainer(bytes.data(), bytes.size());
        for (std::size_t cut = 0; cut < bytes.size(); ++cut)
            velfuzz::walkContainer(bytes.data(), cut);
        for (std::size_t at = 5; at < bytes.size(); ++at) {
            auto copy = bytes;
            copy[at] ^= 0xA5;
            velfuzz::walkContainer(copy.data(), copy.size());
        }
    }
    EXPECT_EQ(msgs, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
    EXPECT_EQ(containers, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS));
}
