/*
 * velClientMsg.h - the public API of the message module: data blocks, the
 * message pool, buffer parts, structured data (maps and streams) and their
 * typed getters. An application needs only this include.
 *
 * Conventions of the calls below. The result is VELCLIENT_OK or VELCLIENT_FAIL
 * unless a comment names another: VELCLIENT_NOT_FOUND (something absent) and
 * VELCLIENT_EOS (the end of a container) are quiet outcomes, not logged. On
 * VELCLIENT_FAIL the sub-code and text are in the calling thread's
 * velClient_getLastErrorInfo(); sub-codes are named without their
 * VELCLIENT_SUBCODE_ prefix. A handle that does not resolve (freed, of another
 * kind, or 0) and a NULL pointer argument give PARAM_NULL_PTR; a value out of
 * range and a structure size (fieldSize, destSize) other than sizeof that
 * structure give PARAM_OUT_OF_RANGE. Setters whose names end in Ptr refer to
 * the caller's memory; the others copy. Pointers handed out point into the
 * message or container and stay valid until that part or container changes,
 * or the message is reset or freed. docs/guide.md is the overview.
 *
 * Plain C99; usable from C and C++.
 */
#ifndef VELCLIENT_MSG_H
#define VELCLIENT_MSG_H

#include "velClient.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Named constants ------------------------------------------------------ */
#define VELCLIENT_DELIVERY_MODE_DIRECT 0x00
#define VELCLIENT_DELIVERY_MODE_PERSISTENT 0x10
#define VELCLIENT_DELIVERY_MODE_NONPERSISTENT 0x20
#define VELCLIENT_COS_1 0
#define VELCLIENT_COS_2 1
#define VELCLIENT_COS_3 2
#define VELCLIENT_MSGDUMP_BRIEF 0
#define VELCLIENT_MSGDUMP_FULL 1

/* ---- Buffer parts ----------------------------------------------------------- */
typedef struct velClient_bufInfo {
    void *buf_p;
    velClient_uint32_t bufSize;
} velClient_bufInfo_t, *velClient_bufInfo_pt;

typedef enum velClient_bufInfo_index {
    VELCLIENT_BUFINFO_BINARY_ATTACHMENT_PART = 0,
    VELCLIENT_BUFINFO_TOPIC_PART = 1,
    VELCLIENT_BUFINFO_CONSUMER_ID_PART = 2,
    VELCLIENT_BUFINFO_USER_DATA_PART = 3,
    VELCLIENT_BUFINFO_XML_PART = 4,
    VELCLIENT_BUFINFO_CORRELATION_TAG_PART = 5,
    VELCLIENT_BUFINFO_QUEUENAME_PART = 6,
    VELCLIENT_BUFINFO_USER_PROPERTY_PART = 7,
    VELCLIENT_BUFINFO_MAX_PARTS = 8
} velClient_bufInfo_index_t;

/* ---- Destinations ------------------------------------------------------------ */
typedef enum velClient_destinationType {
    VELCLIENT_NULL_DESTINATION = -1,
    VELCLIENT_TOPIC_DESTINATION = 0,
    VELCLIENT_QUEUE_DESTINATION = 1,
    VELCLIENT_TOPIC_TEMP_DESTINATION = 2,
    VELCLIENT_QUEUE_TEMP_DESTINATION = 3
} velClient_destinationType_t;

typedef struct velClient_destination {
    velClient_destinationType_t destType;
    const char *dest;
} velClient_destination_t, *velClient_destination_pt;

/* ---- Structured-data fields ------------------------------------------------- */
typedef enum velClient_fieldType {
    VELCLIENT_BOOL = 0,
    VELCLIENT_UINT8 = 1,
    VELCLIENT_INT8 = 2,
    VELCLIENT_UINT16 = 3,
    VELCLIENT_INT16 = 4,
    VELCLIENT_UINT32 = 5,
    VELCLIENT_INT32 = 6,
    VELCLIENT_UINT64 = 7,
    VELCLIENT_INT64 = 8,
    VELCLIENT_WCHAR = 9,
    VELCLIENT_STRING = 10,
    VELCLIENT_BYTEARRAY = 11,
    VELCLIENT_FLOAT = 12,
    VELCLIENT_DOUBLE = 13,
    VELCLIENT_MAP = 14,
    VELCLIENT_STREAM = 15,
    VELCLIENT_NULL = 16,
    VELCLIENT_DESTINATION = 17,
    VELCLIENT_VWF = 18,
    VELCLIENT_UNKNOWN = -1
} velClient_fieldType_t;

typedef struct velClient_field {
    velClient_fieldType_t type;
    velClient_uint32_t length;
    union {
        velClient_bool_t boolean;
        velClient_uint8_t uint8;
        velClient_int8_t int8;
        velClient_uint16_t uint16;
        velClient_int16_t int16;
        velClient_uint32_t uint32;
        velClient_int32_t int32;
        velClient_uint64_t uint64;
        velClient_int64_t int64;
        velClient_wchar_t wchar;
        float float32;
        double float64;
        const char *string;
        velClient_uint8_t *bytearray;
        velClient_opaqueContainer_pt map;
        velClient_opaqueContainer_pt stream;
        velClient_destination_t dest;
        velClient_uint8_t *vwf;
        velClient_uint8_t *unknownField;
    } value;
} velClient_field_t, *velClient_field_pt;

/* ---- Pool statistics --------------------------------------------------------- */
typedef enum velClient_msg_stats {
    VELCLIENT_MSG_STATS_TOTAL_MEMORY = 0,
    VELCLIENT_MSG_STATS_ALLOC_MEMORY = 1,
    VELCLIENT_MSG_STATS_MSG_ALLOCS = 2,
    VELCLIENT_MSG_STATS_MSG_FREES = 3,
    VELCLIENT_MSG_STATS_MSG_DUPS = 4,
    VELCLIENT_MSG_STATS_MSG_REALLOCS = 5,
    VELCLIENT_MSG_STATS_FREE_MSGS = 6,
    VELCLIENT_MSG_STATS_ALLOC_MSGS = 7,
    VELCLIENT_MSG_STATS_FREE_CONTAINERS = 8,
    VELCLIENT_MSG_STATS_ALLOC_CONTAINERS = 9,
    VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS = 10,
    VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS = 11
} velClient_msg_stats_t;

/* The older all-64-bit statistics layout filled by velClient_msg_getMsgPoolStats. */
typedef struct _velClient_R43_msgPoolStats {
    velClient_uint64_t totMemory;
    velClient_uint64_t msgAllocs;
    velClient_uint64_t msgFrees;
    velClient_uint64_t msgDups;
    velClient_uint64_t msgReallocs;
    velClient_uint64_t numFreeMsg;
    velClient_uint64_t numAllocMsg;
    velClient_uint64_t numContainers;
    velClient_uint64_t numFreeDataB[5];
    velClient_uint64_t numAllocDataB[6];
} _velClient_R43_msgPoolStats_t, *_velClient_R43_msgPoolStats_pt;

