/*
 * userPropertyMap.cpp - the application's user property map in part 7:
 * creating it in the message, setting it from a map, and getting it back
 * (from part 7, or from a received message's metadata header).
 */
#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_createUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                                   velClient_opaqueContainer_pt *map_p,
                                                                                   velClient_uint32_t size)
{
    _velClient_msg *msg = vel::msgWithOut(msg_p, map_p, "Bad msg_p pointer (%p) in velClient_msg_createUserPropertyMap",
                                          "Null map_p pointer in velClient_msg_createUserPropertyMap");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (msg->userPropertyMap_p != nullptr)
        _velClient_container_closeMapStream(&msg->userPropertyMap_p, true, true, false);
    if (_velClient_msg_createContainer(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &msg->userPropertyMap_p, size,
                                       VELCLIENT_CONTAINER_MAP) != VELCLIENT_OK) {
        *map_p = nullptr;
        return VELCLIENT_FAIL;
    }
    *map_p = msg->userPropertyMap_p->opaqueContainer_p;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt map)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setUserPropertyMap");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *cont = vel::containerOrFail(map, "Bad map pointer (%p) in velClient_msg_setUserPropertyMap");
    if (cont == nullptr)
        return VELCLIENT_FAIL;
    return _velClient_msg_setPartFromContainer(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART, &msg->userPropertyMap_p,
                                               cont, kMapEntryKeySize, false);
}

namespace {

bool partHasBytes(const _velClient_msg *msg, int part)
{
    return msg->bufInfo_a[part].buf_p != nullptr && msg->bufInfo_a[part].bufSize != 0;
}

bool partEmpty(const _velClient_msg *msg)
{
    return !partHasBytes(msg, VELCLIENT_BUFINFO_USER_PROPERTY_PART);
}

/* Opens part 7 as the user property map; a stream there is refused. */
velClient_returnCode_t openUserPropertyPart(_velClient_msg *msg)
{
    _velClient_container *cont = nullptr;
    velClient_returnCode_t rc = vel::msg::openUserPropertyContainer(msg, &cont);
    if (rc != VELCLIENT_OK)
        return rc;
    if (cont == nullptr)
        return VEL_FAIL(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_WARNING,
                        "User Property is in invalid format - stream when should be map");
    msg->userPropertyMap_p = cont;
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt *map_p)
{
    if (map_p == nullptr)
        return VEL_FAIL_NULL("Null map_p pointer in velClient_msg_getUserPropertyMap");
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getUserPropertyMap");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *map = nullptr;
    velClient_returnCode_t rc = vel::msg::userPropertyMap(msg, &map);
    if (rc == VELCLIENT_OK)
        *map_p = map->opaqueContainer_p;
    return rc;
}

velClient_returnCode_t vel::msg::userPropertyMap(_velClient_msg *msg, _velClient_container **map_p)
{
    if (msg->userPropertyMap_p == nullptr) {
        if (partEmpty(msg)) {
            if (msg->hdrMap_p != nullptr)
                return VELCLIENT_NOT_FOUND;
            /* A received message's properties come out of its metadata header. */
            velClient_returnCode_t rc = partHasBytes(msg, _VELCLIENT_BUFINFO_HDR_MAP_PART)
                                            ? _velClient_msg_getOrCreateHeaderMaps(msg, 0)
                                            : vel::meta::readOpeningHeaderMap(msg);
            if (rc == VELCLIENT_FAIL)
                return VELCLIENT_FAIL;
            if (partEmpty(msg))
                return VELCLIENT_NOT_FOUND;
        }
        if (velClient_returnCode_t rc = openUserPropertyPart(msg); rc != VELCLIENT_OK)
            return rc;
    } else {
        ++msg->userPropertyMap_p->refCount;
    }
    *map_p = msg->userPropertyMap_p;
    return VELCLIENT_OK;
}
