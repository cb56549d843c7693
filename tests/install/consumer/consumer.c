/* An application in C: one message built, encoded and decoded back. */
#include <stdio.h>
#include <string.h>

#include <velclient/velClientMsg.h>

int main(void)
{
    velClient_opaqueMsg_pt msg = NULL, back = NULL;
    velClient_opaqueDatablock_pt block = NULL;
    velClient_bufInfo_t wire;
    velClient_destination_t topic = {VELCLIENT_TOPIC_DESTINATION, "consumer/c"}, dest;

    if (velClient_initialize(VELCLIENT_LOG_WARNING, NULL) != VELCLIENT_OK || velClient_msg_alloc(&msg) != VELCLIENT_OK ||
        velClient_msg_setDestination(msg, &topic, sizeof topic) != VELCLIENT_OK ||
        velClient_msg_encodeToVWF(msg, &wire, &block) != VELCLIENT_OK ||
        velClient_msg_decodeFromVwf(&wire, &back) != VELCLIENT_OK ||
        velClient_msg_getDestination(back, &dest, sizeof dest) != VELCLIENT_OK || strcmp(dest.dest, "consumer/c") != 0) {
        fprintf(stderr, "consumer (C): %s\n", velClient_getLastErrorInfo()->errorStr);
        return 1;
    }
    velClient_datablock_free(&block);
    velClient_msg_free(&back);
    velClient_msg_free(&msg);
    velClient_cleanup();
    printf("consumer (C): %u wire bytes, topic '%s' back\n", wire.bufSize, topic.dest);
    return 0;
}
