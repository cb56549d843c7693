/* Replays every fuzz target's seed corpus through the target's own walk, so that every build (and the
 * sanitizers of the asan preset) runs it without a fuzzer: each seed whole, and for every byte the seed cut
 * before it and the byte raised by one, flipped (xor 0xA5, xor 0xFF) and set to 0xFF. All of it runs once
 * with the fuzz targets' tiny data-block classes and no pooling (every growth takes a new block) and once
 * with the default classes. Every input must be handled (an API program gets consistent answers, an
 * accepted frame or metadata part encodes into a frame that decodes) and give back every record it took.
 * An internal test because the metadata target writes a message's metadata part directly. */
#include <tuple>
#include <vector>

#include "amqpWalk.h"
#include "apiWalk.h"
#include "corpusFiles.h"
#include "metadataWalk.h"
#include "mqttWalk.h"
#include "support/velTestSupport.h"

namespace {

using veltest::Bytes;

/* Each target's folder under fuzz/corpus, how many seeds it has at least, and its walk. */
const std::tuple<const char *, std::size_t, bool (*)(const std::uint8_t *, std::size_t)> kTargets[] = {
    {"api", 6, velfuzz::runProgram},
    {"container", 3, [](const std::uint8_t *data, std::size_t size) { return velfuzz::walkContainer(data, size), true; }},
    {"vwf", 3, velfuzz::walkFrame},
    {"metadata", 3, velfuzz::walkMetadata},
    {"amqp", 4, velfuzz::walkAmqp},
    {"mqtt", 6, velfuzz::walkMqtt},
};

/* The seed, then for each byte at: the seed cut before it and its four changes of that byte. */
std::vector<Bytes> inputsFrom(const Bytes &seed)
{
    std::vector<Bytes> inputs{seed};
    for (std::size_t at = 0; at < seed.size(); ++at) {
        inputs.emplace_back(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(at));
        const std::uint8_t b = seed[at];
        for (int changed : {b + 1, b ^ 0xA5, b ^ 0xFF, 0xFF}) {
            inputs.push_back(seed);
            inputs.back()[at] = static_cast<std::uint8_t>(changed);
        }
    }
    return inputs;
}

} // namespace

TEST(FuzzCorpus, EveryTargetHandlesItsSeedsAndEveryChangeOfThem)
{
    for (const char *const *classes : {velfuzz::tinyClasses, static_cast<const char *const *>(nullptr)}) {
        EXPECT_EQ(VELCLIENT_OK, velClient_initialize(VELCLIENT_LOG_EMERGENCY, classes)); /* the defaults last */
        for (const auto &[name, minSeeds, walk] : kTargets) {
            const auto seeds = velfuzz::corpusFiles(VELCLIENT_SOURCE_DIR, name);
            EXPECT_GE(seeds.size(), minSeeds) << name;
            for (std::size_t s = 0; s < seeds.size(); ++s) {
                const std::vector<Bytes> inputs = inputsFrom(seeds[s]);
                for (std::size_t i = 0; i < inputs.size(); ++i) {
                    SCOPED_TRACE(testing::Message() << name << " seed " << s << " input " << i
                                                    << (classes != nullptr ? " (tiny classes)" : ""));
                    const veltest::LiveCounts before;
                    EXPECT_TRUE(walk(inputs[i].data(), inputs[i].size()));
                    before.expectBalanced();
                }
            }
        }
    }
}
