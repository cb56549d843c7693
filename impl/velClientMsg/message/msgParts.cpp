/*
 * msgParts.cpp - the message's buffer parts: the two internal setters every
 * content setter rests on (reference, copy), reading a part, and the public
 * setters and getters of the unstructured parts (binary attachment, topic,
 * queue name, user data, XML, correlation tag, the wire image).
 */
#include <cassert>
#include <cstdint>
#include <cstring>

#include "velClientMsg/memory/blockSteps.h"
#include "velClientMsg/message/destinationText.h"
#include "velClientMsg/message/partCopy.h"
#include "velClientMsg/message/recordApi.h"
#include "velClientMsg/container/tlvCodec.h"

namespace {

using namespace vel::dest;

bool validIndex(int index)
{
    return index >= 0 && index < _VELCLIENT_BUFINFO_NUM_PARTS;
}

void dropBlock(_velClient_msg *msg, int index)
{
    if (msg->bufDatab_p[index] != nullptr)
        VEL_DATAB_RELEASE(msg->bufDatab_p[index]);
    msg->bufDatab_p[index] = nullptr;
}

/* True when the size bytes at p lie in the part's own data block: the
 * application read them from this very part. */
bool inOwnBlock(const _velClient_msg *msg, int index, const void *p, std::uint32_t size)
{
    const _velClient_datab *db = msg->bufDatab_p[index];
    if (db == nullptr || p == nullptr)
        return false;
    const auto lo = reinterpret_cast<std::uintptr_t>(db->dbData_p);
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    return at < lo + db->dbSize && at + size > lo;
}

/* Keeps a part's old block alive until the bytes copied out of it are in
 * the new one. */
class HoldBlock {
public:
    explicit HoldBlock(_velClient_datab *db) : db_(db)
    {
        if (db_ != nullptr)
            _velClient_datablock_incRef(db_);
    }
    HoldBlock(const HoldBlock &) = delete;
    HoldBlock &operator=(const HoldBlock &) = delete;
    ~HoldBlock()
    {
        if (db_ != nullptr)
            VEL_DATAB_RELEASE(db_);
    }

private:
    _velClient_datab *db_;
};

void closeAttachmentContainer(_velClient_msg *msg)
{
    if (msg->binaryAttachContainer_p != nullptr)
        _velClient_container_closeMapStream(&msg->binaryAttachContainer_p, true, true, false);
}

} // namespace

velClient_returnCode_t _velClient_msg_setBufinfoPtr(_velClient_msg *msg, int bufInfoIndex, void *buf_p,
                                                    std::uint32_t size)
{
    if (!validIndex(bufInfoIndex))
        return VEL_FAIL(VELCLIENT_SUBCODE_INTERNAL_ERROR, VELCLIENT_LOG_ERROR,
                        "Bad msg_p index in velClient_msg_setBufinfoPtr");
    /* The part's own bytes go with its block: they are copied instead. */
    if (inOwnBlock(msg, bufInfoIndex, buf_p, size))
        return _velClient_msg_setBufinfo(msg, bufInfoIndex, buf_p, size, 0);
    dropBlock(msg, bufInfoIndex);
    msg->internalFlags |= _VELCLIENT_MSG_FLAG_MODIFIED;
    msg->bufInfo_a[bufInfoIndex] = velClient_bufInfo_t{buf_p, size};
    return VELCLIENT_OK;
}

