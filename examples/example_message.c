/*
 * example_message.c - the road of a message: a loopback session that
 * generates sender id and sequence number; a message with a topic,
 * a reply-to, user properties and a map attachment holding a nested stream;
 * sending it, receiving it in the session's callback, reading fields back,
 * printing its dump, and writing its wire bytes to a file for velclient-dump.
 * The sender timestamp is fixed, so the wire bytes are the same on every run
 * (example_message_cpp.cpp builds the same message and writes the same bytes).
 *
 * Usage: example_message [wire-output-file]   (default: message.vwf)
 */
#include <stdio.h>
#include <string.h>

#include "velclient/velClientMsg.h"

#include "exampleCheck.h"

static const char *wireFile_s = "message.vwf";
static int received_s = 0;

/* Reads the received message back and writes its wire bytes. */
static int readBack(velClient_opaqueMsg_pt msg)
{
    velClient_opaqueContainer_pt map = NULL, stream = NULL, props = NULL;
    const char *sender = NULL, *text = NULL;
    velClient_int64_t seq = 0;
    velClient_int32_t count = 0;
    double price = 0;
    velClient_destination_t replyTo;
    velClient_bufInfo_t wire;
    velClient_opaqueDatablock_pt block = NULL;
    static char dump[8192];
    FILE *out;

    CHECK(velClient_msg_getSenderId(msg, &sender));
    CHECK(velClient_msg_getSequenceNumber(msg, &seq));
    CHECK(velClient_msg_getReplyTo(msg, &replyTo, sizeof replyTo));
    CHECK(velClient_msg_getUserPropertyMap(msg, &props));
    CHECK(velClient_container_getString(props, dump, 64, "region"));
    printf("received: sender id '%s', sequence number %lld, reply-to '%s', region '%s'\n", sender,
           (long long)seq, replyTo.dest, dump);
    CHECK(velClient_container_closeMapStream(&props));

    CHECK(velClient_msg_getBinaryAttachmentMap(msg, &map));
    CHECK(velClient_container_getInt32(map, &count, "count"));
    CHECK(velClient_container_getDouble(map, &price, "price"));
    CHECK(velClient_container_getSubStream(map, &stream, "history"));
    printf("attachment: count %d, price %.2f, history:", (int)count, price);
    while (velClient_container_hasNextField(stream)) {
        velClient_int64_t v = 0;
        CHECK(velClient_container_getInt64(stream, &v, NULL));
        printf(" %lld", (long long)v);
    }
    printf("\n");
    CHECK(velClient_container_getStringPtr(map, &text, "note"));
    printf("note: %s\n\n", text);
    CHECK(velClient_container_closeMapStream(&stream));
    CHECK(velClient_container_closeMapStream(&map));

    CHECK(velClient_msg_dump(msg, dump, sizeof dump));
    printf("%s\n", dump);

    CHECK(velClient_msg_encodeToVWF(msg, &wire, &block));
    out = fopen(wireFile_s, "wb");
    if (out == NULL || fwrite(wire.buf_p, 1, wire.bufSize, out) != wire.bufSize) {
        fprintf(stderr, "cannot write %s\n", wireFile_s);
        return 1;
    }
    fclose(out);
    printf("wrote %u wire bytes to %s\n", wire.bufSize, wireFile_s);
    CHECK(velClient_datablock_free(&block));
    return 0;
}

static velClient_rxMsgCallback_returnCode_t onMessage(velClient_opaqueSession_pt session, velClient_opaqueMsg_pt msg,
                                                      void *user)
{
    (void)session;
    (void)user;
    received_s = readBack(msg) == 0 ? 1 : -1;
    return VELCLIENT_CALLBACK_OK; /* the library frees the message */
}

/* Topic, reply-to, user properties and a map attachment with a nested stream. */
static int buildMessage(velClient_opaqueMsg_pt msg)
{
    velClient_destination_t topic = {VELCLIENT_TOPIC_DESTINATION, "prices/eu/widgets"};
    velClient_destination_t replyTo = {VELCLIENT_TOPIC_DESTINATION, "replies/desk-7"};
    velClient_opaqueContainer_pt props = NULL, map = NULL, stream = NULL;
    int i;

    CHECK(velClient_msg_setDestination(msg, &topic, sizeof topic));
    CHECK(velClient_msg_setReplyTo(msg, &replyTo, sizeof replyTo));
    CHECK(velClient_msg_setDeliveryMode(msg, VELCLIENT_DELIVERY_MODE_PERSISTENT));
    CHECK(velClient_msg_setSenderTimestamp(msg, 1795000000000LL));

    CHECK(velClient_msg_createUserPropertyMap(msg, &props, 64));
    CHECK(velClient_container_addString(props, "eu-west", "region"));
    CHECK(velClient_container_addBoolean(props, 1, "priority"));
    CHECK(velClient_container_closeMapStream(&props));

    CHECK(velClient_msg_createBinaryAttachmentMap(msg, &map, 128));
    CHECK(velClient_container_addInt32(map, 42, "count"));
    CHECK(velClient_container_addDouble(map, 19.95, "price"));
    CHECK(velClient_container_openSubStream(map, &stream, "history"));
    for (i = 1; i <= 4; ++i)
        CHECK(velClient_container_addInt64(stream, (velClient_int64_t)i * 1000, NULL));
    CHECK(velClient_container_closeMapStream(&stream));
    CHECK(velClient_container_addString(map, "shipped from the north warehouse", "note"));
    CHECK(velClient_container_closeMapStream(&map));
    return 0;
}

int main(int argc, char **argv)
{
    const char *sessionProps[] = {"SESSION_CLIENT_NAME", "example-client",
                                  "SESSION_GENERATE_SENDER_ID", "1",
                                  "SESSION_GENERATE_SEQUENCE_NUMBER", "1",
                                  NULL};
    velClient_opaqueSession_pt session = NULL;
    velClient_opaqueMsg_pt msg = NULL;

    if (argc > 1)
        wireFile_s = argv[1];
    CHECK(velClient_initialize(VELCLIENT_LOG_WARNING, NULL));
    CHECK(velClient_session_create(sessionProps, onMessage, NULL, &session));
    CHECK(velClient_msg_alloc(&msg));
    if (buildMessage(msg) != 0)
        return 1;
    CHECK(velClient_session_sendMsg(session, msg));
    CHECK(velClient_msg_free(&msg));
    CHECK(velClient_session_destroy(&session));
    CHECK(velClient_cleanup());
    if (received_s != 1) {
        fprintf(stderr, "the message was not received intact\n");
        return 1;
    }
    return 0;
}
