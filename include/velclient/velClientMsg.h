/*
 * velClientMsg.h - the public API of the message module: data blocks, the
 * message pool, buffer parts, structured data (maps and streams) and their
 * typed getters. An application needs only this include.
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

/* A reference-counted block of capacity at least size (count 1). On failure
 * *datab_p is NULL. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_alloc(velClient_opaqueDatablock_pt *datab_p,
                                                               velClient_uint32_t size);
/* Drops one reference and sets *datab_p to NULL. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_free(velClient_opaqueDatablock_pt *datab_p);
/* Adds one reference. */
VELCLIENT_API velClient_returnCode_t velClient_datablock_dup(velClient_opaqueDatablock_pt datab);
/* The block's data area and its capacity (not the length of any content). */
VELCLIENT_API velClient_returnCode_t velClient_datablock_getDataPtr(velClient_opaqueDatablock_pt datab,
                                                                    velClient_opaquePointer_pt bufPtr_p,
                                                                    velClient_uint32_t *size_p);
/* Takes the block behind a message part out of the message: the caller gets
 * the message's reference. VELCLIENT_NOT_FOUND when the part has no block. */
VELCLIENT_API velClient_returnCode_t velClient_msg_extractDatablock(velClient_opaqueMsg_pt msg_p,
                                                                    velClient_bufInfo_index_t bufIndex,
                                                                    velClient_opaqueDatablock_pt *datab_p,
                                                                    velClient_bufInfo_pt bufInfo_p);

