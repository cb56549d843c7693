/*
 * msgPool.cpp - the process-wide pool record: start and restart, the end of
 * life report, the memory limit and the draining it triggers, and the
 * statistics the application reads.
 */
#include "velClientMsg/memory/poolAccounting.h"

_velClient_msgPool _velClient_msgPool_s{0,
                                        {VEL_DEFAULT_QUANTA[0], VEL_DEFAULT_QUANTA[1], VEL_DEFAULT_QUANTA[2],
                                         VEL_DEFAULT_QUANTA[3], VEL_DEFAULT_QUANTA[4]},
                                        {},
                                        {},
                                        {},
                                        kDefaultMaxPoolMem,
                                        {}};

namespace {

using namespace vel::pool;

constexpr std::uint64_t kDrainBudget = 10000000;

std::uint64_t blockBytes(_velClient_datab *db)
{
    return std::uint64_t{kDatabHeaderSize} + db->dbSize;
}

/* Frees records of list to the system while more() agrees; bytesOf gives each
 * record's size as counted in totMemory. */
template <typename Rec, typename BytesOf, typename More>
void drain(_velClient_lifoHead &list, std::atomic<std::uint32_t> &numFree, BytesOf bytesOf, More more)
{
    while (more()) {
        Rec *rec = takeShared<Rec>(list, numFree);
        if (rec == nullptr)
            return;
        giveToSystem(rec, bytesOf(rec));
    }
}

template <typename Rec>
std::uint64_t fixedSize(Rec *)
{
    return sizeof(Rec);
}

/* Drains every free list completely, largest blocks first, while more() agrees. */
template <typename More>
void drainAll(More more)
{
    _velClient_msgPool &pool = _velClient_msgPool_s;
    for (int q = _VELCLIENT_NUM_QUANTA - 1; q >= 0; --q)
        drain<_velClient_datab>(pool.freeDbList[q], stats().numFreeDataB[q], blockBytes, more);
    drain<_velClient_msg>(pool.freeMsgList, stats().numFreeMsg, fixedSize<_velClient_msg>, more);
    drain<_velClient_container>(pool.freeContainerList, stats().numFreeContainer, fixedSize<_velClient_container>,
                                more);
}

/* Reports live records of one kind, drains its list, reports pooled records
 * that were counted but not found. Returns true when some were still live. */
template <typename Rec, typename BytesOf>
bool drainAndReport(_velClient_lifoHead &list, std::atomic<std::uint32_t> &numFree, std::uint64_t live,
                    vel::Format<int> liveText, BytesOf bytesOf)
{
    if (live != 0)
        VEL_LOG_F(VELCLIENT_LOG_INFO, liveText, static_cast<int>(live));
    drain<Rec>(list, numFree, bytesOf, [] { return true; });
    return live != 0;
}

} // namespace

void _velClient_msgPool_configure(const std::uint32_t quanta[_VELCLIENT_NUM_QUANTA], std::uint64_t maxPoolMem)
{
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        _velClient_msgPool_s.dbQuantaSize[q] = quanta[q];
    setBlockCacheCaps(quanta);
    _velClient_msgPool_s.maxPoolMemSize.store(maxPoolMem, std::memory_order_relaxed);
}

velClient_returnCode_t _velClient_msgInit()
{
    _velClient_msgPool &pool = _velClient_msgPool_s;
    if (pool.initCalled == 0) {
        stats().totMemory = 0;
        clearCounters([](_velClient_msgPoolStats &st) {
            st.numAllocMsg = 0;
            st.numAllocContainer = 0;
            for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
                st.numAllocDataB[q] = 0;
        });
    } else {
        _velClient_msg_cleanup();
    }
    pool.initCalled = 1;
    _velClient_lifoInit(&pool.freeMsgList);
    _velClient_lifoInit(&pool.freeContainerList);
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
        _velClient_lifoInit(&pool.freeDbList[q]);
    clearCounters([](_velClient_msgPoolStats &st) {
        st.msgAllocs = 0;
        st.msgFrees = 0;
        st.msgDups = 0;
        st.msgReallocs = 0;
        st.numFreeMsg = 0;
        st.numFreeContainer = 0;
        for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q)
            st.numFreeDataB[q] = 0;
    });
    return VELCLIENT_OK;
}

