/*
 * containerPool.cpp - container records: taking one from the pool with a
 * fresh handle, and returning it (handle invalidated) to the pool or the
 * system. What a container holds is the container code's business.
 */
#include <cstring>

#include "velClientMsg/memory/poolAccounting.h"

using namespace vel::pool;

velClient_returnCode_t _velClient_container_alloc(_velClient_container **container_p)
{
    _velClient_msgPool &pool = _velClient_msgPool_s;
    ThreadState &me = local();
    auto *cont = take<_velClient_container>(me.containers, pool.freeContainerList, me.counters.numFreeContainer);
    if (cont == nullptr && (cont = obtain<_velClient_container>(sizeof(_velClient_container))) == nullptr) {
        *container_p = nullptr;
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_ERROR,
                        "_velClient_container_alloc, unable to allocate memory for velClient_container");
    }
    /* The remembered entry offsets are written before they are read. */
    clearRecord<_velClient_container, offsetof(_velClient_container, checkedAt)>(cont);
    cont->checkedNext = 0;
    cont->opaqueContainer_p = vel::handles::issue(cont, _CONTAINER_PTR_TYPE);
    if (cont->opaqueContainer_p == nullptr) {
        cont->onFreeList = true;
        bump(me.counters.numFreeContainer);
        _velClient_lifoPush(&pool.freeContainerList, &cont->entry);
        *container_p = nullptr;
        return VELCLIENT_FAIL;
    }
    bump(me.counters.numAllocContainer);
    cont->refCount = 1;
    *container_p = cont;
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_container_free(_velClient_container **container_p)
{
    _velClient_container *cont = *container_p;
    *container_p = nullptr;
    if (cont->onFreeList)
        return VEL_FAIL_RANGE("Attempt to free already freed container %p", static_cast<void *>(cont));
    vel::handles::release(cont->opaqueContainer_p);
    cont->onFreeList = true; /* moot when the record goes back to the system */
    ThreadState &me = local();
    release(me.containers, kRecordCacheCap, _velClient_msgPool_s.freeContainerList, &cont->entry,
            me.counters.numFreeContainer, sizeof(_velClient_container));
    drop(me.counters.numAllocContainer);
    return VELCLIENT_OK;
}
