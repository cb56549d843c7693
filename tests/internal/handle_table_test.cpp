/* The handle table and the lock-free stack, below the public API. */
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "velClientHandle/velClientHandle.h"
#include "velClientLifo/velClientLifo.h"

namespace {

int objectA, objectB;

std::uint64_t value(void *handle)
{
    return reinterpret_cast<std::uint64_t>(handle);
}

} // namespace

TEST(HandleTable, IssuesNonZeroHandlesThatTellReusesApart)
{
    void *h = _velClient_safePtr_alloc(&objectA, _MSG_PTR_TYPE);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(&objectA, vel::resolveHandle(h, _MSG_PTR_TYPE));
    EXPECT_EQ(nullptr, vel::resolveHandle(h, _CONTAINER_PTR_TYPE));
    std::uint64_t entry = value(h) & (VEL_SAFEPTR_PAGE_MASK | VEL_SAFEPTR_ENTRY_MASK);
    _velClient_safePtr_free(h);
    EXPECT_EQ(nullptr, vel::resolveHandle(h, _MSG_PTR_TYPE));
    /* The freed entry comes back first; every reuse carries a new generation. */
    void *previous = h;
    for (int i = 0; i < 5000; ++i) {
        void *next = _velClient_safePtr_alloc(&objectB, _MSG_PTR_TYPE);
        ASSERT_NE(nullptr, next);
        EXPECT_NE(0u, value(next));
        EXPECT_NE(previous, next);
        EXPECT_EQ(entry, value(next) & (VEL_SAFEPTR_PAGE_MASK | VEL_SAFEPTR_ENTRY_MASK));
        EXPECT_EQ(nullptr, vel::resolveHandle(previous, _MSG_PTR_TYPE));
        EXPECT_EQ(&objectB, vel::resolveHandle(next, _MSG_PTR_TYPE));
        _velClient_safePtr_free(next);
        previous = next;
    }
}

TEST(HandleTable, ForgedHandlesNeverResolve)
{
    EXPECT_EQ(nullptr, vel::resolveHandle(nullptr, _MSG_PTR_TYPE));
    /* A page that was never allocated, and an entry that was never issued. */
    EXPECT_EQ(nullptr, vel::resolveHandle(reinterpret_cast<void *>(0x3fff000ull), _MSG_PTR_TYPE));
    EXPECT_EQ(nullptr, vel::resolveHandle(reinterpret_cast<void *>(0x5ull << VEL_SAFEPTR_GEN_SHIFT | 0xfff), _MSG_PTR_TYPE));
}

TEST(LockFreeStack, LastInFirstOutAndNothingLostAcrossThreads)
{
    _velClient_lifoHead head;
    _velClient_lifoInit(&head);
    EXPECT_EQ(nullptr, _velClient_lifoPop(&head));
    std::vector<_velClient_lifoEntry> entries(2000);
    _velClient_lifoPush(&head, &entries[0]);
    _velClient_lifoPush(&head, &entries[1]);
    EXPECT_EQ(&entries[1], _velClient_lifoPop(&head));
    EXPECT_EQ(&entries[0], _velClient_lifoPop(&head));

    for (auto &e : entries)
        _velClient_lifoPush(&head, &e);
    auto churn = [&head] {
        for (int i = 0; i < 20000; ++i) {
            _velClient_lifoEntry *e = _velClient_lifoPop(&head);
            if (e != nullptr)
                _velClient_lifoPush(&head, e);
        }
    };
    std::thread a(churn), b(churn);
    a.join();
    b.join();
    std::size_t count = 0;
    while (_velClient_lifoPop(&head) != nullptr)
        ++count;
    EXPECT_EQ(entries.size(), count);
}
