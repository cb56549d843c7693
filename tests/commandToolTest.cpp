/* The velclient command without a broker: help, refused command lines, library failures, and typed user
 * properties and message options as a loopback send dumps them. */
#include <algorithm>
#include <string>
#include <utility>

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

/* A loopback send with --dump shows each typed user property and message option as the library holds it. */
TEST(CommandTool, LoopbackSendDumpsEveryTypedUserPropertyAndMessageOption)
{
    const std::pair<const char *, const char *> cases[] = {
        {"i8:int8=-128", "Key 'i8' (INT8) -128"},
        {"u16:uint16=65535", "Key 'u16' (UINT16) 65535"},
        {"i32:int32=-2147483648", "Key 'i32' (INT32) -2147483648"},
        {"u64:uint64=18446744073709551615", "Key 'u64' (UINT64) 18446744073709551615"},
        {"t:bool=true", "Key 't' (BOOL) TRUE"},
        {"f:bool=0", "Key 'f' (BOOL) FALSE"},
        {"db:double=-2.25", "Key 'db' (DOUBLE) -2.250000"},
        {"c:char=A", "Key 'c' (WCHAR) A"},
        {"by:bytes=00fF", "Key 'by' (BYTE ARRAY) len=2\n    00 ff  "},
        {"z:null", "Key 'z' (NULL)"},
        {"qu:queue=qq", "Key 'qu' (DESTINATION) Queue 'qq'"},
        {"s=a:b=c", "Key 's' (STRING) a:b=c"},
        {"a:b:string=x", "Key 'a:b' (STRING) x"},
    };
    std::string args = "send --transport loopback --topic a/b --text hello --ttl 5000 --mode persistent "
                       "--reply-to queue:rq --correlation-id cid --dump";
    for (const auto &[given, shown] : cases)
        args.append(" --user-property '").append(given).append("'");
    const veltest::ToolResult r = veltest::runTool(VELCLIENT_TOOL, args);
    EXPECT_EQ(0, r.status) << r.err;
    for (const auto &[given, shown] : cases) { /* a whole line, but a row of bytes, which goes on with their text */
        const std::string line = "  " + std::string(shown) + (std::string(shown).back() == ' ' ? "" : "\n");
        EXPECT_NE(std::string::npos, r.out.find(line)) << given << "\n" << r.out;
    }
    for (const char *line : {"TimeToLive:                             5000",
                             "DeliveryMode:                           PERSISTENT",
                             "Reply To:                               Queue 'rq'",
                             "CorrelationId:                          cid"})
        EXPECT_NE(std::string::npos, r.out.find(std::string(line) + "\n")) << line << "\n" << r.out;
}

#endif
