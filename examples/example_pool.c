/* Placeholder replaced by the pool example. */
#include <stdio.h>
#include "velclient/velClientMsg.h"
int main(void)
{
    return velClient_initialize(VELCLIENT_LOG_NOTICE, NULL) == VELCLIENT_OK ? 0 : 1;
}
