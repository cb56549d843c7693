/*
 * velclientMain.cpp - the velclient command: picks the subcommand (send,
 * receive, dump) and hands it the remaining arguments.
 */
#include <cstdio>
#include <cstring>

#include "commandOptions.h"
#include "commands.h"

namespace {

void usage(FILE *out)
{
    std::fputs("Usage: velclient COMMAND [OPTION...]\n"
               "Tries the velclient library from the command line.\n"
               "\n"
               "Commands:\n"
               "  send      connect a session and send messages to a topic or a queue\n"
               "  receive   subscribe to topics or queues and print each message received\n"
               "  dump      print the messages of wire-format (VWF) files, as velclient-dump does\n"
               "\n"
               "velclient COMMAND --help describes a command's options.\n",
               out);
}

} // namespace

int main(int argc, char **argv)
{
    using namespace vel::tool;
    if (argc < 2) {
        usage(stderr);
        return kExitUsage;
    }
    const char *command = argv[1];
    if (std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0) {
        usage(stdout);
        return kExitOk;
    }
    static constexpr struct {
        const char *name;
        const char *program;
        int (*run)(const char *, int, char **);
    } kCommands[] = {{"send", "velclient send", sendCommand},
                     {"receive", "velclient receive", receiveCommand},
                     {"dump", "velclient dump", dumpCommand}};
    for (const auto &c : kCommands)
        if (std::strcmp(command, c.name) == 0)
            return c.run(c.program, argc - 1, argv + 1);
    std::fprintf(stderr, "velclient: unknown command '%s' (see velclient --help)\n", command);
    return kExitUsage;
}
