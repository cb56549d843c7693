/* Outgoing messages by delivery tag: look-ups at the front and in the middle, entries taken out of order or
 * erased, and what is left visible afterwards. */
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "velClientBroker/byTag.h"

namespace {

using Tags = std::vector<std::uint64_t>;

/* What forEach visits, in order, and what find and empty say of every tag up to 21. */
void expectLeft(vel::broker::ByTag<std::string> &byTag, const Tags &left)
{
    Tags seen;
    byTag.forEach([&](std::uint64_t tag, const std::string &value) {
        EXPECT_EQ(value, std::to_string(tag));
        seen.push_back(tag);
    });
    EXPECT_EQ(left, seen);
    EXPECT_EQ(left.empty(), byTag.empty());
    for (std::uint64_t tag = 0; tag <= 21; ++tag) {
        const std::string *found = byTag.find(tag);
        EXPECT_EQ(found != nullptr, std::ranges::count(left, tag) == 1) << "tag " << tag;
        EXPECT_EQ(found != nullptr ? *found : std::to_string(tag), std::to_string(tag));
    }
}

} // namespace

TEST(AmqpByTag, EntriesTakenOrErasedInAnyOrderLeaveTheOthersInOrder)
{
    const std::pair<const char *, Tags> cases[] = {
        {"in order", {2, 3, 5}},          {"middle first", {5, 9, 3}}, {"last first", {11, 2}},
        {"every one", {9, 3, 11, 2, 5, 7}}, {"a tag never added", {4, 1, 12}},
    };
    const Tags added{2, 3, 5, 7, 9, 11}; /* gaps: other tags went to the other kind of message */
    for (const auto &[name, taken] : cases) {
        vel::broker::ByTag<std::string> byTag;
        for (std::uint64_t tag : added)
            byTag.add(tag, std::to_string(tag));
        Tags left = added;
        for (std::uint64_t tag : taken) {
            const bool wasThere = std::erase(left, tag) == 1;
            EXPECT_EQ(wasThere ? std::to_string(tag) : "none", byTag.take(tag).value_or("none")) << "tag " << tag;
            EXPECT_FALSE(byTag.take(tag).has_value()) << "tag " << tag << " taken twice";
        }
        expectLeft(byTag, left);
    }
    /* eraseIf keeps the rest in order; tags added afterwards go after them. */
    vel::broker::ByTag<std::string> byTag;
    for (std::uint64_t tag = 1; tag <= 8; ++tag)
        byTag.add(tag, std::to_string(tag));
    byTag.eraseIf([](const std::string &value) { return value == "1" || value == "4" || value == "8"; });
    expectLeft(byTag, {2, 3, 5, 6, 7});
    byTag.add(20, "20");
    expectLeft(byTag, {2, 3, 5, 6, 7, 20});
    byTag.eraseIf([](const std::string &) { return true; });
    expectLeft(byTag, {});
    byTag.add(21, "21");
    byTag.clear();
    expectLeft(byTag, {});
}