typedef enum velClient_cacheStatus {
    VELCLIENT_CACHE_INVALID_MESSAGE = -1,
    VELCLIENT_CACHE_LIVE_MESSAGE = 0,
    VELCLIENT_CACHE_MESSAGE = 1,
    VELCLIENT_CACHE_SUSPECT_MESSAGE = 2
} velClient_cacheStatus_t;

/* ======================================================================= */
/* Data blocks                                                              */
/* ======================================================================= */

/* Allocates a reference-counted data block of capacity at least size bytes, count 1: from the free list of
 * the smallest size class that holds size, or exactly size bytes when it exceeds every class. *datab_p :=
 * the block (NULL on failure). NULL datab_p: PARAM_NULL_PTR; no memory: OUT_OF_MEMORY. Share it with
 * velClient_datablock_dup; drop each reference with velClient_datablock_free. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_alloc(velClient_opaqueDatablock_pt *datab_p,
                                                               velClient_uint32_t size);

/* Drops one reference and sets *datab_p to NULL; the last reference puts the block back on its class's free
 * list, or returns it to the system when the pool is at its limit (an oversize block always). NULL datab_p
 * or a *datab_p that is not a data block: PARAM_NULL_PTR; a block whose count is already 0:
 * PARAM_OUT_OF_RANGE. On failure *datab_p is left as it was. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_free(velClient_opaqueDatablock_pt *datab_p);

/* Adds one reference to the block (an atomic increment, safe from any thread); each reference is dropped by
 * its own velClient_datablock_free. A value that is not a data block fails with PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_dup(velClient_opaqueDatablock_pt datab);

/* *bufPtr_p := the block's data area, *size_p := its capacity (which may exceed the length of any content
 * in it). A value that is not a data block, or a NULL output, fails with PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_getDataPtr(velClient_opaqueDatablock_pt datab,
                                                                    velClient_opaquePointer_pt bufPtr_p,
                                                                    velClient_uint32_t *size_p);

/* Takes the block behind part bufIndex (0 to 11) out of the message: *datab_p := the block, *bufInfo_p :=
 * the part's pointer and length, and the part is emptied; the message's reference becomes the caller's
 * (drop it with velClient_datablock_free). VELCLIENT_NOT_FOUND, outputs NULL and 0, when the part has no
 * block (empty, or the caller's memory). An index above 11: PARAM_OUT_OF_RANGE; NULL outputs:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_extractDatablock(velClient_opaqueMsg_pt msg_p,
                                                                    velClient_bufInfo_index_t bufIndex,
                                                                    velClient_opaqueDatablock_pt *datab_p,
                                                                    velClient_bufInfo_pt bufInfo_p);

/* ======================================================================= */
/* Message life cycle and pool                                              */
/* ======================================================================= */

/* Allocates an empty message (recycled from the pool when one is free) and returns its handle in *msg_p
 * (NULL on failure); release it with velClient_msg_free. NULL msg_p: PARAM_NULL_PTR; no memory or no free
 * handle: OUT_OF_MEMORY. */
VELCLIENT_API velClient_returnCode_t velClient_msg_alloc(velClient_opaqueMsg_pt *msg_p);

/* Frees the message and sets *msg_p to NULL: closes its open containers (their handles become invalid),
 * drops its data-block references (blocks shared with a duplicate live on) and returns the record to the
 * pool. NULL msg_p, or a handle that does not resolve (one already freed, say): PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_free(velClient_opaqueMsg_pt *msg_p);

/* Returns the message to its freshly allocated state and keeps its handle: open containers closed, every
 * part emptied, header properties and flags cleared; only the topic sequence number is kept. A handle that
 * does not resolve: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_reset(velClient_opaqueMsg_pt msg_p);

/* *newMsg_p := a new message that shares the source's data blocks instead of copying them (parts set by
 * reference point at the same application memory in both). The structured parts become copy-on-modify in
 * both, so a change to one message never shows in the other; the source's open containers stay open. Bad
 * handle, NULL newMsg_p: PARAM_NULL_PTR; no memory or handle: OUT_OF_MEMORY, *newMsg_p NULL. */
VELCLIENT_API velClient_returnCode_t velClient_msg_dup(velClient_opaqueMsg_pt msg_p,
                                                       velClient_opaqueMsg_pt *newMsg_p);

/* Sets the pool memory limit: the bytes the pool may hold from the system, live and pooled records
 * together. A released record is kept for reuse only while the pool holds less; lowering the limit frees
 * pooled records (largest data blocks first) until the pool is within it. Live records are never touched,
 * so the pool may stay above. Always VELCLIENT_OK. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setMaxPoolMem(velClient_uint64_t maxPoolMem);

/* *statValue_p := the pool counter msgStatType. statIndex is 0, except for data blocks: a size class 0 to 4
 * for VELCLIENT_MSG_STATS_FREE_DATA_BLOCKS, 0 to 5 (5: larger than every class) for
 * VELCLIENT_MSG_STATS_ALLOC_DATA_BLOCKS. NULL statValue_p: PARAM_NULL_PTR; an unknown type or an index out
 * of range: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getStat(velClient_msg_stats_t msgStatType,
                                                           velClient_uint32_t statIndex,
                                                           velClient_uint64_t *statValue_p);

/* Copies the pool counters into one static record of the older all-64-bit layout and returns its address
 * (never NULL). The record is shared by all callers and overwritten by each call; numAllocDataB[5] is never
 * written. velClient_msg_getStat reads every counter and is the call to prefer. */
VELCLIENT_API _velClient_R43_msgPoolStats_pt velClient_msg_getMsgPoolStats(void);

/* ======================================================================= */
/* Buffer parts                                                             */
/* ======================================================================= */

/* Binary attachment (part 0) := a reference to size bytes at buf_p, which the caller keeps alive and
 * unchanged while the message uses them (NULL and 0 empty the part). An open attachment container is closed
 * first (its handles become invalid). A handle that does not resolve: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentPtr(velClient_opaqueMsg_pt msg_p,
                                                                          void *buf_p,
                                                                          velClient_uint32_t size);

/* Binary attachment := a copy of size bytes from buf_p in a data block of the message (the part's own block
 * is reused when unshared and large enough); NULL with size 0 empties the part. Closes an open attachment
 * container first. Bad handle, or NULL buf_p with a non-zero size: PARAM_NULL_PTR; no memory:
 * OUT_OF_MEMORY, the part left empty. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachment(velClient_opaqueMsg_pt msg_p,
                                                                       const void *buf_p,
                                                                       velClient_uint32_t size);

/* Binary attachment := a copy of the NUL-terminated text buf_p as one structured-data string element (type
 * byte 0x1F, 4-byte length, text, NUL), read back with velClient_msg_getBinaryAttachmentString; NULL
 * empties the part. Closes an open attachment container first. Bad handle: PARAM_NULL_PTR; no memory:
 * OUT_OF_MEMORY. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                             const char *buf_p);

/* User data (part 3), XML (part 4) and correlation tag (part 5). The Ptr setters make the part a reference
 * to size bytes at buf_p, which the caller keeps alive while the message uses them; the other setters copy
 * the bytes into a data block of the message. NULL with size 0 empties the part. Bad handle:
 * PARAM_NULL_PTR; a copying setter given NULL with a non-zero size: PARAM_NULL_PTR, and without memory:
 * OUT_OF_MEMORY. */
