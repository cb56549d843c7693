/* Compiles the public headers as strict C99: any C++ or extension leaking into
 * them fails the build. */
#include "velclient/velClientMsg.h"

int velclient_header_check(void);
int velclient_header_check(void)
{
    velClient_field_t field;
    velClient_destination_t dest;
    velClient_bufInfo_t part;
    field.type = VELCLIENT_UINT8;
    dest.destType = VELCLIENT_TOPIC_DESTINATION;
    part.bufSize = 0;
    return (int)field.type + (int)dest.destType + (int)part.bufSize;
}
