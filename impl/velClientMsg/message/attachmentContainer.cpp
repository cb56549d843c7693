/*
 * attachmentContainer.cpp - a binary attachment that holds a map or a stream:
 * setting it from a container (by copy or by reference), getting it back as a
 * container, and its size. Also the step shared with the user property map:
 * making a message part hold a container's finalised bytes.
 */
#include <cstring>

#include "velClientMsg/header/headerMaps.h"
#include "velClientMsg/message/recordApi.h"

namespace {

_velClient_container *outermost(_velClient_container *cont)
{
    while (cont->parent_p != nullptr)
        cont = cont->parent_p;
    return cont;
}

/* Copy of len bytes in a block of its own, for bytes about to be released. */
velClient_returnCode_t snapshot(const std::uint8_t *p, std::uint32_t len, _velClient_datab **copy)
{
    if (_velClient_datablock_alloc(copy, len) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::memcpy((*copy)->dbData_p, p, len);
    return VELCLIENT_OK;
}

} // namespace

velClient_returnCode_t _velClient_msg_setPartFromContainer(_velClient_msg *msg, int part,
                                                           _velClient_container **openSlot,
                                                           _velClient_container *cont, std::uint32_t offset,
                                                           bool byReference)
{
    if (cont == *openSlot)
        return _velClient_container_closeMapStream(openSlot, false, false, false);
    _velClient_container *finalise = cont;
    if (_velClient_container_closeMapStream(&finalise, false, false, false) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    std::uint8_t *bytes = cont->startPtr;
    auto len = static_cast<std::uint32_t>(cont->curWrPtr - cont->startPtr);
    /* Only the application's own memory is referred to: a data block of a
     * message moves when its container grows and goes when it is freed. */
    byReference = byReference && cont->msg_b == nullptr;
    /* A container inside the part being replaced dies with the open container:
     * keep its bytes in a block of their own first. */
    _velClient_datab *kept = nullptr;
    if (*openSlot != nullptr && outermost(cont) == *openSlot) {
        if (snapshot(bytes, len, &kept) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        bytes = kept->dbData_p;
        byReference = false;
    }
    if (*openSlot != nullptr)
        _velClient_container_closeMapStream(openSlot, true, true, false);
    velClient_returnCode_t rc = byReference ? _velClient_msg_setBufinfoPtr(msg, part, bytes, len)
                                            : _velClient_msg_setBufinfo(msg, part, bytes, len,
                                                                        static_cast<std::int32_t>(offset));
    if (kept != nullptr)
        VEL_DATAB_RELEASE(kept);
    return rc;
}

namespace {

velClient_returnCode_t setAttachmentContainer(velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt cont_p,
                                              vel::HandleFormat badMsgText, bool byReference)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, badMsgText);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    _velClient_container *cont =
        vel::containerOrFail(cont_p, "Bad cont_p pointer (%p) in velClient_msg_setBinaryAttachmentContainer");
    if (cont == nullptr)
        return VELCLIENT_FAIL;
    std::uint8_t type = cont->type == VELCLIENT_CONTAINER_STREAM ? kAttachmentStream : kAttachmentMap;
    velClient_returnCode_t rc = _velClient_msg_setPartFromContainer(
        msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, &msg->binaryAttachContainer_p, cont, 0, byReference);
    if (rc == VELCLIENT_OK)
        msg->binAttachmentType = type;
    return rc;
}

/* The attachment as an open container of kind; NOT_FOUND when it holds the other kind. */
velClient_returnCode_t getAttachmentContainer(velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt *out_p,
                                              velClient_fieldType_t kind, vel::HandleFormat badMsgText,
                                              const char *nullOutText)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, badMsgText);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (out_p == nullptr)
        return VEL_FAIL_NULL("%s", nullOutText);
    _velClient_container *cont = nullptr;
    velClient_returnCode_t rc = vel::msg::attachmentContainer(msg, kind, &cont);
    if (rc == VELCLIENT_OK)
        *out_p = cont->opaqueContainer_p;
    return rc;
}

} // namespace