/* User data := a reference to the caller's bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserDataPtr(velClient_opaqueMsg_pt msg_p, void *buf_p,
                                                                  velClient_uint32_t size);
/* XML := a reference to the caller's bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setXmlPtr(velClient_opaqueMsg_pt msg_p, void *buf_p,
                                                             velClient_uint32_t size);
/* Correlation tag := a reference to the caller's bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationTagPtr(velClient_opaqueMsg_pt msg_p,
                                                                        void *buf_p,
                                                                        velClient_uint32_t size);
/* User data := a copy of the bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserData(velClient_opaqueMsg_pt msg_p, const void *buf_p,
                                                               velClient_uint32_t size);
/* XML := a copy of the bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setXml(velClient_opaqueMsg_pt msg_p, const void *buf_p,
                                                          velClient_uint32_t size);
/* Correlation tag := a copy of the bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationTag(velClient_opaqueMsg_pt msg_p,
                                                                     const void *buf_p,
                                                                     velClient_uint32_t size);

/* Topic (part 1) := a reference to the NUL-terminated topic_p (at most 250 characters, kept alive by the
 * caller); the queue name and its prefix are emptied. NULL empties the topic only. A longer text:
 * PARAM_OUT_OF_RANGE, nothing changed; bad handle: PARAM_NULL_PTR. velClient_msg_setDestination is the
 * copying form. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setTopicPtr(velClient_opaqueMsg_pt msg_p,
                                                               const char *topic_p);

/* Queue name (part 6) := a reference into queueName_p; the topic is emptied. A name starting "#P2P/QTMP/"
 * is a temporary queue kept whole (at most 250 characters); one starting "#P2P/QUE/" needs a network part
 * ending in '/' and a name after it, the prefix kept apart; any other name gets the prefix "#P2P/QUE/". The
 * name proper is at most 200 characters. NULL empties queue name and prefix. A bad text or length:
 * PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setQueueNamePtr(velClient_opaqueMsg_pt msg_p,
                                                                   const char *queueName_p);

/* Binary attachment, user data, XML, correlation tag: *bufPtr_p and *size_p := the part's bytes and length,
 * pointing into the message (or at the caller's memory for a part set by reference). VELCLIENT_NOT_FOUND,
 * outputs untouched, when the part is empty. Bad handle, NULL outputs: PARAM_NULL_PTR. A structured
 * attachment gives its encoding as of its last finalisation (close its container first). */
/* The binary attachment (part 0). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentPtr(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_opaquePointer_pt bufPtr_p,
                                                                          velClient_uint32_t *size_p);
/* The user data (part 3). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getUserDataPtr(velClient_opaqueMsg_pt msg_p,
                                                                  velClient_opaquePointer_pt bufPtr_p,
                                                                  velClient_uint32_t *size_p);
/* The XML content (part 4). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getXmlPtr(velClient_opaqueMsg_pt msg_p,
                                                             velClient_opaquePointer_pt bufPtr_p,
                                                             velClient_uint32_t *size_p);
/* The correlation tag (part 5). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getCorrelationTagPtr(velClient_opaqueMsg_pt msg_p,
                                                                        velClient_opaquePointer_pt bufPtr_p,
                                                                        velClient_uint32_t *size_p);

/* *bufPtr_p and *size_p := the wire image cached by the last velClient_msg_encodeToVWF, pointing into the
 * message; it shows the message as it was then. VELCLIENT_NOT_FOUND until the message is first encoded (a
 * received one too). Bad handle, NULL outputs: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getVWFPtr(velClient_opaqueMsg_pt msg_p,
                                                             velClient_uint8_t **bufPtr_p,
                                                             velClient_uint32_t *size_p);

/* *field_p := the binary attachment as a field of type VELCLIENT_MAP or VELCLIENT_STREAM whose value holds
 * an open container handle (the message's attachment container, one more reference: close it).
 * VELCLIENT_NOT_FOUND when the attachment holds no map or stream (sub-code NO_STRUCTURED_DATA). fieldSize
 * other than sizeof(velClient_field_t): PARAM_OUT_OF_RANGE; bad handle, NULL field_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentField(velClient_opaqueMsg_pt msg_p,
                                                                            velClient_field_t *field_p,
                                                                            size_t fieldSize);

/* *bufPtr_p := the text of an attachment set by velClient_msg_setBinaryAttachmentString (or received so),
 * pointing into the message. VELCLIENT_NOT_FOUND when the attachment is not one string element;
 * VELCLIENT_OK with NULL when that element holds no proper NUL-terminated text. Bad handle, NULL bufPtr_p:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                             const char **bufPtr_p);

/* *consumerIdCount_p := the number of consumer ids that a received message carries (0 when none). Bad
 * handle, NULL output: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerIdCount(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_uint32_t *consumerIdCount_p);

/* *consumerId_p := the consumer id at consumerIdIndex (0 to count - 1), in host byte order. An index at or
 * past the count: PARAM_OUT_OF_RANGE; bad handle, NULL output: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerId(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_uint32_t consumerIdIndex,
                                                                 velClient_consumerId_t *consumerId_p);

/* Consumer ids of a 12-entry part array: part 2 holds 32-bit ids in network byte order, so the count is its
 * length / 4; no other entry is read. NULL arguments: PARAM_NULL_PTR; an index at or past the count:
 * PARAM_OUT_OF_RANGE. */
/* *count_p := the number of ids. */
VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerIdCount(velClient_bufInfo_pt bufInfo_a,
                                                                          velClient_uint32_t *count_p);
/* *id_p := the id at index, in host byte order. */
VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerId(velClient_bufInfo_pt bufInfo_a,
                                                                     velClient_uint32_t index,
                                                                     velClient_consumerId_t *id_p);

/* ======================================================================= */
/* Containers: create, open, close                                          */
/* ======================================================================= */