void _velClient_msg_cleanup()
{
    _velClient_msgPool &pool = _velClient_msgPool_s;
    _velClient_msgPoolStats &st = stats();
    if (pool.initCalled == 0)
        return;
    vel::releaseKeptChunks();
    spillAllCaches();
    bool live = drainAndReport<_velClient_msg>(pool.freeMsgList, st.numFreeMsg, sumCounter(&_velClient_msgPoolStats::numAllocMsg),
                                               "Currently allocated %d messages not released",
                                               fixedSize<_velClient_msg>);
    if (std::uint64_t lost = sumCounter(&_velClient_msgPoolStats::numFreeMsg); lost != 0)
        VEL_LOG(VELCLIENT_LOG_ERROR, "%d free messages not found", static_cast<int>(lost));
    live |= drainAndReport<_velClient_container>(pool.freeContainerList, st.numFreeContainer,
                                                 sumCounter(&_velClient_msgPoolStats::numAllocContainer),
                                                 "Currently allocated %d containers not released",
                                                 fixedSize<_velClient_container>);
    if (std::uint64_t lost = sumCounter(&_velClient_msgPoolStats::numFreeContainer); lost != 0)
        VEL_LOG(VELCLIENT_LOG_ERROR, "%d free containers not found", static_cast<int>(lost));
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q) {
        live |= drainAndReport<_velClient_datab>(pool.freeDbList[q], st.numFreeDataB[q],
                                                 sumCounter(&_velClient_msgPoolStats::numAllocDataB, q),
                                                 "Currently allocated %d data blocks not released", blockBytes);
        if (std::uint64_t lost = sumCounter(&_velClient_msgPoolStats::numFreeDataB, q); lost != 0)
            VEL_LOG(VELCLIENT_LOG_ERROR, "%d free data blocks in quanta %d (size=%d) not found",
                    static_cast<int>(lost), static_cast<int>(q), static_cast<int>(pool.dbQuantaSize[q]));
    }
    if (!live && st.totMemory.load() != 0)
        VEL_LOG(VELCLIENT_LOG_ERROR, "All memory released but %lld bytes still unaccounted for",
                static_cast<long long>(st.totMemory.load()));
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setMaxPoolMem(velClient_uint64_t maxPoolMem)
{
    std::atomic<std::uint64_t> &tot = stats().totMemory;
    VEL_LOG(VELCLIENT_LOG_INFO,
            "velClient_msg_setMaxPoolMem called, new max size = %llu, old max size = %llu, current memory = %llu",
            static_cast<unsigned long long>(maxPoolMem),
            static_cast<unsigned long long>(_velClient_msgPool_s.maxPoolMemSize.load()),
            static_cast<unsigned long long>(tot.load()));
    _velClient_msgPool_s.maxPoolMemSize.store(maxPoolMem, std::memory_order_relaxed);
    std::uint64_t budget = kDrainBudget;
    spillMyCaches(); /* other threads' caches stay with them: at most a few records each */
    if (maxPoolMem < tot.load())
        drainAll([&] { return tot.load(std::memory_order_relaxed) > maxPoolMem && budget-- > 0; });
    const bool gaveUp = budget == static_cast<std::uint64_t>(-1);
    VEL_LOG(gaveUp ? VELCLIENT_LOG_ERROR : VELCLIENT_LOG_INFO,
            gaveUp ? "velClient_msg_setMaxPoolMem exited after looping too many times; after freeing "
                     "memory, new max size = %llu, new current memory = %llu"
                   : "velClient_msg_setMaxPoolMem after freeing memory, new max size = %llu, new current "
                     "memory = %llu",
            static_cast<unsigned long long>(maxPoolMem), static_cast<unsigned long long>(tot.load()));
    return VELCLIENT_OK;
}

