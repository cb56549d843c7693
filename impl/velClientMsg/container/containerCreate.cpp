/*
 * containerCreate.cpp - making containers: empty maps and streams in
 * application memory or in a message part, containers over bytes that are
 * already encoded (application memory, a message part, a nested map or
 * stream), sub-containers opened for writing, the structured binary
 * attachment, and rewinding.
 */
#include <cstring>

#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

using vel::tlv::kContainerHeaderSize;

constexpr std::uint8_t typeByte(_velClient_containerType t)
{
    return t == VELCLIENT_CONTAINER_MAP ? vel::tlv::kTypeMap : vel::tlv::kTypeStream;
}

/* Points c at the container whose type byte is at start and whose bytes may
 * run to maxWr; the write position is at wr. */
void place(_velClient_container *c, _velClient_containerType type, std::uint8_t *start, std::uint8_t *wr,
           std::uint8_t *maxWr)
{
    c->type = type;
    c->startPtr = start;
    c->firstFieldPtr = start + kContainerHeaderSize;
    c->curRdPtr = nullptr;
    c->curFieldLength = 0;
    c->curKeyLength = 0;
    c->curWrPtr = wr;
    c->maxWrPtr = maxWr;
    forgetCheckedEntries(c);
}

/* Writes an empty header at p: type byte and a zero length. */
void writeEmptyHeader(std::uint8_t *p, _velClient_containerType type)
{
    p[0] = typeByte(type);
    vel::tlv::putBE(p + 1, 0, 4);
}