/* Creates an empty map (stream) in the caller's memory: size bytes at mem_p (at least 5, the container
 * header), beyond which it never grows (a full container refuses adds with INSUFFICIENT_SPACE). The handle
 * goes to *map_p (NULL on failure). velClient_container_getContainerPtr writes the final length before the
 * bytes are used; close the handle afterwards. NULL map_p or mem_p: PARAM_NULL_PTR; size below 5:
 * PARAM_OUT_OF_RANGE. */
/* An empty map. */
VELCLIENT_API velClient_returnCode_t velClient_container_createMap(velClient_opaqueContainer_pt *map_p,
                                                                   char *mem_p, size_t size);
/* An empty stream. */
VELCLIENT_API velClient_returnCode_t velClient_container_createStream(velClient_opaqueContainer_pt *stream_p,
                                                                      char *mem_p, size_t size);

/* Opens the encoded map or stream of size bytes at buf_p (the whole encoding, as
 * velClient_container_getContainerPtr gives it) for reading; both calls accept either kind, which the
 * container takes from the bytes. The bytes stay the caller's and must outlive the container, which is
 * full: adds fail, deletes work in place. Change the bytes only through the container while it is open
 * (a map remembers where the entries it has checked begin); reopen it after changing them otherwise.
 * VELCLIENT_NOT_FOUND when buf_p holds no map or stream (sub-code
 * NO_STRUCTURED_DATA) or its length is not size. NULL arguments: PARAM_NULL_PTR. */
/* The container's handle goes to *map_p. */
VELCLIENT_API velClient_returnCode_t velClient_container_openMapFromPtr(velClient_opaqueContainer_pt *map_p,
                                                                        void *buf_p, velClient_uint32_t size);
/* The container's handle goes to *stream_p. */
VELCLIENT_API velClient_returnCode_t velClient_container_openStreamFromPtr(velClient_opaqueContainer_pt *stream_p,
                                                                           void *buf_p,
                                                                           velClient_uint32_t size);

/* Opens a new nested map (stream) at the end of container_p, in a map under name (non-empty), in a stream
 * with name NULL, and returns its handle in *subContainer_p. It writes in place into its parent and holds
 * the parent's free room until it is closed: close it before adding to the parent again. Bad handle, NULL
 * subContainer_p, no name in a map: PARAM_NULL_PTR; a name in a stream: PARAM_OUT_OF_RANGE; no room:
 * INSUFFICIENT_SPACE. */
/* A nested map. */
VELCLIENT_API velClient_returnCode_t velClient_container_openSubMap(velClient_opaqueContainer_pt container_p,
                                                                    velClient_opaqueContainer_pt *subContainer_p,
                                                                    const char *name);
/* A nested stream. */
VELCLIENT_API velClient_returnCode_t velClient_container_openSubStream(velClient_opaqueContainer_pt container_p,
                                                                       velClient_opaqueContainer_pt *subContainer_p,
                                                                       const char *name);

/* Drops the caller's reference and sets *opaqueCont_p to NULL. The last reference closes the container: its
 * open children first, then its final length is written (a nested one hands its unused room back to its
 * parent, an outermost one in a message finalises the part) and the handle becomes invalid. Close each
 * handle you obtain once. NULL opaqueCont_p, a handle that does not resolve: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_closeMapStream(velClient_opaqueContainer_pt *opaqueCont_p);

/* Moves the read cursor back before the first field, so that the next read returns it; the bytes do not
 * change. A handle that does not resolve: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_rewind(velClient_opaqueContainer_pt opaqueCont_p);

/* ======================================================================= */
/* Containers: adding and deleting fields                                   */
/* ======================================================================= */

/* Each add appends one field at the end of a map or stream: in a map under name (non-empty; a name already
 * there is not replaced, a second entry is appended), in a stream with name NULL. A container in a message
 * grows as needed; one in the caller's memory fails with INSUFFICIENT_SPACE when full. A failed add changes
 * nothing. Bad handle, no name in a map: PARAM_NULL_PTR; a name in a stream, even "": PARAM_OUT_OF_RANGE. */
/* A null field: a name with no value. */
VELCLIENT_API velClient_returnCode_t velClient_container_addNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 const char *name);
/* A boolean; any non-zero value is stored as 1. */
VELCLIENT_API velClient_returnCode_t velClient_container_addBoolean(velClient_opaqueContainer_pt opaqueCont_p,
                                                                    velClient_bool_t value, const char *name);
/* An unsigned 8-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addUint8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_uint8_t value, const char *name);
/* A signed 8-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addInt8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 velClient_int8_t value, const char *name);
/* An unsigned 16-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addUint16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint16_t value, const char *name);
/* A signed 16-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addInt16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int16_t value, const char *name);
/* An unsigned 32-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addUint32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint32_t value, const char *name);
/* A signed 32-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addInt32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int32_t value, const char *name);
/* An unsigned 64-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addUint64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint64_t value, const char *name);
/* A signed 64-bit integer. */
VELCLIENT_API velClient_returnCode_t velClient_container_addInt64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int64_t value, const char *name);
/* A character from an ASCII char (0 to 127, else PARAM_OUT_OF_RANGE); it reads back as VELCLIENT_WCHAR. */
VELCLIENT_API velClient_returnCode_t velClient_container_addChar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 char value, const char *name);
/* A 16-bit character: the low 16 bits of value. */
VELCLIENT_API velClient_returnCode_t velClient_container_addWchar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_wchar_t value, const char *name);
/* A single-precision number. */
VELCLIENT_API velClient_returnCode_t velClient_container_addFloat(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  float value, const char *name);
/* A double-precision number. */
VELCLIENT_API velClient_returnCode_t velClient_container_addDouble(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   double value, const char *name);
/* A copy of the NUL-terminated text value; NULL value: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_addString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   const char *value, const char *name);
/* A copy of length bytes at arr_p (length 0 reads back as NULL and 0); NULL arr_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_addByteArray(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      const velClient_uint8_t *arr_p,
                                                                      velClient_uint32_t length,
                                                                      const char *name);
/* A copy of length bytes of an encoded wire message, as a VWF field; NULL vwf_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_addVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                const velClient_uint8_t *vwf_p,
                                                                velClient_uint32_t length, const char *name);
/* A destination: topic, queue, temporary topic or temporary queue, its name at most 249 characters (a
 * temporary topic reads back as a topic). NULL value or value->dest: PARAM_NULL_PTR; destSize other than
 * sizeof(velClient_destination_t), a bad type or length: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_container_addDestination(velClient_opaqueContainer_pt opaqueCont_p,
                                                                        const velClient_destination_t *value,
                                                                        size_t destSize, const char *name);
/* A copy of another container's whole finalised encoding (header included); opaqueSub_p stays open and
 * independent of the copy. A bad opaqueSub_p: PARAM_NULL_PTR; the container itself, an ancestor or a
 * descendant: PARAM_CONFLICT. */
