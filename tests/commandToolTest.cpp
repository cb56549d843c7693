/* The velclient command without a broker: help, refused command lines and library failures. What send
 * publishes is checked by the broker tests, which receive it with the same command. */
#include <algorithm>
#include <string>

#include "support/toolProcess.h"

#ifdef VELCLIENT_TOOL

/* Help goes to standard output with status 0. A refused command line gives one line naming the option with
 * status 2; a failure of the library its text, first, with status 1; both print nothing else. */
TEST(CommandTool, HelpRefusedCommandLinesAndLibraryFailuresGiveTheirStatusAndOneLine)
{
    const struct {
        std::string given;
        const char *text;
        int status = 2;
    } cases[] = {
        {"--help", "Usage: velclient", 0},
        {"send --help", "Usage: velclient send", 0},
        {"bogus", "velclient: unknown command 'bogus' (see velclient --help)"},
        {"send --topic a --bogus", "velclient send: unknown option --bogus (see velclient send --help)"},
        {"send --topic", "option --topic needs a value"},
        {"send --text hi", "needs --topic or --queue"},
        {"send --topic a --text x --file y", "give one --text or --file"},
        {"send --topic a --file /nonexistent/x", "option --file: cannot open /nonexistent/x: No such file"},
        {"send --topic a --ttl 315360000001", "option --ttl: '315360000001' is not a whole number from 0 to 315360000000"},
        {"send --topic a --mode fast", "option --mode: 'fast' is not direct, persistent or nonpersistent"},
        {"send --topic a --transport tcp", "option --transport: 'tcp' is not amqp, mqtt or loopback"},
        {"send --queue q --transport mqtt", "option --queue: an mqtt session has no queues (use --topic)"},
        {"send --topic a --user-property n:int8=128",
         "option --user-property n:int8: '128' is not a whole number from -128 to 127"},
        {"send --topic a --user-property n:bool=yes", "n:bool: 'yes' is not true, false, 1 or 0"},
        {"send --topic a --user-property n:int33=1", "unknown type 'int33' in 'n:int33=1' (types: string, bool,"},
        {"send --topic a --user-property =x", "'=x' is not NAME=VALUE or NAME:TYPE=VALUE"},
        {"receive --topic a --transport loopback",
         "receive needs a broker transport, amqp or mqtt (a loopback session receives only what it sends)"},
        {"dump --sizes=1", "velclient dump: option --sizes takes no value"},
        {"send --host 127.0.0.1:1 --topic a --text x",
         "velclient send: Could not connect to 127.0.0.1:1 (proton:io: Connection refused", 1},
        {"receive --host 127.0.0.1:1 --host 127.0.0.1:1 --queue a", "velclient receive: Could not connect to 127.0.0.1:1", 1},
        {"receive --transport mqtt --host 127.0.0.1:1 --topic a", "velclient receive: Could not connect to 127.0.0.1:1", 1},
        {"send --transport loopback --text x --topic " + std::string(251, 'x'), "velclient send: ", 1},
    };
    for (const auto &c : cases) {
        const veltest::ToolResult r = veltest::runTool(VELCLIENT_TOOL, c.given);
        const std::string &text = c.status == 0 ? r.out : r.err;
        EXPECT_EQ(c.status, r.status) << c.given << "\n" << r.err;
        const std::size_t at = text.find(c.text); /* anywhere in a refusal, first otherwise */
        EXPECT_TRUE(c.status == 2 ? at != std::string::npos : at == 0) << c.given << "\n" << text;
        EXPECT_TRUE(c.status == 0 || (std::count(r.err.begin(), r.err.end(), '\n') == 1 && r.out.empty()))
            << c.given << "\n" << r.err;
    }
    EXPECT_EQ(0u, veltest::runTool(VELCLIENT_TOOL, "").err.find("Usage: velclient COMMAND"));
}

#endif