velClient_returnCode_t createInMemory(velClient_opaqueContainer_pt *cont_p, char *mem_p, size_t size,
                                      _velClient_containerType type)
{
    if (cont_p == nullptr)
        return VEL_FAIL_NULL("Null container pointer in velClient_container_createContainer");
    *cont_p = nullptr;
    if (mem_p == nullptr)
        return VEL_FAIL_NULL("Null memory pointer in velClient_container_createContainer");
    if (size < kContainerHeaderSize)
        return VEL_FAIL_RANGE("Memory size of %zu is below the 5-byte container header in "
                              "velClient_container_createContainer",
                              size);
    _velClient_container *c = nullptr;
    if (_velClient_container_alloc(&c) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in velClient_msg_createContainer");
    /* A container's length must fit its 4-byte header. */
    size_t usable = size < 0xFFFFFFF0u ? size : 0xFFFFFFF0u;
    auto *p = reinterpret_cast<std::uint8_t *>(mem_p);
    writeEmptyHeader(p, type);
    place(c, type, p, p + kContainerHeaderSize, p + usable);
    *cont_p = c->opaqueContainer_p;
    return VELCLIENT_OK;
}

velClient_returnCode_t openFromPtr(velClient_opaqueContainer_pt *cont_p, void *buf_p, velClient_uint32_t size,
                                   const char *nullContText, const char *nullBufText, const char *noDataText)
{
    if (cont_p == nullptr)
        return VEL_FAIL_NULL("%s", nullContText);
    if (buf_p == nullptr)
        return VEL_FAIL_NULL("%s", nullBufText);
    auto *p = static_cast<std::uint8_t *>(buf_p);
    if (size == 0)
        return VELCLIENT_NOT_FOUND;
    if (p[0] != vel::tlv::kTypeMap && p[0] != vel::tlv::kTypeStream) {
        VEL_STORE(VELCLIENT_SUBCODE_NO_STRUCTURED_DATA, VELCLIENT_LOG_INFO, "%s", noDataText);
        return VELCLIENT_NOT_FOUND;
    }
    if (size < kContainerHeaderSize || vel::tlv::getBE(p + 1, 4) != size)
        return VELCLIENT_NOT_FOUND;
    _velClient_container *c = nullptr;
    if (_velClient_container_alloc(&c) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in velClient_msg_createContainer");
    auto type = p[0] == vel::tlv::kTypeMap ? VELCLIENT_CONTAINER_MAP : VELCLIENT_CONTAINER_STREAM;
    place(c, type, p, p + size, p + size);
    *cont_p = c->opaqueContainer_p;
    return VELCLIENT_OK;
}

/* Read-only mark of a structured part, or 0 for a part that holds none. */
constexpr std::uint32_t readOnlyMark(int part)
{
    switch (part) {
    case VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART: return _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY;
    case VELCLIENT_BUFINFO_USER_PROPERTY_PART: return _VELCLIENT_MSG_FLAG_USER_PROPS_READONLY;
    case _VELCLIENT_BUFINFO_HDR_MAP_PART: return _VELCLIENT_MSG_FLAG_HDR_MAP_READONLY;
    default: return 0;
    }
}

/* Where a part's structured bytes start: parts 7 and 10 keep 4 bytes for their entry key. */
constexpr std::uint32_t partOffset(int part)
{
    return part == VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART ? 0 : 4;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_createMap(velClient_opaqueContainer_pt *map_p,
                                                                             char *mem_p, size_t size)
{
    return createInMemory(map_p, mem_p, size, VELCLIENT_CONTAINER_MAP);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_createStream(
    velClient_opaqueContainer_pt *stream_p, char *mem_p, size_t size)
{
    return createInMemory(stream_p, mem_p, size, VELCLIENT_CONTAINER_STREAM);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_openMapFromPtr(velClient_opaqueContainer_pt *map_p,
                                                                                  void *buf_p, velClient_uint32_t size)
{
    return openFromPtr(map_p, buf_p, size, "Null map_p pointer in velClient_container_openMapFromPtr",
                       "Null buf_p pointer in velClient_container_openMapFromPtr",
                       "No structured data in velClient_container_openMapFromPtr");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_openStreamFromPtr(
    velClient_opaqueContainer_pt *stream_p, void *buf_p, velClient_uint32_t size)
{
    return openFromPtr(stream_p, buf_p, size, "Null stream_p pointer in velClient_container_openStreamFromPtr",
                       "Null buf_p pointer in velClient_container_openStreamFromPtr",
                       "No structured data in velClient_container_openStreamFromPtr");
}

velClient_returnCode_t _velClient_msg_createContainer(_velClient_msg *msg, int part, _velClient_container **container_p,
                                                      std::uint32_t size, _velClient_containerType cType)
{
    if (part != VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART && part != VELCLIENT_BUFINFO_USER_PROPERTY_PART &&
        part != _VELCLIENT_BUFINFO_HDR_MAP_PART)
        return VEL_FAIL_RANGE("Bad bufInfoIndex = %d in velClient_msg_createContainer", part);
    if (part != VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART && cType == VELCLIENT_CONTAINER_STREAM)
        return VEL_FAIL_RANGE("attempt to create a STREAM in USER_PROPERTY data in velClient_msg_createContainer");
    std::uint32_t offset = partOffset(part);
    std::uint64_t need = std::uint64_t{offset} + (size < kContainerHeaderSize ? kContainerHeaderSize : size);
    if (need > 0xFFFFFFF0u)
        need = 0xFFFFFFF0u;
    _velClient_datab *db = msg->bufDatab_p[part];
    bool reuse = db != nullptr && __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE) == 1 && db->dbSize > need;
    if (!reuse) {
        /* A part held elsewhere (shared, or the application's memory) is never written into. */
        _velClient_msg_setBufinfoPtr(msg, part, nullptr, 0);
        if (_velClient_msg_dbAlloc(msg, part, static_cast<std::uint32_t>(need)) != VELCLIENT_OK)
            return VELCLIENT_FAIL;
        db = msg->bufDatab_p[part];
    }
    _velClient_container *c = nullptr;
    if (_velClient_container_alloc(&c) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in velClient_msg_createContainer");
    std::uint8_t *start = db->dbData_p + offset;
    std::memset(db->dbData_p, 0, offset);
    writeEmptyHeader(start, cType);
    place(c, cType, start, start + kContainerHeaderSize, db->dbData_p + db->dbSize);
    c->offset = offset;
    c->msg_b = msg;
    c->bufInfoIndex = static_cast<velClient_bufInfo_index_t>(part);
    msg->bufInfo_a[part] = velClient_bufInfo_t{db->dbData_p, offset + kContainerHeaderSize};
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    *container_p = c;
    return VELCLIENT_OK;
}

namespace {

/* Opens a container over the structured bytes of part (0, 7 or 10), as
 * _velClient_msg_getField does, and hands back its record; field_p is only
 * shown in the debug line. One instance a part, so that what depends on the
 * part is known when compiled. */
template <int part>
velClient_returnCode_t openPartAt(_velClient_msg *msg, const void *field_p, _velClient_container **cont_p)
{
    constexpr std::uint32_t mark = readOnlyMark(part);
    static_assert(mark != 0, "a structured part");
    VEL_LOG(VELCLIENT_LOG_DEBUG, "_velClient_msg_getField(%p,%d,%p,%d) - readonly part(%d)", static_cast<void *>(msg),
            part, field_p, static_cast<int>(sizeof(velClient_field_t)),
            static_cast<int>(msg->internalFlags & mark));
    constexpr std::uint32_t offset = partOffset(part);
    const velClient_bufInfo_t &info = msg->bufInfo_a[part];
    auto *start = static_cast<std::uint8_t *>(info.buf_p) + (info.buf_p != nullptr ? offset : 0);
    if (info.buf_p == nullptr || info.bufSize <= offset ||
        (start[0] != vel::tlv::kTypeMap && start[0] != vel::tlv::kTypeStream)) {
        VEL_STORE(VELCLIENT_SUBCODE_NO_STRUCTURED_DATA, VELCLIENT_LOG_INFO,
                  "No structured data at bufInfoIndex = %d in velClient_msg_getStructuredDataAndType", part);
        return VELCLIENT_NOT_FOUND;
    }
    if (info.bufSize < offset + kContainerHeaderSize || vel::tlv::getBE(start + 1, 4) + offset != info.bufSize)
        return VELCLIENT_NOT_FOUND;
    _velClient_container *c = nullptr;
    if (_velClient_container_alloc(&c) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in velClient_msg_getStructuredDataAndType");
    auto type = start[0] == vel::tlv::kTypeMap ? VELCLIENT_CONTAINER_MAP : VELCLIENT_CONTAINER_STREAM;
    std::uint8_t *end = static_cast<std::uint8_t *>(info.buf_p) + info.bufSize;
    place(c, type, start, end, end);
    c->offset = offset;
    c->msg_b = msg;
    c->bufInfoIndex = static_cast<velClient_bufInfo_index_t>(part);
    /* Bytes shared with another message, or the application's own memory
     * that the part refers to, are copied before they are first changed. */
    c->copyOnModify = (msg->internalFlags & mark) != 0 || msg->bufDatab_p[part] == nullptr;
    *cont_p = c;
    return VELCLIENT_OK;
}

velClient_returnCode_t openPart(_velClient_msg *msg, int part, const void *field_p, _velClient_container **cont_p)
{
    switch (part) {
    case VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART:
        return openPartAt<VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART>(msg, field_p, cont_p);
    case VELCLIENT_BUFINFO_USER_PROPERTY_PART:
        return openPartAt<VELCLIENT_BUFINFO_USER_PROPERTY_PART>(msg, field_p, cont_p);
    case _VELCLIENT_BUFINFO_HDR_MAP_PART:
        return openPartAt<_VELCLIENT_BUFINFO_HDR_MAP_PART>(msg, field_p, cont_p);
    default: return VEL_FAIL_RANGE("Bad bufInfoIndex = %d in velClient_msg_getStructuredDataAndType", part);
    }
}

/* Keeps the container of part opened in cont when it is of the kind wanted
 * (VELCLIENT_MAP or VELCLIENT_STREAM), else closes it. */
void keepIfWanted(_velClient_container *cont, velClient_fieldType_t wanted, _velClient_container **cont_p)
{
    if ((cont->type == VELCLIENT_CONTAINER_MAP ? VELCLIENT_MAP : VELCLIENT_STREAM) == wanted)
        *cont_p = cont;
    else
        _velClient_container_closeMapStream(&cont, true, true, false);
}

} // namespace

velClient_returnCode_t _velClient_msg_getField(_velClient_msg *msg, int part, velClient_field_t *field_p,
                                               std::size_t fieldSize)
{
    if (fieldSize != sizeof(velClient_field_t))
        return VEL_FAIL_RANGE("Unsupported field structure size (received %d, expected %d) in _velClient_msg_getField",
                              static_cast<int>(fieldSize), static_cast<int>(sizeof(velClient_field_t)));
    _velClient_container *c = nullptr;
    velClient_returnCode_t rc = openPart(msg, part, field_p, &c);
    if (rc != VELCLIENT_OK)
        return rc;
    field_p->type = c->type == VELCLIENT_CONTAINER_MAP ? VELCLIENT_MAP : VELCLIENT_STREAM;
    field_p->value.map = c->opaqueContainer_p;
    return VELCLIENT_OK;
}

/* The record is used as it comes from the pool: its handle is not resolved
 * again. */
velClient_returnCode_t vel::msg::openPartContainer(_velClient_msg *msg, int part, velClient_fieldType_t wanted,
                                                   _velClient_container **cont_p)
{
    *cont_p = nullptr;
    _velClient_container *cont = nullptr;
    velClient_returnCode_t rc = openPart(msg, part, cont_p, &cont);
    if (rc == VELCLIENT_OK)
        keepIfWanted(cont, wanted, cont_p);
    return rc;
}

velClient_returnCode_t vel::msg::openUserPropertyContainer(_velClient_msg *msg, _velClient_container **cont_p)
{
    *cont_p = nullptr;
    _velClient_container *cont = nullptr;
    velClient_returnCode_t rc = openPartAt<VELCLIENT_BUFINFO_USER_PROPERTY_PART>(msg, cont_p, &cont);
    if (rc == VELCLIENT_OK)
        keepIfWanted(cont, VELCLIENT_MAP, cont_p);
    return rc;
}

velClient_returnCode_t _velClient_container_getSubContainer(_velClient_container *parent, std::uint8_t *start_p,
                                                            _velClient_container **child_p)
{
    for (_velClient_container *k = parent->child_p; k != nullptr; k = k->sib_p) {
        if (k->startPtr == start_p) {
            ++k->refCount;
            *child_p = k;
            return VELCLIENT_OK;
        }
    }
    _velClient_container *c = nullptr;
    if (_velClient_container_alloc(&c) != VELCLIENT_OK)
        return VEL_FAIL(VELCLIENT_SUBCODE_OUT_OF_MEMORY, VELCLIENT_LOG_WARNING,
                        "Unable to allocate container for map in _velClient_container_openSubContainer");
    auto type = start_p[0] == vel::tlv::kTypeMap ? VELCLIENT_CONTAINER_MAP : VELCLIENT_CONTAINER_STREAM;
    std::uint8_t *end = start_p + vel::tlv::getBE(start_p + 1, 4);
    place(c, type, start_p, end, end);
    c->offset = static_cast<std::uint32_t>(start_p - parent->startPtr);
    c->msg_b = parent->msg_b;
    c->bufInfoIndex = parent->bufInfoIndex;
    c->parent_p = parent;
    c->copyOnModify = parent->copyOnModify;
    c->sib_p = parent->child_p;
    parent->child_p = c;
    *child_p = c;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_container_rewind(velClient_opaqueContainer_pt opaqueCont_p)
{
    _velClient_container *c = vel::containerOrFail(opaqueCont_p, "Bad container pointer (%p) in velClient_container_rewind");
    if (c == nullptr)
        return VELCLIENT_FAIL;
    c->curRdPtr = nullptr;
    return VELCLIENT_OK;
}

/* ---- The binary attachment as a new map or stream ---------------------------- */
namespace {

velClient_returnCode_t createAttachment(velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt *out_p,
                                        velClient_uint32_t size, _velClient_containerType type,
                                        vel::HandleFormat badMsgText, const char *nullOutText)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, badMsgText);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (out_p == nullptr)
        return VEL_FAIL_NULL("%s", nullOutText);
    if (msg->binaryAttachContainer_p != nullptr)
        _velClient_container_closeMapStream(&msg->binaryAttachContainer_p, true, true, false);
    _velClient_container *c = nullptr;
    if (_velClient_msg_createContainer(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, &c, size, type) !=
        VELCLIENT_OK) {
        *out_p = nullptr;
        return VELCLIENT_FAIL;
    }
    c->copyOnModify = (msg->internalFlags & _VELCLIENT_MSG_FLAG_ATTACHMENT_READONLY) != 0;
    msg->binaryAttachContainer_p = c;
    msg->binAttachmentType = type == VELCLIENT_CONTAINER_MAP ? 10 : 11;
    *out_p = c->opaqueContainer_p;
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentMap(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt *map_p, velClient_uint32_t size)
{
    return createAttachment(msg_p, map_p, size, VELCLIENT_CONTAINER_MAP,
                            "Bad msg_p pointer (%p) in velClient_msg_createBinaryAttachmentMap",
                            "Null map_p pointer in velClient_msg_createBinaryAttachmentMap");
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentStream(
    velClient_opaqueMsg_pt msg_p, velClient_opaqueContainer_pt *stream_p, velClient_uint32_t size)
{
    return createAttachment(msg_p, stream_p, size, VELCLIENT_CONTAINER_STREAM,
                            "Bad msg_p pointer (%p) in velClient_msg_createBinaryAttachmentStream",
                            "Null stream_p pointer in velClient_msg_createBinaryAttachmentStream");
}