velClient_returnCode_t _velClient_msg_setBufinfo(_velClient_msg *msg, int bufInfoIndex, const void *buf_p,
                                                 std::uint32_t size, std::int32_t offset)
{
    if (buf_p == nullptr && size != 0)
        return VEL_FAIL_NULL("Null buf_p pointer with non-zero size in velClient_msg_setBufinfo");
    if (!validIndex(bufInfoIndex))
        return VEL_FAIL_RANGE("Bad msg_p pointer in velClient_msg_setBufinfo");
    auto start = static_cast<std::uint64_t>(offset < 0 ? 0 : offset);
    std::uint64_t total = start + size;
    _velClient_datab *db = msg->bufDatab_p[bufInfoIndex];
    if (db != nullptr && size != 0 && __atomic_load_n(&db->dbRefCount, __ATOMIC_ACQUIRE) == 1 && db->dbSize > total) {
        /* In place: the block is ours alone and big enough; the modified flag is left alone. */
        std::memmove(db->dbData_p + start, buf_p, size);
        msg->bufInfo_a[bufInfoIndex] = velClient_bufInfo_t{db->dbData_p, static_cast<std::uint32_t>(total)};
        return VELCLIENT_OK;
    }
    if (db == nullptr && total <= UINT32_MAX)
        return vel::msg::copyIntoEmptyPart(msg, bufInfoIndex, buf_p, size, static_cast<std::uint32_t>(start));
    HoldBlock source(inOwnBlock(msg, bufInfoIndex, buf_p, size) ? db : nullptr);
    dropBlock(msg, bufInfoIndex);
    if (total > UINT32_MAX) {
        vel::msg::clearPart(msg, bufInfoIndex); /* the slot is empty now: the part only */
        return VEL_FAIL_RANGE("Bad msg_p pointer in velClient_msg_setBufinfo");
    }
    return vel::msg::copyIntoEmptyPart(msg, bufInfoIndex, buf_p, size, static_cast<std::uint32_t>(start));
}

velClient_returnCode_t _velClient_msg_getBufinfoPtr(_velClient_msg *msg, int bufInfoIndex, void **bufPtr_p,
                                                    std::uint32_t *size_p)
{
    if (!validIndex(bufInfoIndex))
        return VEL_FAIL_RANGE("Bad bufinfoIndex in velClient_msg_getBufinfoPtr");
    if (bufPtr_p == nullptr)
        return VEL_FAIL_NULL("Null bufPtr_p pointer in velClient_msg_getBufinfoPtr");
    if (size_p == nullptr)
        return VEL_FAIL_NULL("Null size_p pointer in velClient_msg_getBufinfoPtr");
    const velClient_bufInfo_t &part = msg->bufInfo_a[bufInfoIndex];
    if (part.bufSize == 0)
        return VELCLIENT_NOT_FOUND;
    *bufPtr_p = part.buf_p;
    *size_p = part.bufSize;
    return VELCLIENT_OK;
}

/* ---- Public setters and getters of the unstructured parts --------------------- */
namespace {

/* What one exported part accessor does, so each export is one line. */
struct PartAccess {
    int part;
    vel::HandleFormat badHandle;
    bool closesAttachment;
};

velClient_returnCode_t setPartPtr(const PartAccess &a, velClient_opaqueMsg_pt msg_p, void *buf_p,
                                  velClient_uint32_t size)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, a.badHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (a.closesAttachment)
        closeAttachmentContainer(msg);
    const velClient_returnCode_t rc = _velClient_msg_setBufinfoPtr(msg, a.part, buf_p, size);
    assert(vel::msg::isSound(msg));
    return rc;
}

velClient_returnCode_t setPartCopy(const PartAccess &a, velClient_opaqueMsg_pt msg_p, const void *buf_p,
                                   velClient_uint32_t size)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, a.badHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (a.closesAttachment)
        closeAttachmentContainer(msg);
    const velClient_returnCode_t rc = vel::msg::copyIntoOwnPart(msg, a.part, buf_p, size);
    assert(vel::msg::isSound(msg));
    return rc;
}

velClient_returnCode_t getPart(const PartAccess &a, velClient_opaqueMsg_pt msg_p, void **bufPtr_p,
                               velClient_uint32_t *size_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, a.badHandle);
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    return _velClient_msg_getBufinfoPtr(msg, a.part, bufPtr_p, size_p);
}

} // namespace

#define VEL_PART_SETTER(name, kind, bufType, part, text, closes)                                                   \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_##name(velClient_opaqueMsg_pt msg_p,           \
                                                                        bufType buf_p, velClient_uint32_t size) \
    {                                                                                                               \
        static constexpr PartAccess access{part, text, closes};                                                     \
        return kind(access, msg_p, buf_p, size);                                                                    \
    }

