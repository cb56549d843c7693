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
        EXPECT_EQ(found != nullptr ? *found : "none", std::ranges::count(left, tag) ? std::to_string(tag) : "none");
    }
}

} // namespace

/* Tags with gaps (other tags went to the other kind of message), taken from the middle, the back, the front,
 * one never added, then the rest: each is taken once, and what is left keeps its order. */
TEST(AmqpByTag, EntriesTakenOrErasedInAnyOrderLeaveTheOthersInOrder)
{
    vel::broker::ByTag<std::string> byTag;
    Tags left{2, 3, 5, 7, 9, 11};
    for (std::uint64_t tag : left)
        byTag.add(tag, std::to_string(tag));
    for (std::uint64_t tag : {5, 11, 2, 4, 1, 12, 9, 3, 7}) {
        const bool wasThere = std::erase(left, tag) == 1;
        EXPECT_EQ(wasThere ? std::to_string(tag) : "none", byTag.take(tag).value_or("none")) << "tag " << tag;
        EXPECT_FALSE(byTag.take(tag).has_value()) << "tag " << tag << " taken twice";
        expectLeft(byTag, left);
    }
    /* eraseIf keeps the rest in order; tags added afterwards go after them. */
    for (std::uint64_t tag = 13; tag <= 19; ++tag)
        byTag.add(tag, std::to_string(tag));
    byTag.eraseIf([](const std::string &value) { return value == "13" || value == "16" || value == "19"; });
    expectLeft(byTag, {14, 15, 17, 18});
    byTag.add(20, "20");
    expectLeft(byTag, {14, 15, 17, 18, 20});
    byTag.eraseIf([](const std::string &) { return true; });
    expectLeft(byTag, {});
    byTag.add(21, "21");
    byTag.clear();
    expectLeft(byTag, {});
}
