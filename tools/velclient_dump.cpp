/*
 * velclient_dump.cpp - the velclient-dump command, the same as "velclient
 * dump": prints the dump of each wire frame (VWF) in files or standard input.
 */
#include "commands.h"

int main(int argc, char **argv)
{
    return vel::tool::dumpCommand("velclient-dump", argc, argv);
}