VELCLIENT_API velClient_returnCode_t velClient_container_addContainer(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_opaqueContainer_pt opaqueSub_p,
                                                                      const char *name);
/* A whole pre-encoded field of length bytes (type byte, length, value), copied verbatim: the way fields of
 * unknown types pass through. NULL field or length 0: PARAM_NULL_PTR; a length in the field's own header
 * other than length: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_container_addUnknownField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         const velClient_uint8_t *field,
                                                                         velClient_uint32_t length,
                                                                         const char *name);

/* Removes every entry named name_p from a map (none there: VELCLIENT_OK). Later bytes move down; a
 * sub-container open on a removed entry other than the last is closed; a map shared with a duplicate is
 * copied first. Bad handle, NULL or empty name: PARAM_NULL_PTR; a stream: PARAM_OUT_OF_RANGE; malformed
 * bytes: COMMUNICATION_ERROR. */
VELCLIENT_API velClient_returnCode_t velClient_container_deleteField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                     const char *name_p);

/* ======================================================================= */
/* Containers: reading                                                      */
/* ======================================================================= */

/* True when a field follows the read cursor; decodes nothing and moves nothing. A handle that does not
 * resolve gives false (and records PARAM_NULL_PTR). */
VELCLIENT_API velClient_bool_t velClient_container_hasNextField(velClient_opaqueContainer_pt opaqueCont_p);

/* Reads the field after the cursor into *field_p and moves the cursor onto it; in a map *name_p := its name
 * (pointing into the container), in a stream name_p may be NULL. A nested map or stream comes as an open
 * handle in value.map or value.stream: close it. VELCLIENT_EOS at the end. NULL field_p (or name_p in a
 * map): PARAM_NULL_PTR; fieldSize other than sizeof(velClient_field_t): PARAM_OUT_OF_RANGE; malformed
 * bytes: COMMUNICATION_ERROR. */
VELCLIENT_API velClient_returnCode_t velClient_container_getNextField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_field_t *field_p,
                                                                      size_t fieldSize, const char **name_p);

/* In a map, *value := the first entry named name, and the cursor rests on it (VELCLIENT_NOT_FOUND when
 * absent); in a stream (name NULL) the next field (VELCLIENT_EOS at the end). Nested maps and streams come
 * as open handles, as from getNextField. No name in a map: PARAM_NULL_PTR; a name in a stream:
 * PARAM_CONFLICT; fieldSize other than sizeof(velClient_field_t): PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_container_getField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_field_t *value, size_t fieldSize,
                                                                  const char *name);

/* *size_p := the container's encoded size so far, its 5-byte header included. Bad handle, NULL size_p:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_getSize(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 size_t *size_p);

/* Finalises the container's encoding (it stays open and writable) and returns its bytes and size, header
 * included: the form to store, send, or reopen with velClient_container_openMapFromPtr. Bad handle, NULL
 * outputs: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_getContainerPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         velClient_opaquePointer_pt bufPtr_p,
                                                                         velClient_uint32_t *size_p);

/* ---- Typed getters (map: by name; stream: the next field, name NULL) ---- */
/* Each typed getter reads one field: in a map the first entry named name (VELCLIENT_NOT_FOUND when absent),
 * in a stream (name NULL) the next one (VELCLIENT_EOS at the end; consumed even when its conversion fails).
 * A stored type other than the one asked for is converted where the rules below allow, else
 * INVALID_DATA_CONVERSION, output untouched. Integer text is parsed in C syntax (base 0) and must be whole.
 * Bad handle, NULL output, no name in a map: PARAM_NULL_PTR; a name in a stream: PARAM_CONFLICT. */
/* VELCLIENT_OK when the entry exists, whatever its type (in a stream: reads past the next field). */
VELCLIENT_API velClient_returnCode_t velClient_container_getNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 const char *name);
/* BOOL; integers, FLOAT and DOUBLE as non-zero; the texts "true", "false", "1", "0" in any case. */
VELCLIENT_API velClient_returnCode_t velClient_container_getBoolean(velClient_opaqueContainer_pt opaqueCont_p,
                                                                    velClient_bool_t *value, const char *name);
/* BOOL, UINT8; INT8 1..127; other unsigned 0..255; other signed 1..255 (a signed 0 fails); text 0..255. */
VELCLIENT_API velClient_returnCode_t velClient_container_getUint8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_uint8_t *value, const char *name);
/* BOOL, INT8; unsigned 0..127; other signed -128..127; text -128..127. */
VELCLIENT_API velClient_returnCode_t velClient_container_getInt8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 velClient_int8_t *value, const char *name);
/* BOOL, UINT8, UINT16; INT8 1..127; INT16 0..32767; 32- and 64-bit values 0..65535; text 0..65535. */
VELCLIENT_API velClient_returnCode_t velClient_container_getUint16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint16_t *value, const char *name);
/* BOOL, UINT8, INT8, INT16; other unsigned up to 32767; INT32, INT64 -32768..32767; text -32768..32767. */
VELCLIENT_API velClient_returnCode_t velClient_container_getInt16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int16_t *value, const char *name);
/* BOOL, unsigned up to 32 bits; signed up to 32 bits when not negative; 64-bit 0..4294967295; text below
 * 2^31. */
VELCLIENT_API velClient_returnCode_t velClient_container_getUint32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint32_t *value, const char *name);
/* BOOL, 8- and 16-bit values, INT32; UINT32, UINT64 up to 2147483647; INT64 in range; text (low 32 bits). */
VELCLIENT_API velClient_returnCode_t velClient_container_getInt32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int32_t *value, const char *name);
/* BOOL and unsigned values; signed ones when not negative; text when not negative. */
VELCLIENT_API velClient_returnCode_t velClient_container_getUint64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint64_t *value, const char *name);
/* BOOL and signed values; unsigned ones up to 9223372036854775807; text. */
VELCLIENT_API velClient_returnCode_t velClient_container_getInt64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int64_t *value, const char *name);
/* UINT8, INT8 0..127; WCHAR up to 255; a one-character string. */
VELCLIENT_API velClient_returnCode_t velClient_container_getChar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 char *value, const char *name);
/* WCHAR; UINT8, INT8 0..127; a one-character string. */
VELCLIENT_API velClient_returnCode_t velClient_container_getWchar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_wchar_t *value, const char *name);
/* FLOAT, or a string parsed as a number; DOUBLE and integers fail. */
VELCLIENT_API velClient_returnCode_t velClient_container_getFloat(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  float *value, const char *name);
/* DOUBLE, or a string parsed as a number; FLOAT and integers fail. */
VELCLIENT_API velClient_returnCode_t velClient_container_getDouble(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   double *value, const char *name);
/* *array_p, *arrayLength_p := the bytes of a byte array or string (its NUL counted) in the container; a
 * null field gives NULL and 0. NULL arrayLength_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_getByteArrayPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         const velClient_uint8_t **array_p,
                                                                         velClient_uint32_t *arrayLength_p,
                                                                         const char *name);
/* Copies a byte array or string into array_p, whose capacity *arrayLength_p holds on entry and its length
 * on return; a longer one: capacity bytes copied, conversion failure. */
