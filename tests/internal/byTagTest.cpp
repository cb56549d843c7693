/* Outgoing messages by delivery tag: look-ups at the front and in the middle,
 * entries taken out of order, and what is left visible afterwards. */
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "velClientBroker/byTag.h"

namespace {

using Tags = std::vector<std::uint64_t>;

/* The value kept under a tag ("m<tag>"), built by appending: GCC 12 at -O3
 * misreads "literal" + std::string&& as an overlapping copy. */
std::string valueOf(std::uint64_t tag)
{
    std::string value = "m";
    return value.append(std::to_string(tag));
}

Tags tagsOf(vel::broker::ByTag<std::string> &byTag)
{
    Tags out;
    byTag.forEach([&](std::uint64_t tag, const std::string &value) {
        EXPECT_EQ(value, valueOf(tag));
        out.push_back(tag);
    });
    return out;
}

} // namespace

TEST(AmqpByTag, EntriesTakenInAnyOrderLeaveTheOthersFindable)
{
    const struct {
        const char *name;
        Tags taken; /* in this order */
    } cases[] = {
        {"in order", {2, 3, 5}},
        {"middle first", {5, 9, 3}},
        {"last first", {11, 2}},
        {"every one", {9, 3, 11, 2, 5, 7}},
        {"a tag never added", {4, 1, 12}},
    };
    const Tags added{2, 3, 5, 7, 9, 11}; /* gaps: other tags went to the other kind of message */
    for (const auto &c : cases) {
        vel::broker::ByTag<std::string> byTag;
        for (std::uint64_t tag : added)
            byTag.add(tag, valueOf(tag));
        Tags left = added;
        for (std::uint64_t tag : c.taken) {
            std::optional<std::string> got = byTag.take(tag);
            bool wasThere = std::erase(left, tag) == 1;
            ASSERT_EQ(got.has_value(), wasThere) << c.name << ": tag " << tag;
            EXPECT_EQ(got.value_or(valueOf(tag)), valueOf(tag)) << c.name;
            EXPECT_FALSE(byTag.take(tag).has_value()) << c.name << ": tag " << tag << " taken twice";
        }
        EXPECT_EQ(tagsOf(byTag), left) << c.name;
        EXPECT_EQ(byTag.empty(), left.empty()) << c.name;
        for (std::uint64_t tag = 0; tag <= 12; ++tag) {
            const std::string *found = byTag.find(tag);
            EXPECT_EQ(found != nullptr, std::ranges::count(left, tag) == 1) << c.name << ": tag " << tag;
            EXPECT_EQ(found != nullptr ? *found : valueOf(tag), valueOf(tag)) << c.name;
        }
    }
}

TEST(AmqpByTag, EraseIfKeepsTheRestInOrderAndNewTagsGoAfterThem)
{
    vel::broker::ByTag<std::string> byTag;
    for (std::uint64_t tag = 1; tag <= 8; ++tag)
        byTag.add(tag, valueOf(tag));
    byTag.eraseIf([](const std::string &value) { return value == "m1" || value == "m4" || value == "m8"; });
    EXPECT_EQ(tagsOf(byTag), (Tags{2, 3, 5, 6, 7}));
    byTag.add(20, "m20");
    ASSERT_NE(byTag.find(20), nullptr);
    EXPECT_EQ(byTag.find(8), nullptr);
    EXPECT_EQ(tagsOf(byTag), (Tags{2, 3, 5, 6, 7, 20}));
    byTag.eraseIf([](const std::string &) { return true; });
    EXPECT_TRUE(byTag.empty());
    EXPECT_EQ(byTag.find(20), nullptr);
    byTag.add(21, "m21");
    byTag.clear();
    EXPECT_TRUE(byTag.empty());
    EXPECT_TRUE(tagsOf(byTag).empty());
}
