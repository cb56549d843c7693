/* Replays the API-program fuzz target's seed corpus, and every truncation and
 * a fixed set of byte changes of each seed, through the target's own
 * interpreter: once with the tiny data-block classes and no pooling that the
 * target runs with (every growth takes a new block), once with the default
 * classes. Each program must leave no message or container record behind. */
#include <string>
#include <vector>

#include "apiWalk.h"
#include "corpusFiles.h"
#include "support/velTestSupport.h"

namespace {

/* Starts the library with the given properties for the life of the object, and with the defaults again
 * afterwards, as the other tests of this binary expect. */
struct StartedWith {
    explicit StartedWith(const char *const *props)
    {
        EXPECT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, props));
    }
    ~StartedWith() { velClient_initialize(VELCLIENT_LOG_EMERGENCY, nullptr); }
};

/* Runs one program and checks that it answered consistently and gave back every record it took. */
void replay(const std::vector<std::uint8_t> &program, const std::string &what)
{
    SCOPED_TRACE(what);
    velClient_uint64_t msgs = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS);
    velClient_uint64_t containers = veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS);
    EXPECT_TRUE(velfuzz::runProgram(program.data(), program.size()));
    EXPECT_EQ(msgs, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_MSGS));
    EXPECT_EQ(containers, veltest::stat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS));
}

/* Each seed whole, cut after every byte, and with every byte in turn raised by one (the next operation,
 * slot, name or size) and set to 0xFF (the largest size; past the last operation). */
void replayCorpusAndMutations()
{
    const auto seeds = velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, "api");
    ASSERT_GE(seeds.size(), 6u);
    for (std::size_t s = 0; s < seeds.size(); ++s) {
        const auto &seed = seeds[s];
        const std::string name = "seed " + std::to_string(s);
        replay(seed, name);
        for (std::size_t cut = 0; cut < seed.size(); ++cut)
            replay(std::vector<std::uint8_t>(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(cut)),
                   name + " cut at " + std::to_string(cut));
        for (std::size_t at = 0; at < seed.size(); ++at) {
            for (std::uint8_t delta : {1, 0xFF}) {
                auto copy = seed;
                copy[at] = delta == 1 ? static_cast<std::uint8_t>(copy[at] + 1) : delta;
                replay(copy, name + " byte " + std::to_string(at) + " changed to " + std::to_string(copy[at]));
            }
        }
    }
}

} // namespace

TEST(ApiFuzzCorpus, ProgramsRunCleanWhenEveryGrowthTakesANewBlock)
{
    StartedWith tiny(velfuzz::tinyClasses);
    replayCorpusAndMutations();
}

TEST(ApiFuzzCorpus, ProgramsRunCleanWithTheDefaultClasses)
{
    StartedWith defaults(nullptr);
    replayCorpusAndMutations();
}