VELCLIENT_API velClient_returnCode_t velClient_container_getByteArray(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_uint8_t *array_p,
                                                                      velClient_uint32_t *arrayLength_p,
                                                                      const char *name);
/* *vwf_p, *vwfLength_p := a VWF field's bytes in the container; a null field gives NULL and 0. NULL
 * vwfLength_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_container_getVwfPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   const velClient_uint8_t **vwf_p,
                                                                   velClient_uint32_t *vwfLength_p,
                                                                   const char *name);
/* Copies a VWF field as velClient_container_getByteArray does, except that the length must stay below the
 * capacity (an exact fit fails). */
VELCLIENT_API velClient_returnCode_t velClient_container_getVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                velClient_uint8_t *vwf_p,
                                                                velClient_uint32_t *vwfLength_p, const char *name);
/* *string := a string field's text in the container (NULL for a null field). */
VELCLIENT_API velClient_returnCode_t velClient_container_getStringPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      const char **string, const char *name);
/* Copies a string field into string (stringLength bytes, cut to fit, always NUL-terminated; a null field
 * fails); stringLength 0: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_container_getString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   char *string, size_t stringLength,
                                                                   const char *name);
/* *value := a destination field: its type and a name pointer into the container. destSize other than
 * sizeof(velClient_destination_t): PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_container_getDestination(velClient_opaqueContainer_pt opaqueCont_p,
                                                                        velClient_destination_t *value,
                                                                        size_t destSize, const char *name);
/* *value := an open handle to a nested map (the same one, with one more reference, when already open; NULL
 * when no field is read); close it. */
VELCLIENT_API velClient_returnCode_t velClient_container_getSubMap(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_opaqueContainer_pt *value,
                                                                   const char *name);
/* *value := an open handle to a nested stream, as velClient_container_getSubMap. */
VELCLIENT_API velClient_returnCode_t velClient_container_getSubStream(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_opaqueContainer_pt *value,
                                                                      const char *name);

/* ======================================================================= */
/* Binary attachment as a container                                         */
/* ======================================================================= */

/* Binary attachment (part 0) := the finalised bytes of the map or stream cont_p, which stays open and the
 * caller's: copied, or referenced in place by the Ptr form (its bytes must then outlive the message's use).
 * The message's open attachment container is closed first, unless it is cont_p, which is then only
 * finalised. Bad handles: PARAM_NULL_PTR; no memory: OUT_OF_MEMORY. */
/* By copy. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainer(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt cont_p);
/* By reference, when cont_p lives in the application's own memory; a container inside a message's data block
 * is copied, since that block moves when the container grows and goes with its message. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainerPtr(velClient_opaqueMsg_pt msg_p,
                                                                                   velClient_opaqueContainer_pt cont_p);

/* The attachment's map (or stream) as an open handle: the message's attachment container, opened on first
 * use, with one more reference per call; close each. VELCLIENT_NOT_FOUND when it holds the other kind or
 * plain bytes. Bad handle, NULL output: PARAM_NULL_PTR. */
/* The map, in *map_p. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentMap(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_opaqueContainer_pt *map_p);
/* The stream, in *stream_p. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentStream(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueContainer_pt *stream_p);

/* *size_p := the encoded size (header included) of the message's open attachment container;
 * VELCLIENT_NOT_FOUND when none is open (velClient_msg_getBinaryAttachmentMap opens one). Bad handle, NULL
 * size_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentContainerSize(velClient_opaqueMsg_pt msg_p,
                                                                                   size_t *size_p);

/* ======================================================================= */
/* Header map properties                                                    */
/* ======================================================================= */

/* Properties kept in the message's private header map, each with get, set and delete. get:
 * VELCLIENT_NOT_FOUND when absent; texts point into the message; a stored value of the wrong type:
 * COMMUNICATION_ERROR. set: replaces the value (the first set creates the map); a NULL text:
 * PARAM_NULL_PTR. delete: VELCLIENT_OK also when absent. Bad handle, NULL output: PARAM_NULL_PTR. */
/* Sender id (text); a session that generates sender ids puts its client name there at send. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderId(velClient_opaqueMsg_pt msg_p, const char **value_p);
/* A sender id set here is never replaced by a generated one. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderId(velClient_opaqueMsg_pt msg_p, const char *value);
/* Removes the sender id, set or generated. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSenderId(velClient_opaqueMsg_pt msg_p);
/* Application message type (text). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getApplicationMsgType(velClient_opaqueMsg_pt msg_p,
                                                                         const char **value_p);
/* Sets the application message type. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setApplicationMsgType(velClient_opaqueMsg_pt msg_p,
                                                                         const char *value);
/* Removes the application message type. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteApplicationMsgType(velClient_opaqueMsg_pt msg_p);
/* Application message id (text). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getApplicationMessageId(velClient_opaqueMsg_pt msg_p,
                                                                           const char **value_p);
/* Sets the application message id. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setApplicationMessageId(velClient_opaqueMsg_pt msg_p,
                                                                           const char *value);
/* Removes the application message id. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteApplicationMessageId(velClient_opaqueMsg_pt msg_p);
/* Correlation id (text). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getCorrelationId(velClient_opaqueMsg_pt msg_p,
                                                                    const char **value_p);
/* Sets the correlation id. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationId(velClient_opaqueMsg_pt msg_p, const char *value);
/* Removes the correlation id. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteCorrelationId(velClient_opaqueMsg_pt msg_p);
/* Sequence number; a session that generates them puts its next number there at send. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_int64_t *seqNum_p);
/* Stored as a signed 64-bit value; never replaced by a generated one. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint64_t seqNum);
/* Removes the sequence number, set or generated. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSequenceNumber(velClient_opaqueMsg_pt msg_p);
/* Sender timestamp in ms since 1970; a session that generates them puts the send time there. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_int64_t *timestamp_p);
/* Sets the sender timestamp; never replaced by a generated one. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_int64_t timestamp);
/* Removes the sender timestamp, set or generated. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSenderTimestamp(velClient_opaqueMsg_pt msg_p);
/* HTTP content type (text). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getHttpContentType(velClient_opaqueMsg_pt msg_p,
                                                                      const char **value_p);
/* Sets the HTTP content type. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setHttpContentType(velClient_opaqueMsg_pt msg_p,
                                                                      const char *value);
/* Removes the HTTP content type. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteHttpContentType(velClient_opaqueMsg_pt msg_p);
/* HTTP content encoding (text). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getHttpContentEncoding(velClient_opaqueMsg_pt msg_p,
                                                                          const char **value_p);
/* Sets the HTTP content encoding. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setHttpContentEncoding(velClient_opaqueMsg_pt msg_p,
                                                                          const char *value);
/* Removes the HTTP content encoding. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteHttpContentEncoding(velClient_opaqueMsg_pt msg_p);

/* Expiration in ms since 1970 (0 = none; negative: PARAM_OUT_OF_RANGE), written into the header map when
 * the message is sent; a non-zero time-to-live replaces it at send (by now plus the time-to-live when the
 * session calculates expirations, else by 0). 0 also removes one already in the header map. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setExpiration(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t timestamp);

/* *timestamp_p := the expiration set here or received in the header map; 0, with VELCLIENT_OK, when there
 * is none. Bad handle, NULL timestamp_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getExpiration(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t *timestamp_p);

/* ======================================================================= */
/* User property map                                                        */
/* ======================================================================= */