/* ======================================================================= */
/* Message life cycle and pool                                              */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_msg_alloc(velClient_opaqueMsg_pt *msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_free(velClient_opaqueMsg_pt *msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_reset(velClient_opaqueMsg_pt msg_p);
/* A new message sharing the source's data blocks (structured parts become
 * copy-on-modify in both). */
VELCLIENT_API velClient_returnCode_t velClient_msg_dup(velClient_opaqueMsg_pt msg_p,
                                                       velClient_opaqueMsg_pt *newMsg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setMaxPoolMem(velClient_uint64_t maxPoolMem);
VELCLIENT_API velClient_returnCode_t velClient_msg_getStat(velClient_msg_stats_t msgStatType,
                                                           velClient_uint32_t statIndex,
                                                           velClient_uint64_t *statValue_p);
VELCLIENT_API _velClient_R43_msgPoolStats_pt velClient_msg_getMsgPoolStats(void);

/* ======================================================================= */
/* Buffer parts                                                             */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentPtr(velClient_opaqueMsg_pt msg_p,
                                                                          void *buf_p,
                                                                          velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachment(velClient_opaqueMsg_pt msg_p,
                                                                       const void *buf_p,
                                                                       velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                             const char *buf_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserDataPtr(velClient_opaqueMsg_pt msg_p, void *buf_p,
                                                                  velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setXmlPtr(velClient_opaqueMsg_pt msg_p, void *buf_p,
                                                             velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationTagPtr(velClient_opaqueMsg_pt msg_p,
                                                                        void *buf_p,
                                                                        velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserData(velClient_opaqueMsg_pt msg_p, const void *buf_p,
                                                               velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setXml(velClient_opaqueMsg_pt msg_p, const void *buf_p,
                                                          velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationTag(velClient_opaqueMsg_pt msg_p,
                                                                     const void *buf_p,
                                                                     velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_setTopicPtr(velClient_opaqueMsg_pt msg_p,
                                                               const char *topic_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setQueueNamePtr(velClient_opaqueMsg_pt msg_p,
                                                                   const char *queueName_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentPtr(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_opaquePointer_pt bufPtr_p,
                                                                          velClient_uint32_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getUserDataPtr(velClient_opaqueMsg_pt msg_p,
                                                                  velClient_opaquePointer_pt bufPtr_p,
                                                                  velClient_uint32_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getXmlPtr(velClient_opaqueMsg_pt msg_p,
                                                             velClient_opaquePointer_pt bufPtr_p,
                                                             velClient_uint32_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getCorrelationTagPtr(velClient_opaqueMsg_pt msg_p,
                                                                        velClient_opaquePointer_pt bufPtr_p,
                                                                        velClient_uint32_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getVWFPtr(velClient_opaqueMsg_pt msg_p,
                                                             velClient_uint8_t **bufPtr_p,
                                                             velClient_uint32_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentField(velClient_opaqueMsg_pt msg_p,
                                                                            velClient_field_t *field_p,
                                                                            size_t fieldSize);
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentString(velClient_opaqueMsg_pt msg_p,
                                                                             const char **bufPtr_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerIdCount(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_uint32_t *consumerIdCount_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getConsumerId(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_uint32_t consumerIdIndex,
                                                                 velClient_consumerId_t *consumerId_p);
/* Consumer ids of a 12-entry part array: part 2 holds 32-bit ids in network
 * byte order. */
VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerIdCount(velClient_bufInfo_pt bufInfo_a,
                                                                          velClient_uint32_t *count_p);
VELCLIENT_API velClient_returnCode_t velClient_bufInfo_getConsumerId(velClient_bufInfo_pt bufInfo_a,
                                                                     velClient_uint32_t index,
                                                                     velClient_consumerId_t *id_p);

/* ======================================================================= */
/* Containers: create, open, close                                          */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_container_createMap(velClient_opaqueContainer_pt *map_p,
                                                                   char *mem_p, size_t size);
VELCLIENT_API velClient_returnCode_t velClient_container_createStream(velClient_opaqueContainer_pt *stream_p,
                                                                      char *mem_p, size_t size);
VELCLIENT_API velClient_returnCode_t velClient_container_openMapFromPtr(velClient_opaqueContainer_pt *map_p,
                                                                        void *buf_p, velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_container_openStreamFromPtr(velClient_opaqueContainer_pt *stream_p,
                                                                           void *buf_p,
                                                                           velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_container_openSubMap(velClient_opaqueContainer_pt container_p,
                                                                    velClient_opaqueContainer_pt *subContainer_p,
                                                                    const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_openSubStream(velClient_opaqueContainer_pt container_p,
                                                                       velClient_opaqueContainer_pt *subContainer_p,
                                                                       const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_closeMapStream(velClient_opaqueContainer_pt *opaqueCont_p);
VELCLIENT_API velClient_returnCode_t velClient_container_rewind(velClient_opaqueContainer_pt opaqueCont_p);

/* ======================================================================= */
/* Containers: adding and deleting fields                                   */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_container_addNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addBoolean(velClient_opaqueContainer_pt opaqueCont_p,
                                                                    velClient_bool_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addUint8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_uint8_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addInt8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 velClient_int8_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addUint16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint16_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addInt16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int16_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addUint32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint32_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addInt32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int32_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addUint64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint64_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addInt64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int64_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addChar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 char value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addWchar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_wchar_t value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addFloat(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  float value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addDouble(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   double value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   const char *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addByteArray(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      const velClient_uint8_t *arr_p,
                                                                      velClient_uint32_t length,
                                                                      const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                const velClient_uint8_t *vwf_p,
                                                                velClient_uint32_t length, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addDestination(velClient_opaqueContainer_pt opaqueCont_p,
                                                                        const velClient_destination_t *value,
                                                                        size_t destSize, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addContainer(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_opaqueContainer_pt opaqueSub_p,
                                                                      const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_addUnknownField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         const velClient_uint8_t *field,
                                                                         velClient_uint32_t length,
                                                                         const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_deleteField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                     const char *name_p);

/* ======================================================================= */
/* Containers: reading                                                      */
/* ======================================================================= */

VELCLIENT_API velClient_bool_t velClient_container_hasNextField(velClient_opaqueContainer_pt opaqueCont_p);
VELCLIENT_API velClient_returnCode_t velClient_container_getNextField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_field_t *field_p,
                                                                      size_t fieldSize, const char **name_p);
VELCLIENT_API velClient_returnCode_t velClient_container_getField(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_field_t *value, size_t fieldSize,
                                                                  const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getSize(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 size_t *size_p);
VELCLIENT_API velClient_returnCode_t velClient_container_getContainerPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         velClient_opaquePointer_pt bufPtr_p,
                                                                         velClient_uint32_t *size_p);

/* ---- Typed getters (map: by name; stream: the next field, name NULL) ---- */
VELCLIENT_API velClient_returnCode_t velClient_container_getNull(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getBoolean(velClient_opaqueContainer_pt opaqueCont_p,
                                                                    velClient_bool_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getUint8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_uint8_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getInt8(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 velClient_int8_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getUint16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint16_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getInt16(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int16_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getUint32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint32_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getInt32(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int32_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getUint64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_uint64_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getInt64(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_int64_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getChar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                 char *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getWchar(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  velClient_wchar_t *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getFloat(velClient_opaqueContainer_pt opaqueCont_p,
                                                                  float *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getDouble(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   double *value, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getByteArrayPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                         const velClient_uint8_t **array_p,
                                                                         velClient_uint32_t *arrayLength_p,
                                                                         const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getByteArray(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_uint8_t *array_p,
                                                                      velClient_uint32_t *arrayLength_p,
                                                                      const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getVwfPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   const velClient_uint8_t **vwf_p,
                                                                   velClient_uint32_t *vwfLength_p,
                                                                   const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getVwf(velClient_opaqueContainer_pt opaqueCont_p,
                                                                velClient_uint8_t *vwf_p,
                                                                velClient_uint32_t *vwfLength_p, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getStringPtr(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      const char **string, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getString(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   char *string, size_t stringLength,
                                                                   const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getDestination(velClient_opaqueContainer_pt opaqueCont_p,
                                                                        velClient_destination_t *value,
                                                                        size_t destSize, const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getSubMap(velClient_opaqueContainer_pt opaqueCont_p,
                                                                   velClient_opaqueContainer_pt *value,
                                                                   const char *name);
VELCLIENT_API velClient_returnCode_t velClient_container_getSubStream(velClient_opaqueContainer_pt opaqueCont_p,
                                                                      velClient_opaqueContainer_pt *value,
                                                                      const char *name);

/* ======================================================================= */
/* Binary attachment as a container                                         */
/* ======================================================================= */

/* Part 0 := the finalised bytes of a map or stream: copied, or referenced in
 * place by the Ptr form (the container must then outlive the message's use). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainer(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt cont_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setBinaryAttachmentContainerPtr(velClient_opaqueMsg_pt msg_p,
                                                                                   velClient_opaqueContainer_pt cont_p);
/* The attachment's map (or stream); VELCLIENT_NOT_FOUND when it holds the other kind or plain bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentMap(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_opaqueContainer_pt *map_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentStream(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueContainer_pt *stream_p);
/* Size of the open attachment container; VELCLIENT_NOT_FOUND when none is open. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getBinaryAttachmentContainerSize(velClient_opaqueMsg_pt msg_p,
                                                                                   size_t *size_p);

/* ======================================================================= */
/* Header map properties                                                    */
/* ======================================================================= */

/* Each property: get (VELCLIENT_NOT_FOUND when absent; strings point into the
 * message), set (replaces), delete (VELCLIENT_OK when absent). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderId(velClient_opaqueMsg_pt msg_p, const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderId(velClient_opaqueMsg_pt msg_p, const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSenderId(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getApplicationMsgType(velClient_opaqueMsg_pt msg_p,
                                                                         const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setApplicationMsgType(velClient_opaqueMsg_pt msg_p,
                                                                         const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteApplicationMsgType(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getApplicationMessageId(velClient_opaqueMsg_pt msg_p,
                                                                           const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setApplicationMessageId(velClient_opaqueMsg_pt msg_p,
                                                                           const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteApplicationMessageId(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getCorrelationId(velClient_opaqueMsg_pt msg_p,
                                                                    const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setCorrelationId(velClient_opaqueMsg_pt msg_p, const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteCorrelationId(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_int64_t *seqNum_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint64_t seqNum);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSequenceNumber(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_int64_t *timestamp_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setSenderTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_int64_t timestamp);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteSenderTimestamp(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getHttpContentType(velClient_opaqueMsg_pt msg_p,
                                                                      const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setHttpContentType(velClient_opaqueMsg_pt msg_p,
                                                                      const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteHttpContentType(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getHttpContentEncoding(velClient_opaqueMsg_pt msg_p,
                                                                          const char **value_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setHttpContentEncoding(velClient_opaqueMsg_pt msg_p,
                                                                          const char *value);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteHttpContentEncoding(velClient_opaqueMsg_pt msg_p);
/* Expiration (0 = none); written into the header map when the message is sent. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setExpiration(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t timestamp);
VELCLIENT_API velClient_returnCode_t velClient_msg_getExpiration(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t *timestamp_p);

/* ======================================================================= */
/* User property map                                                        */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_msg_createUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                         velClient_opaqueContainer_pt *map_p,
                                                                         velClient_uint32_t size);
/* Copies the finalised bytes of map into the message. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_opaqueContainer_pt map);
VELCLIENT_API velClient_returnCode_t velClient_msg_getUserPropertyMap(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_opaqueContainer_pt *map_p);

/* ======================================================================= */
/* Reply-to and session-relative topics                                     */
/* ======================================================================= */

VELCLIENT_API velClient_returnCode_t velClient_msg_setReplyTo(velClient_opaqueMsg_pt msg_p,
                                                              const velClient_destination_t *dest_p,
                                                              size_t destSize);
VELCLIENT_API velClient_returnCode_t velClient_msg_getReplyTo(velClient_opaqueMsg_pt msg_p,
                                                              velClient_destination_t *dest_p, size_t destSize);
VELCLIENT_API velClient_returnCode_t velClient_msg_deleteReplyTo(velClient_opaqueMsg_pt msg_p);
/* Reply-to := topic "<session inbox base>/<suffix>" ("<base>/#" for an empty suffix). */
VELCLIENT_API velClient_returnCode_t velClient_msg_setReplyToSuffix(velClient_opaqueMsg_pt msg_p,
                                                                    velClient_opaqueSession_pt session_p,
                                                                    const char *suffix_p);
/* The part of the destination topic after "<session inbox base>/" ("" for "#"). */
VELCLIENT_API velClient_returnCode_t velClient_msg_getDestinationTopicSuffix(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueSession_pt session_p,
                                                                             const char **suffix_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getDestination(velClient_opaqueMsg_pt msg_p,
                                                                  velClient_destination_t *dest_p, size_t destSize);

/* ======================================================================= */
/* Wire image and sending                                                   */
/* ======================================================================= */

/* The message's wire image. With both outputs, the caller gets the image and
 * one reference to the block holding it (drop it with
 * velClient_datablock_free); with both NULL the image is only built and
 * cached. An unchanged message returns the cached image. */
VELCLIENT_API velClient_returnCode_t velClient_msg_encodeToVWF(velClient_opaqueMsg_pt msg_p,
                                                               velClient_bufInfo_pt bufinfo_p,
                                                               velClient_opaqueDatablock_pt *datab_p);
/* A new message from a buffer that holds exactly one wire frame. */
VELCLIENT_API velClient_returnCode_t velClient_msg_decodeFromVwf(velClient_bufInfo_pt bufinfo_p,
                                                                 velClient_opaqueMsg_pt *msg_p);
/* Sends the message on the session, adding what the session generates
 * (sender timestamp, sender id, sequence number) where the application did
 * not set it. The message stays the caller's. */
VELCLIENT_API velClient_returnCode_t velClient_session_sendMsg(velClient_opaqueSession_pt session_p,
                                                               velClient_opaqueMsg_pt msg_p);

/* ======================================================================= */
/* Destination and header properties                                        */
/* ======================================================================= */

/* Topic, queue (a "#P2P/QUE/..." name keeps its network prefix apart),
 * temporary topic or temporary queue; a name starting "#P2P/QTMP/" is a
 * temporary queue whatever the type, and dest_p->destType is updated. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDestination(velClient_opaqueMsg_pt msg_p,
                                                                  const velClient_destination_t *dest_p,
                                                                  size_t destSize);
VELCLIENT_API velClient_returnCode_t velClient_msg_setClassOfService(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint32_t cos);
VELCLIENT_API velClient_returnCode_t velClient_msg_getClassOfService(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint32_t *cos_p);
/* VELCLIENT_DELIVERY_MODE_*; other bits of mode are stored in the flags as given. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDeliveryMode(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_uint32_t mode);
VELCLIENT_API velClient_returnCode_t velClient_msg_getDeliveryMode(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_uint32_t *mode_p);
/* Milliseconds, 0 to 315360000000. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setTimeToLive(velClient_opaqueMsg_pt msg_p, velClient_int64_t ttl);
VELCLIENT_API velClient_returnCode_t velClient_msg_getTimeToLive(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_int64_t *ttl_p);
/* Values set by the receive path; VELCLIENT_NOT_FOUND (with 0) when absent. */
VELCLIENT_API velClient_returnCode_t velClient_msg_getMsgId(velClient_opaqueMsg_pt msg_p,
                                                            velClient_msgId_t *msgId_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getTopicSequenceNumber(velClient_opaqueMsg_pt msg_p,
                                                                          velClient_int64_t *seqNum_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getRcvTimestamp(velClient_opaqueMsg_pt msg_p,
                                                                   velClient_int64_t *timestamp_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_getCacheRequestId(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_uint64_t *cacheRequestId_p);
VELCLIENT_API velClient_cacheStatus_t velClient_msg_isCacheMsg(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_bool_t velClient_msg_isRedelivered(velClient_opaqueMsg_pt msg_p);
/* Marks: deliver-to-one, dead-message-queue eligible and discard indication
 * accept exactly 0 or 1; eliding eligible, acknowledge immediately and the
 * reply mark take any non-zero value as set. */
VELCLIENT_API velClient_returnCode_t velClient_msg_setDeliverToOne(velClient_opaqueMsg_pt msg_p, velClient_bool_t v);
VELCLIENT_API velClient_bool_t velClient_msg_isDeliverToOne(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setDMQEligible(velClient_opaqueMsg_pt msg_p, velClient_bool_t v);
VELCLIENT_API velClient_bool_t velClient_msg_isDMQEligible(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setDiscardIndication(velClient_opaqueMsg_pt msg_p,
                                                                        velClient_bool_t v);
VELCLIENT_API velClient_bool_t velClient_msg_isDiscardIndication(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setElidingEligible(velClient_opaqueMsg_pt msg_p,
                                                                      velClient_bool_t v);
VELCLIENT_API velClient_bool_t velClient_msg_isElidingEligible(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setAckImmediately(velClient_opaqueMsg_pt msg_p,
                                                                     velClient_bool_t v);
/* 0xFF for a bad handle. */
VELCLIENT_API velClient_bool_t velClient_msg_isAckImmediately(velClient_opaqueMsg_pt msg_p);
VELCLIENT_API velClient_returnCode_t velClient_msg_setAsReplyMsg(velClient_opaqueMsg_pt msg_p,
                                                                 velClient_bool_t isReply);
VELCLIENT_API velClient_bool_t velClient_msg_isReplyMsg(velClient_opaqueMsg_pt msg_p);

/* ======================================================================= */
/* Structured binary attachment                                             */
/* ======================================================================= */

/* A new empty map (stream) as the binary attachment, with room for size bytes. */
VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentMap(velClient_opaqueMsg_pt msg_p,
                                                                             velClient_opaqueContainer_pt *map_p,
                                                                             velClient_uint32_t size);
VELCLIENT_API velClient_returnCode_t velClient_msg_createBinaryAttachmentStream(velClient_opaqueMsg_pt msg_p,
                                                                                velClient_opaqueContainer_pt *stream_p,
                                                                                velClient_uint32_t size);

/* ======================================================================= */
/* Dump                                                                     */
/* ======================================================================= */

/* The message as text into buffer_p (bounded, always NUL-terminated, cut at
 * the first text that does not fit) or, with a NULL buffer and size 0, to
 * standard output. flags VELCLIENT_MSGDUMP_FULL renders structured data and
 * payloads in full; VELCLIENT_MSGDUMP_BRIEF shows their sizes only. */
VELCLIENT_API velClient_returnCode_t velClient_msg_dumpExt(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                           size_t bufferSize, velClient_uint32_t flags);
VELCLIENT_API velClient_returnCode_t velClient_msg_dump(velClient_opaqueMsg_pt msg_p, char *buffer_p,
                                                        size_t bufferSize);

#ifdef __cplusplus
}
#endif

#endif /* VELCLIENT_MSG_H */
