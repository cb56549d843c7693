/*
 * commands.h - the commands of the velclient tools. Each takes its program
 * name for messages ("velclient send", "velclient-dump") and its arguments,
 * argv[0] being the command itself, and returns the exit status.
 */
#pragma once

#include <string>

#include "velclient/velClientMsg.h"

namespace vel::tool {

/* Decodes wire frames from files or standard input and prints their dumps. */
int dumpCommand(const char *program, int argc, char **argv);
/* Connects a session and sends messages built from the options. */
int sendCommand(const char *program, int argc, char **argv);
/* Connects a session, subscribes and prints the dump of each message received. */
int receiveCommand(const char *program, int argc, char **argv);

/* Writes heading and a newline, then the message's dump (flags VELCLIENT_MSGDUMP_FULL or _BRIEF, whole
 * whatever its length), to standard output, and flushes it. */
void printMessageDump(const std::string &heading, velClient_opaqueMsg_pt msg, velClient_uint32_t flags);

} // namespace vel::tool