#define VEL_PART_GETTER(name, part)                                                                                 \
    extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_##name(                                         \
        velClient_opaqueMsg_pt msg_p, velClient_opaquePointer_pt bufPtr_p, velClient_uint32_t *size_p)            \
    {                                                                                                               \
        static constexpr PartAccess access{part, "Bad msg_p pointer (%p) in velClient_msg_" #name, false};         \
        return getPart(access, msg_p, bufPtr_p, size_p);                                                            \
    }

VEL_PART_SETTER(setBinaryAttachmentPtr, setPartPtr, void *, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART,
                "Bad msg_p pointer (%p) in velClient_msg_setBinaryAttachmentPtr", true)
VEL_PART_SETTER(setBinaryAttachment, setPartCopy, const void *, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART,
                "Bad msg_p pointer in velClient_msg_setBinaryAttachment", true)
VEL_PART_SETTER(setUserDataPtr, setPartPtr, void *, VELCLIENT_BUFINFO_USER_DATA_PART,
                "Bad msg_p pointer in velClient_msg_setUserDataPtr", false)
VEL_PART_SETTER(setXmlPtr, setPartPtr, void *, VELCLIENT_BUFINFO_XML_PART,
                "Bad msg_p pointer in velClient_msg_setXmlPtr", false)
VEL_PART_SETTER(setCorrelationTagPtr, setPartPtr, void *, VELCLIENT_BUFINFO_CORRELATION_TAG_PART,
                "Bad msg_p pointer in velClient_msg_setCorrelationTagPtr", false)
VEL_PART_SETTER(setUserData, setPartCopy, const void *, VELCLIENT_BUFINFO_USER_DATA_PART,
                "Bad msg_p pointer (%p) in velClient_msg_setUserData", false)
VEL_PART_SETTER(setXml, setPartCopy, const void *, VELCLIENT_BUFINFO_XML_PART,
                "Bad msg_p pointer (%p) in velClient_msg_setXml", false)
VEL_PART_SETTER(setCorrelationTag, setPartCopy, const void *, VELCLIENT_BUFINFO_CORRELATION_TAG_PART,
                "Bad msg_p pointer (%p) in velClient_msg_setCorrelationTag", false)

VEL_PART_GETTER(getBinaryAttachmentPtr, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART)
VEL_PART_GETTER(getUserDataPtr, VELCLIENT_BUFINFO_USER_DATA_PART)
VEL_PART_GETTER(getXmlPtr, VELCLIENT_BUFINFO_XML_PART)
VEL_PART_GETTER(getCorrelationTagPtr, VELCLIENT_BUFINFO_CORRELATION_TAG_PART)

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getVWFPtr(velClient_opaqueMsg_pt msg_p,
                                                                       velClient_uint8_t **bufPtr_p,
                                                                       velClient_uint32_t *size_p)
{
    static constexpr PartAccess access{_VELCLIENT_BUFINFO_VWF_PART, "Bad msg_p pointer (%p) in velClient_msg_getVWFPtr",
                                       false};
    return getPart(access, msg_p, reinterpret_cast<void **>(bufPtr_p), size_p);
}

/* ---- Topic and queue name ------------------------------------------------------ */

namespace {

/* The destination name by reference in its part, the other kind's part cleared. */
velClient_returnCode_t setName(_velClient_msg *msg, int part, int otherPart, const char *name, std::size_t length)
{
    _velClient_msg_setBufinfoPtr(msg, part, const_cast<char *>(name), static_cast<std::uint32_t>(length));
    _velClient_msg_setBufinfoPtr(msg, otherPart, nullptr, 0);
    assert(vel::msg::isSound(msg));
    return VELCLIENT_OK;
}

} // namespace

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setTopicPtr(velClient_opaqueMsg_pt msg_p,
                                                                        const char *topic_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer in velClient_msg_setTopicPtr");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (topic_p == nullptr)
        return _velClient_msg_setBufinfoPtr(msg, VELCLIENT_BUFINFO_TOPIC_PART, nullptr, 0);
    std::size_t length = std::strlen(topic_p);
    if (length > kMaxTopic)
        return VEL_FAIL_RANGE("Topic length of %d exceeds maximum of %d in velClient_msg_setTopicPtr",
                              static_cast<int>(length), static_cast<int>(kMaxTopic));
    _velClient_msg_setBufinfoPtr(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, nullptr, 0);
    return setName(msg, VELCLIENT_BUFINFO_TOPIC_PART, VELCLIENT_BUFINFO_QUEUENAME_PART, topic_p, length);
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setQueueNamePtr(velClient_opaqueMsg_pt msg_p,
                                                                             const char *queueName_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer in velClient_msg_setTopicPtr");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    if (queueName_p == nullptr) {
        _velClient_msg_setBufinfoPtr(msg, VELCLIENT_BUFINFO_QUEUENAME_PART, nullptr, 0);
        _velClient_msg_setBufinfoPtr(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, nullptr, 0);
        setTemporary(msg, false);
        return VELCLIENT_OK;
    }
    const char *name = queueName_p;
    std::size_t limit = kMaxQueue;
    bool temporary = startsWith(queueName_p, kTempQueuePrefix);
    if (temporary) {
        limit = kMaxTopic;
    } else if (!startsWith(queueName_p, kQueuePrefix)) {
        _velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, kQueuePrefix, kQueuePrefixLength, 0);
    } else {
        name = queueNameAfterPrefix(queueName_p);
        if (name == nullptr)
            return VEL_FAIL_RANGE("Invalid string pointer (%s) in velClient_msg_setQueueNamePtr", queueName_p);
        _velClient_msg_setBufinfo(msg, _VELCLIENT_BUFINFO_DEST_PREFIX_PART, queueName_p,
                                  static_cast<std::uint32_t>(name - queueName_p), 0);
    }
    std::size_t length = std::strlen(name);
    if (length > limit)
        return VEL_FAIL_RANGE("Queue name length of %d exceeds maximum of %d in velClient_msg_setQueueNamePtr",
                              static_cast<int>(length), static_cast<int>(limit));
    setTemporary(msg, temporary);
    return setName(msg, VELCLIENT_BUFINFO_QUEUENAME_PART, VELCLIENT_BUFINFO_TOPIC_PART, name, length);
}

