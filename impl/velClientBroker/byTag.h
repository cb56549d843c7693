/*
 * byTag.h - outgoing messages kept by delivery tag. Tags are handed out
 * in increasing order, so the entries sit in a deque in tag order: adding is
 * a push at the back, the broker's outcomes (which mostly arrive in order)
 * find their entry at the front, and any other look-up is a binary search.
 * An entry taken out of the middle stays as an empty slot until the entries
 * before it are gone.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace vel::broker {

template <class T>
class ByTag {
  public:
    /* tag is above every tag added before. */
    void add(std::uint64_t tag, T &&value)
    {
        slots_.push_back({tag, std::move(value)});
        ++count_;
    }

    T *find(std::uint64_t tag)
    {
        Slot *slot = slotOf(tag);
        return slot != nullptr && slot->value ? &*slot->value : nullptr;
    }

    /* Takes the entry out; the caller may still read the returned value. */
    std::optional<T> take(std::uint64_t tag)
    {
        Slot *slot = slotOf(tag);
        if (slot == nullptr || !slot->value)
            return std::nullopt;
        std::optional<T> out = std::move(slot->value);
        slot->value.reset();
        --count_;
        dropEmptyFront();
        return out;
    }

    bool empty() const { return count_ == 0; }

    /* Calls f(tag, value) for every entry, in tag order. */
    template <class F>
    void forEach(F f)
    {
        for (Slot &slot : slots_)
            if (slot.value)
                f(slot.tag, *slot.value);
    }

    /* Takes out every entry for which drop(value) holds. */
    template <class P>
    void eraseIf(P drop)
    {
        for (Slot &slot : slots_)
            if (slot.value && drop(*slot.value)) {
                slot.value.reset();
                --count_;
            }
        dropEmptyFront();
    }

    void clear()
    {
        slots_.clear();
        count_ = 0;
    }

  private:
    struct Slot {
        std::uint64_t tag;
        std::optional<T> value;
    };

    void dropEmptyFront()
    {
        while (!slots_.empty() && !slots_.front().value)
            slots_.pop_front();
    }

    Slot *slotOf(std::uint64_t tag)
    {
        if (slots_.empty())
            return nullptr;
        if (slots_.front().tag == tag)
            return &slots_.front();
        auto it = std::lower_bound(slots_.begin(), slots_.end(), tag,
                                   [](const Slot &slot, std::uint64_t wanted) { return slot.tag < wanted; });
        return it != slots_.end() && it->tag == tag ? &*it : nullptr;
    }

    std::deque<Slot> slots_;
    std::size_t count_ = 0;
};

} // namespace vel::broker
