/*
 * keptBytes.h - copies of bytes a caller lends to a container call that lie
 * inside the container's own tree: a name or value the application read from
 * the very container it changes. The change moves those bytes (a delete
 * closes the gap over them, growth shifts them or moves the tree to a new
 * block and frees the old one), so the call copies them out first and reads
 * the copy.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "velClientAlloc/systemMemory.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace vel {

/* n bytes a call reads from the caller. p is the caller's own pointer
 * variable, so that it can be pointed at a copy. */
struct Borrowed {
    const void *&p;
    std::size_t n;
};

/* Holds the copies for as long as the call runs. */
class KeptBytes {
public:
    KeptBytes() = default;
    KeptBytes(const KeptBytes &) = delete;
    KeptBytes &operator=(const KeptBytes &) = delete;
    ~KeptBytes()
    {
        if (copy_ != nullptr)
            sysFree(copy_);
    }

    /* Copies out the borrowed bytes that lie in c's tree (the message's data
     * block, or the outermost container's bytes in application memory) and
     * points them at the copy; false (nothing recorded) when there is no
     * memory for it. */
    bool keep(const _velClient_container *c, std::initializer_list<Borrowed> borrowed)
    {
        std::uintptr_t lo = 0, hi = 0;
        treeBytes(c, lo, hi);
        auto inside = [lo, hi](const Borrowed &b) {
            const auto at = reinterpret_cast<std::uintptr_t>(b.p);
            return b.n != 0 && at < hi && at + b.n > lo;
        };
        std::size_t total = 0;
        for (const Borrowed &b : borrowed)
            total += inside(b) ? b.n : 0;
        if (total == 0)
            return true;
        if ((copy_ = static_cast<std::uint8_t *>(sysMalloc(total))) == nullptr)
            return false;
        std::size_t at = 0;
        for (const Borrowed &b : borrowed) {
            if (!inside(b))
                continue;
            std::memcpy(copy_ + at, b.p, b.n);
            b.p = copy_ + at;
            at += b.n;
        }
        return true;
    }

private:
    static void treeBytes(const _velClient_container *c, std::uintptr_t &lo, std::uintptr_t &hi)
    {
        const _velClient_datab *db = c->msg_b != nullptr ? c->msg_b->bufDatab_p[c->bufInfoIndex] : nullptr;
        if (db != nullptr) {
            lo = reinterpret_cast<std::uintptr_t>(db->dbData_p);
            hi = lo + db->dbSize;
            return;
        }
        while (c->parent_p != nullptr)
            c = c->parent_p;
        lo = reinterpret_cast<std::uintptr_t>(c->startPtr);
        hi = reinterpret_cast<std::uintptr_t>(c->maxWrPtr);
    }

    std::uint8_t *copy_ = nullptr;
};

} // namespace vel