/* Creates an empty user property map in the message, with room for size bytes (it grows as needed), and
 * returns its handle in *map_p (NULL on failure); closing that handle finalises the map into the message. A
 * map already open is closed and replaced. Bad handle, NULL map_p: PARAM_NULL_PTR; no memory:
 * OUT_OF_MEMORY. */
VELCLIENT_API velClient_returnCode_t velClient_msg_createUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                         velClient_opaqueContainer_pt *map_p,
                                                                         velClient_uint32_t size);

/* Copies the finalised bytes of map into the message as its user property map; map stays open and the
 * caller's. The message's open user property map is closed first, unless it is map, which is then only
 * finalised. Bad handles: PARAM_NULL_PTR; no memory: OUT_OF_MEMORY. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_opaqueContainer_pt map);

/* *map_p := an open handle to the message's user property map (created, set or received), with one more
 * reference per call; close each. VELCLIENT_NOT_FOUND when the message has none. Bad handle, NULL map_p:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_opaqueContainer_pt *map_p);

/* ======================================================================= */
/* Reply-to and session-relative topics                                     */
/* ======================================================================= */

/* Reply-to := a copy of *dest_p (topic, queue, temporary topic or temporary queue, its name at most 249
 * characters), kept in the private header map and replacing an earlier one. NULL dest_p or dest:
 * PARAM_NULL_PTR; destSize other than sizeof(velClient_destination_t), a bad type or length:
 * PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setReplyTo(velClient_opaqueMsg_pt msg_p,
                                                              const velClient_destination_t *dest_p,
                                                              size_t destSize);

/* *dest_p := the reply-to, dest pointing into the message; a temporary topic reads back as a topic.
 * VELCLIENT_NOT_FOUND when there is none (no map is created). Bad handle, NULL dest_p: PARAM_NULL_PTR; a
 * wrong destSize: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getReplyTo(velClient_opaqueMsg_pt msg_p,
                                                              velClient_destination_t *dest_p, size_t destSize);

/* Removes the reply-to; VELCLIENT_OK also when there is none. A handle that does not resolve:
 * PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteReplyTo(velClient_opaqueMsg_pt msg_p);

/* Reply-to := topic "<session inbox base>/<suffix>" ("<base>/#" for an empty suffix), the base being the
 * session's SESSION_P2P_TOPIC_BASE; the topic is cut at 250 characters. Bad message or session handle, NULL
 * suffix_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setReplyToSuffix(velClient_opaqueMsg_pt msg_p,
                                                                    velClient_opaqueSession_pt session_p,
                                                                    const char *suffix_p);

/* *suffix_p := the part of the destination topic after "<session inbox base>/" ("" for "#"), pointing into
 * the message. VELCLIENT_NOT_FOUND when the destination is not a topic under that base, or there is none.
 * NULL suffix_p, bad session or message handle: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getDestinationTopicSuffix(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueSession_pt session_p,
                                                                             const char **suffix_p);

/* *dest_p := the destination, dest pointing into the message: a topic, a queue (its name without the
 * network prefix), a temporary topic or a temporary queue, as the stored text says. VELCLIENT_NOT_FOUND
 * when there is none. Bad handle, NULL dest_p: PARAM_NULL_PTR; a wrong destSize: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getDestination(velClient_opaqueMsg_pt msg_p,
                                                                  velClient_destination_t *dest_p, size_t destSize);

/* ======================================================================= */
/* Wire image and sending                                                   */
/* ======================================================================= */

/* The message's wire image (docs/wire-format.md). With both outputs the caller gets the image and one
 * reference to the block holding it (drop it with velClient_datablock_free); with both NULL the image is
 * only built and cached. An unchanged message returns the cached image; building a new one closes the
 * message's open containers (their handles become invalid). One output NULL and not the other:
 * PARAM_CONFLICT. */
VELCLIENT_API velClient_returnCode_t velClient_msg_encodeToVWF(velClient_opaqueMsg_pt msg_p,
                                                               velClient_bufInfo_pt bufinfo_p,
                                                               velClient_opaqueDatablock_pt *datab_p);

/* *msg_p := a new message (NULL on failure; free it with velClient_msg_free) from a buffer that holds
 * exactly one wire frame. The bytes are copied, so the buffer may be reused at once. NULL msg_p, bufinfo_p
 * or data pointer: PARAM_NULL_PTR; length 0: PARAM_OUT_OF_RANGE; a malformed frame (INVALID_VWF_MESSAGE), a
 * second frame or trailing bytes: VELCLIENT_FAIL. */
VELCLIENT_API velClient_returnCode_t velClient_msg_decodeFromVwf(velClient_bufInfo_pt bufinfo_p,
                                                                 velClient_opaqueMsg_pt *msg_p);

/* Sends the message on the session, adding what the session generates (sender timestamp, sender id,
 * sequence number) where the application did not set it, and the expiration. The message stays the
 * caller's, its attachment container open. With the loopback transport the session's callback has had the
 * message when this returns. Bad session or message handle: PARAM_NULL_PTR; other failures come from the
 * send path. */
VELCLIENT_API velClient_returnCode_t velClient_session_sendMsg(velClient_opaqueSession_pt session_p,
                                                               velClient_opaqueMsg_pt msg_p);

/* ======================================================================= */
/* Destination and header properties                                        */
/* ======================================================================= */

