/*
 * containerCheck.cpp - the invariants of a message and of a tree of open
 * containers, checked as a whole: called only from assert, after every step
 * that moves bytes (growth, close, delete, opening a sub-container, setting a
 * part), so that a position left stale by a move shows where it happens, not
 * where it is used.
 */
#include "velClientMsg/container/tlvCodec.h"
#include "velClientMsg/velClientMsgPrivate.h"

namespace {

bool positionsInOrder(const _velClient_container *k)
{
    if (k->firstFieldPtr != k->startPtr + vel::tlv::kContainerHeaderSize)
        return false;
    if (k->curWrPtr < k->firstFieldPtr || k->maxWrPtr < k->curWrPtr)
        return false;
    /* The reading position has no upper bound: a value that runs past the
     * end adds its length to the cursor, and growth at the cursor moves it. */
    return k->curRdPtr == nullptr || k->curRdPtr >= k->firstFieldPtr;
}

/* A child lies inside its parent's written bytes, at the offset it records,
 * and an open one declares its whole reserved extent. */
bool childFits(const _velClient_container *parent, const _velClient_container *child)
{
    if (child->parent_p != parent || child->msg_b != parent->msg_b)
        return false;
    if (child->startPtr < parent->firstFieldPtr || child->maxWrPtr > parent->curWrPtr)
        return false;
    if (child->offset != static_cast<std::uint64_t>(child->startPtr - parent->startPtr))
        return false;
    return vel::tlv::getBE(child->startPtr + 1, 4) == static_cast<std::uint64_t>(child->maxWrPtr - child->startPtr);
}

bool apart(const _velClient_container *a, const _velClient_container *b)
{
    return a->maxWrPtr <= b->startPtr || b->maxWrPtr <= a->startPtr;
}

bool subtreeIsSound(const _velClient_container *k, int depth)
{
    if (depth > 1000 || k->onFreeList || !positionsInOrder(k))
        return false;
    for (const _velClient_container *child = k->child_p; child != nullptr; child = child->sib_p) {
        if (!childFits(k, child) || !subtreeIsSound(child, depth + 1))
            return false;
        for (const _velClient_container *other = child->sib_p; other != nullptr; other = other->sib_p)
            if (!apart(child, other))
                return false;
    }
    return true;
}

/* The outermost container of a message lies inside its part's bytes. */
bool rootInPart(const _velClient_container *root)
{
    if (root->msg_b == nullptr)
        return true;
    const _velClient_msg *msg = root->msg_b;
    const auto *part = static_cast<const std::uint8_t *>(msg->bufInfo_a[root->bufInfoIndex].buf_p);
    if (part == nullptr || root->startPtr - root->offset != part)
        return false;
    const _velClient_datab *block = msg->bufDatab_p[root->bufInfoIndex];
    return block == nullptr ||
           (part >= block->dbData_p && root->maxWrPtr <= block->dbData_p + block->dbSize);
}

/* Every part held in a data block lies inside that block, which someone holds. */
bool partsInBlocks(const _velClient_msg *msg)
{
    for (int i = 0; i < _VELCLIENT_BUFINFO_NUM_PARTS; ++i) {
        const _velClient_datab *block = msg->bufDatab_p[i];
        if (block == nullptr)
            continue;
        const auto *bytes = static_cast<const std::uint8_t *>(msg->bufInfo_a[i].buf_p);
        const std::uint8_t *end = block->dbData_p + block->dbSize;
        if (__atomic_load_n(&block->dbRefCount, __ATOMIC_ACQUIRE) < 1)
            return false;
        if (bytes != nullptr && (bytes < block->dbData_p || bytes > end || msg->bufInfo_a[i].bufSize > end - bytes))
            return false;
    }
    return true;
}

const _velClient_container *rootOf(const _velClient_container *c)
{
    int depth = 0;
    while (c->parent_p != nullptr && ++depth <= 1000)
        c = c->parent_p;
    return c->parent_p == nullptr ? c : nullptr;
}

bool rootTreeIsSound(const _velClient_container *root)
{
    return root != nullptr && rootInPart(root) && subtreeIsSound(root, 0);
}

} // namespace

bool _velClient_container_treeIsSound(const _velClient_container *c)
{
    if (c == nullptr)
        return true;
    const _velClient_container *root = rootOf(c);
    return rootTreeIsSound(root) && (root->msg_b == nullptr || partsInBlocks(root->msg_b));
}

bool vel::msg::isSound(const _velClient_msg *msg)
{
    if (msg == nullptr || !partsInBlocks(msg))
        return false;
    for (const _velClient_container *c : {msg->userPropertyMap_p, msg->hdrMap_p, msg->binaryAttachContainer_p})
        if (c != nullptr && !rootTreeIsSound(rootOf(c)))
            return false;
    return true;
}
