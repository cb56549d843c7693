/*
 * exampleCheck.h - CHECK(call), shared by the C examples: a call that does not
 * answer VELCLIENT_OK prints itself with the library's last-error text, and
 * the function returns 1.
 */
#ifndef VELCLIENT_EXAMPLE_CHECK_H
#define VELCLIENT_EXAMPLE_CHECK_H

#include <stdio.h>

#include "velclient/velClient.h"

#define CHECK(call)                                                                                       \
    do {                                                                                                  \
        if ((call) != VELCLIENT_OK) {                                                                     \
            fprintf(stderr, "%s failed: %s\n", #call, velClient_getLastErrorInfo()->errorStr);           \
            return 1;                                                                                     \
        }                                                                                                 \
    } while (0)

#endif