namespace {

/* Largest valid index of a statistic type. */
std::uint32_t maxStatIndex(velClient_msg_stats_t type)
{
    if (type == VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS)
        return _VELCLIENT_NUM_QUANTA - 1;
    if (type == VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS)
        return _VELCLIENT_NUM_QUANTA;
    return 0;
}

std::uint64_t readStat(velClient_msg_stats_t type, std::uint32_t index)
{
    using St = _velClient_msgPoolStats;
    switch (type) {
    case VELCLIENT_MSG_STATS_TOTAL_MEMORY: return stats().totMemory.load();
    case VELCLIENT_MSG_STATS_ALLOC_MEMORY: return sumCounter(&St::allocMemory);
    case VELCLIENT_MSG_STATS_MSG_ALLOCS: return sumCounter(&St::msgAllocs);
    case VELCLIENT_MSG_STATS_MSG_FREES: return sumCounter(&St::msgFrees);
    case VELCLIENT_MSG_STATS_MSG_DUPS: return sumCounter(&St::msgDups);
    case VELCLIENT_MSG_STATS_MSG_REALLOCS: return sumCounter(&St::msgReallocs);
    case VELCLIENT_MSG_STATS_FREE_MSGS: return sumCounter(&St::numFreeMsg);
    case VELCLIENT_MSG_STATS_ALLOC_MSGS: return sumCounter(&St::numAllocMsg);
    case VELCLIENT_MSG_STATS_FREE_CONTAINERS: return sumCounter(&St::numFreeContainer);
    case VELCLIENT_MSG_STATS_ALLOC_CONTAINERS: return sumCounter(&St::numAllocContainer);
    case VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS: return sumCounter(&St::numFreeDataB, index);
    case VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS: return sumCounter(&St::numAllocDataB, index);
    }
    return 0;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getStat(velClient_msg_stats_t msgStatType,
                                                                     velClient_uint32_t statIndex,
                                                                     velClient_uint64_t *statValue_p)
{
    if (statValue_p == nullptr)
        return VEL_FAIL_NULL("Null statValue_p in velClient_msg_getStat");
    std::int64_t type = vel::enumValue(msgStatType);
    if (type < 0 || type > VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS)
        return VEL_FAIL_RANGE("Invalid statistic type of %d in velClient_msg_getStat", static_cast<int>(type));
    std::uint32_t maxIndex = maxStatIndex(msgStatType);
    if (statIndex > maxIndex)
        return VEL_FAIL_RANGE("Index of %u out of range of max index value of %u for statistic type %d in "
                              "velClient_msg_getStat",
                              statIndex, maxIndex, static_cast<int>(msgStatType));
    *statValue_p = readStat(msgStatType, statIndex);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API _velClient_R43_msgPoolStats_pt velClient_msg_getMsgPoolStats(void)
{
    static _velClient_R43_msgPoolStats_t legacy{};
    legacy.totMemory = readStat(VELCLIENT_MSG_STATS_TOTAL_MEMORY, 0);
    legacy.msgAllocs = readStat(VELCLIENT_MSG_STATS_MSG_ALLOCS, 0);
    legacy.msgFrees = readStat(VELCLIENT_MSG_STATS_MSG_FREES, 0);
    legacy.msgDups = readStat(VELCLIENT_MSG_STATS_MSG_DUPS, 0);
    legacy.msgReallocs = readStat(VELCLIENT_MSG_STATS_MSG_REALLOCS, 0);
    legacy.numFreeMsg = readStat(VELCLIENT_MSG_STATS_FREE_MSGS, 0);
    legacy.numAllocMsg = readStat(VELCLIENT_MSG_STATS_ALLOC_MSGS, 0);
    legacy.numContainers = readStat(VELCLIENT_MSG_STATS_ALLOC_CONTAINERS, 0);
    /* Entry 5 of numAllocDataB has no counterpart here and is never written. */
    for (std::uint32_t q = 0; q < _VELCLIENT_NUM_QUANTA; ++q) {
        legacy.numFreeDataB[q] = readStat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, q);
        legacy.numAllocDataB[q] = readStat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, q);
    }
    return &legacy;
}