/* Destination := a copy of dest_p->dest: topic, queue (a name starting "#P2P/QUE/" keeps its network prefix
 * apart), temporary topic or temporary queue; a name starting "#P2P/QTMP/" is a temporary queue whatever
 * the type, and dest_p->destType is updated. At most 250 characters, 200 for a queue name;
 * VELCLIENT_NULL_DESTINATION with dest NULL removes it. NULL dest_p or dest: PARAM_NULL_PTR; bad size,
 * type, text or length: PARAM_OUT_OF_RANGE. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDestination(velClient_opaqueMsg_pt msg_p,
                                                                  const velClient_destination_t *dest_p,
                                                                  size_t destSize);

/* Class of service := VELCLIENT_COS_1, VELCLIENT_COS_2 or VELCLIENT_COS_3 (0, 1, 2); another value:
 * PARAM_OUT_OF_RANGE, nothing changed. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setClassOfService(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint32_t cos);

/* *cos_p := the class of service (0, 1 or 2). Bad handle, NULL cos_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getClassOfService(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint32_t *cos_p);

/* Delivery mode := VELCLIENT_DELIVERY_MODE_DIRECT, _PERSISTENT or _NONPERSISTENT; other bits of mode are
 * stored in the flags as given (0x40 sets deliver-to-one, for one). Both mode bits (0x30):
 * PARAM_OUT_OF_RANGE, nothing changed. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDeliveryMode(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_uint32_t mode);

/* *mode_p := the delivery mode: VELCLIENT_DELIVERY_MODE_DIRECT, _PERSISTENT or _NONPERSISTENT. Bad handle,
 * NULL mode_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getDeliveryMode(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_uint32_t *mode_p);

/* Time-to-live in milliseconds, 0 (none) to 315360000000 (ten years); another value, a negative one
 * included: PARAM_OUT_OF_RANGE, nothing changed. A non-zero time-to-live sets the expiration at send. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setTimeToLive(velClient_opaqueMsg_pt msg_p, velClient_int64_t ttl);

/* *ttl_p := the time-to-live in milliseconds, 0 when none. Bad handle, NULL ttl_p: PARAM_NULL_PTR. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getTimeToLive(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t *ttl_p);

/* Values set by the receive path; VELCLIENT_NOT_FOUND (with 0) when absent. Bad handle, NULL output:
 * PARAM_NULL_PTR. */
/* The message id of a received persistent or non-persistent message. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getMsgId(velClient_opaqueMsg_pt msg_p,
                                                            velClient_msgId_t *msgId_p);
/* The topic sequence number. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getTopicSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_int64_t *seqNum_p);
/* The receive time in ms since 1970. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getRcvTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_int64_t *timestamp_p);
/* The cache request id of a message that came from a cache. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getCacheRequestId(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint64_t *cacheRequestId_p);

/* VELCLIENT_CACHE_LIVE_MESSAGE, VELCLIENT_CACHE_MESSAGE (from a cache) or VELCLIENT_CACHE_SUSPECT_MESSAGE;
 * VELCLIENT_CACHE_INVALID_MESSAGE for a bad handle or before velClient_initialize. */
VELCLIENT_API velClient_cacheStatus_t velClient_msg_isCacheMsg(velClient_opaqueMsg_pt msg_p);

/* True when the message was delivered before; false for a bad handle (recorded as PARAM_NULL_PTR). */
VELCLIENT_API velClient_bool_t velClient_msg_isRedelivered(velClient_opaqueMsg_pt msg_p);

/* Marks: deliver-to-one, dead-message-queue eligible and discard indication accept exactly 0 or 1 (another
 * value: PARAM_OUT_OF_RANGE, nothing changed); eliding eligible, acknowledge immediately and the reply mark
 * take any non-zero value as set. The is functions return the mark, false for a bad handle. */
/* Deliver to one subscriber only (0 or 1). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDeliverToOne(velClient_opaqueMsg_pt msg_p, velClient_bool_t v);
/* The deliver-to-one mark. */
VELCLIENT_API velClient_bool_t velClient_msg_isDeliverToOne(velClient_opaqueMsg_pt msg_p);
/* Eligible for the dead message queue (0 or 1). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDMQEligible(velClient_opaqueMsg_pt msg_p, velClient_bool_t v);
/* The dead-message-queue mark. */
VELCLIENT_API velClient_bool_t velClient_msg_isDMQEligible(velClient_opaqueMsg_pt msg_p);
/* Messages were discarded before this one (0 or 1). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDiscardIndication(velClient_opaqueMsg_pt msg_p,
                                                                        velClient_bool_t v);
/* The discard indication. */
VELCLIENT_API velClient_bool_t velClient_msg_isDiscardIndication(velClient_opaqueMsg_pt msg_p);
/* Eligible for eliding (any non-zero value sets it). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setElidingEligible(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_bool_t v);
/* The eliding mark. */
VELCLIENT_API velClient_bool_t velClient_msg_isElidingEligible(velClient_opaqueMsg_pt msg_p);
/* Acknowledge immediately (any non-zero value sets it). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setAckImmediately(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_bool_t v);
/* The acknowledge-immediately mark; 0xFF for a bad handle. */
VELCLIENT_API velClient_bool_t velClient_msg_isAckImmediately(velClient_opaqueMsg_pt msg_p);
/* Marks the message as a reply (any non-zero isReply) or not. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setAsReplyMsg(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_bool_t isReply);
/* The reply mark. */
VELCLIENT_API velClient_bool_t velClient_msg_isReplyMsg(velClient_opaqueMsg_pt msg_p);

/* ======================================================================= */
/* Structured binary attachment                                             */
/* ======================================================================= */

/* A new empty map (stream) as the binary attachment, with room for size bytes (at least 5; it grows as
 * needed), replacing the attachment and closing an open attachment container. Closing the handle finalises
 * it into the message, as encoding, sending, duplicating and freeing do. Bad handle, NULL output:
 * PARAM_NULL_PTR; no memory: OUT_OF_MEMORY. */
/* The map's handle goes to *map_p (NULL on failure). */
VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentMap(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueContainer_pt *map_p,
                                                                             velClient_uint32_t size);
/* The stream's handle goes to *stream_p (NULL on failure). */
VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentStream(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt *stream_p,
                                                                                velClient_uint32_t size);

/* ======================================================================= */
/* Dump                                                                     */
/* ======================================================================= */

/* The message as text into buffer_p (bounded, always NUL-terminated, cut at the first text that does not
 * fit; still VELCLIENT_OK) or, with a NULL buffer and size 0, to standard output. flags
 * VELCLIENT_MSGDUMP_FULL renders structured data and payloads in full; VELCLIENT_MSGDUMP_BRIEF shows their
 * sizes only. Bad handle: PARAM_NULL_PTR; a buffer with size 0, or NULL with a size: PARAM_CONFLICT. */
VELCLIENT_API velClient_returnCode_t velClient_msg_dumpExt(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                           size_t bufferSize, velClient_uint32_t flags);

/* velClient_msg_dumpExt with VELCLIENT_MSGDUMP_FULL. */
VELCLIENT_API velClient_returnCode_t velClient_msg_dump(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                        size_t bufferSize);

#ifdef __cplusplus
}
#endif

#endif /* VELCLIENT_MSG_H */
