/*
 * example_pool.c - the message pool at work: messages and data blocks are
 * allocated, duplicated and freed, and the pool statistics are printed before
 * and after, showing records recycled through the free lists.
 */
#include <stdio.h>

#include "velclient/velClientMsg.h"

static void printStats(const char *title)
{
    static const struct {
        velClient_msg_stats_t type;
        const char *name;
    } rows[] = {{VELCLIENT_MSG_STATS_TOTAL_MEMORY, "memory from the system"},
                {VELCLIENT_MSG_STATS_ALLOC_MEMORY, "capacity of live data blocks"},
                {VELCLIENT_MSG_STATS_MSG_ALLOCS, "message allocations"},
                {VELCLIENT_MSG_STATS_MSG_FREES, "message releases"},
                {VELCLIENT_MSG_STATS_MSG_DUPS, "message duplications"},
                {VELCLIENT_MSG_STATS_FREE_MSGS, "pooled messages"},
                {VELCLIENT_MSG_STATS_ALLOC_MSGS, "live messages"}};
    size_t i;
    velClient_uint32_t q;
    printf("%s\n", title);
    for (i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        velClient_uint64_t v = 0;
        velClient_msg_getStat(rows[i].type, 0, &v);
        printf("  %-32s %12llu\n", rows[i].name, (unsigned long long)v);
    }
    printf("  %-32s", "data blocks live / pooled:");
    for (q = 0; q < 5; ++q) {
        velClient_uint64_t live = 0, pooled = 0;
        velClient_msg_getStat(VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS, q, &live);
        velClient_msg_getStat(VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, q, &pooled);
        printf(" %llu/%llu", (unsigned long long)live, (unsigned long long)pooled);
    }
    printf("\n\n");
}

int main(void)
{
    velClient_opaqueMsg_pt msgs[8], dups[8];
    velClient_opaqueDatablock_pt blocks[5];
    const velClient_uint32_t sizes[5] = {100, 1000, 10000, 100000, 1000000};
    int i, round;

    if (velClient_initialize(VELCLIENT_LOG_WARNING, NULL) != VELCLIENT_OK)
        return 1;
    printStats("after start:");
    for (round = 0; round < 2; ++round) {
        for (i = 0; i < 8; ++i) {
            if (velClient_msg_alloc(&msgs[i]) != VELCLIENT_OK ||
                velClient_msg_setUserData(msgs[i], "payload", 7) != VELCLIENT_OK ||
                velClient_msg_dup(msgs[i], &dups[i]) != VELCLIENT_OK)
                return 1;
        }
        for (i = 0; i < 5; ++i)
            if (velClient_datablock_alloc(&blocks[i], sizes[i]) != VELCLIENT_OK)
                return 1;
        printStats(round == 0 ? "8 messages, 8 duplicates and 5 data blocks live:"
                              : "the same again, taken from the free lists:");
        for (i = 0; i < 8; ++i) {
            velClient_msg_free(&msgs[i]);
            velClient_msg_free(&dups[i]);
        }
        for (i = 0; i < 5; ++i)
            velClient_datablock_free(&blocks[i]);
    }
    printStats("all released (pooled for reuse):");
    velClient_msg_setMaxPoolMem(0);
    printStats("after lowering the pool limit to 0:");
    return velClient_cleanup() == VELCLIENT_OK ? 0 : 1;
}