/* ---- Binary attachment as a string element ------------------------------------- */

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                                      const char *buf_p)
{
    _velClient_msg *msg = vel::msgOrFail(msg_p, "Bad msg_p pointer (%p) in velClient_msg_setBinaryAttachmentString");
    if (msg == nullptr)
        return VELCLIENT_FAIL;
    closeAttachmentContainer(msg);
    constexpr std::int32_t kHeader = 5;
    if (buf_p == nullptr)
        return _velClient_msg_setBufinfo(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, nullptr, 0, kHeader);
    std::size_t n = std::strlen(buf_p);
    if (n > UINT32_MAX - 6)
        return VEL_FAIL_RANGE("Bad msg_p pointer in velClient_msg_setBufinfo");
    if (_velClient_msg_setBufinfo(msg, VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART, buf_p,
                                  static_cast<std::uint32_t>(n + 1), kHeader) != VELCLIENT_OK)
        return VELCLIENT_FAIL;
    auto *p = static_cast<std::uint8_t *>(msg->bufInfo_a[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART].buf_p);
    p[0] = vel::tlv::kTypeString + 3;
    vel::tlv::putBE(p + 1, n + 6, 4);
    msg->binAttachmentType = 7;
    return VELCLIENT_OK;
}

extern "C" VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                                      const char **bufPtr_p)
{
    return vel::readThrough(msg_p, bufPtr_p, vel::msg::attachmentString,
                            "Bad msg_p pointer (%p) in velClient_msg_getBinaryAttachmentString",
                            "Null buf pointer in velClient_msg_getBinaryAttachmentString");
}

velClient_returnCode_t vel::msg::attachmentString(_velClient_msg *msg, const char **bufPtr_p)
{
    const velClient_bufInfo_t &part = msg->bufInfo_a[VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART];
    const auto *p = static_cast<const std::uint8_t *>(part.buf_p);
    if (p == nullptr || part.bufSize == 0 || (p[0] & 0xFC) != vel::tlv::kTypeString)
        return VELCLIENT_NOT_FOUND;
    unsigned width = (p[0] & 0x03) + 1u;
    if (part.bufSize < 1 + width)
        return VELCLIENT_NOT_FOUND;
    std::uint64_t length = vel::tlv::getBE(p + 1, width);
    if (length != part.bufSize || length < 1 + width)
        return VELCLIENT_NOT_FOUND;
    const char *text = reinterpret_cast<const char *>(p + 1 + width);
    std::size_t textBytes = static_cast<std::size_t>(length) - 1 - width;
    bool wellFormed = vel::tlv::isCString(text, textBytes);
    *bufPtr_p = wellFormed ? text : nullptr;
    return VELCLIENT_OK;
}