velClient_returnCode_t vel::msg::attachmentContainer(_velClient_msg *msg, velClient_fieldType_t kind,
                                                     _velClient_container **out_p)
{
    auto wanted = kind == VELCLIENT_MAP ? VELCLIENT_CONTAINER_MAP : VELCLIENT_CONTAINER_STREAM;
    if (_velClient_container *open = msg->binaryAttachContainer_p; open != nullptr) {
        if (open->type != wanted)
            return VELCLIENT_NOT_FOUND;
        ++open->refCount;
        *out_p = open;
        return VELCLIENT_OK;
    }
    _velClient_container *cont = nullptr;
    velClient_returnCode_t rc = openPartContainer(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, kind, &cont);
    if (rc != VELCLIENT_OK)
        return rc;
    if (cont == nullptr)
        return VELCLIENT_NOT_FOUND;
    msg->binaryAttachContainer_p = cont;
    *out_p = cont;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainer(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt cont_p)
{
    return setAttachmentContainer(msg_p, cont_p, "Bad msg_p pointer (%p) in velClient_msg_setBinaryAttachmentContainer",
                                  false);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainerPtr(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt cont_p)
{
    return setAttachmentContainer(msg_p, cont_p,
                                  "Bad msg_p pointer (%p) in velClient_msg_setBinaryAttachmentContainerPtr", true);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentMap(velClient_opaqueMsg_pt msg_p,
                                                                                    velClient_opaqueContainer_pt *map_p)
{
    return getAttachmentContainer(msg_p, map_p, VELCLIENT_MAP,
                                  "Bad msg_p pointer (%p) in velClient_msg_getBinaryAttachmentMap",
                                  "Null map_p pointer in velClient_msg_getBinaryAttachmentMap");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentStream(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt *stream_p)
{
    return getAttachmentContainer(msg_p, stream_p, VELCLIENT_STREAM,
                                  "Bad msg_p pointer (%p) in velClient_msg_getBinaryAttachmentStream",
                                  "Null stream_p pointer in velClient_msg_getBinaryAttachmentStream");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentContainerSize(
    velClient_opaqueMsg_pt msg_p, size_t *size_p)
{
    _velClient_msg *msg =
        vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_getBinaryAttachmentContainerSize");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (msg->binaryAttachContainer_p == nullptr)
        return VELCLIENT_NOT_FOUND;
    if (size_p == nullptr)
        return VEL_FAIL_NULL("Null size pointer in velClient_container_getSize");
    *size_p = vel::container::size(msg->binaryAttachContainer_p);
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentField(velClient_opaqueMsg_pt msg_p,
                                                                                     velClient_field_t *field_p,
                                                                                     size_t fieldSize)
{
    _velClient_msg *msg = vel::msgWithOut(msg_p, field_p,
                                          "Bad msg_p pointer (%p) in velClient_msg_getBinaryAttachmentField",
                                          "Null field_p pointer in velClient_msg_getBinaryAttachmentField");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (_velClient_container *open = msg->binaryAttachContainer_p; open != nullptr) {
        if (fieldSize != sizeof(velClient_field_t))
            return VEL_FAIL_RANGE(
                    "Unsupported field structure size (received %d, expected %d) in _velClient_msg_getField",
                    static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
        ++open->refCount;
        field_p->type = open->type == VELCLIENT_CONTAINER_MAP ? VELCLIENT_MAP : VELCLIENT_STREAM;
        field_p->value.map = open->opaqueContainer_p;
        return VELCLIENT_OK;
    }
    velClient_returnCode_t rc =
        _velClient_msg_getField(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, field_p, fieldSize);
    if (rc == VELCLIENT_OK)
        msg->binaryAttachContainer_p = vel::containerOf(field_p->value.map);
    return rc;
}
