/* The velclient command without a broker: help, refused command lines and library failures, typed user
 * properties and the other message options as the loopback send dumps them, and the dump tools. */
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/toolProcess.h"
#include "support/velTestSupport.h"

#ifdef VELCLIENT_TOOL

namespace {

veltest::ToolResult run(const std::string &args)
{
    return veltest::runTool(VELCLIENT_TOOL, args);
}

std::size_t lines(const std::string &text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

/* A dump without its receive timestamp lines, which decoding sets to the time of the run. */
std::string withoutReceiveTime(std::string dump)
{
    for (std::size_t at; (at = dump.find("RcvTimestamp:")) != std::string::npos;)
        dump.erase(at, dump.find('\n', at) + 1 - at);
    return dump;
}

/* The bytes in a new temporary file; the caller removes it. */
std::string tempFile(const void *data, std::size_t size)
{
    char name[] = "/tmp/velclient-tool-in.XXXXXX";
    const int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(size), write(fd, data, size));
    close(fd);
    return name;
}

/* What a command line (or one of its options) makes the command print. */
struct Expect {
    const char *given;
    const char *text;
};

} // namespace

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
        {"receive -h", "Usage: velclient receive", 0},
        {"dump --help", "Usage: velclient dump", 0},
        {"bogus", "velclient: unknown command 'bogus' (see velclient --help)"},
        {"send --topic a --bogus", "velclient send: unknown option --bogus (see velclient send --help)"},
        {"send --topic a extra", "unexpected argument 'extra'"},
        {"send --topic", "option --topic needs a value"},
        {"send --text hi", "needs --topic or --queue"},
        {"send --topic a --queue b", "give one --topic or --queue"},
        {"send --topic a --text x --file y", "give one --text or --file"},
        {"send --topic a --file /nonexistent/x", "option --file: cannot open /nonexistent/x: No such file"},
        {"send --topic a --ttl 315360000001", "option --ttl: '315360000001' is not a whole number from 0 to 315360000000"},
        {"send --topic a --count 0", "option --count: '0' is not a whole number from 1 to 4294967295"},
        {"send --topic a --mode fast", "option --mode: 'fast' is not direct, persistent or nonpersistent"},
        {"send --topic a --transport tcp", "option --transport: 'tcp' is not amqp, mqtt or loopback"},
        {"send --queue q --transport mqtt", "option --queue: an mqtt session has no queues (use --topic)"},
        {"send --topic a --property SESSION_SSL", "option --property: 'SESSION_SSL' is not NAME=VALUE"},
        {"send --topic a --dump=yes", "option --dump takes no value"},
        {"send --topic a --user-property n:int8=128",
         "option --user-property n:int8: '128' is not a whole number from -128 to 127"},
        {"send --topic a --user-property n:uint64=18446744073709551616", "from 0 to 18446744073709551615"},
        {"send --topic a --user-property n:bool=yes", "n:bool: 'yes' is not true, false, 1 or 0"},
        {"send --topic a --user-property n:float=1e39", "'1e39' is not within the range of a float"},
        {"send --topic a --user-property n:double=1.5.2", "'1.5.2' is not a number"},
        {"send --topic a --user-property n:char=ab", "'ab' is not one character up to U+FFFF"},
        {"send --topic a --user-property 'n:char=\xF0\x9F\x98\x80'", "is not one character up to U+FFFF"},
        {"send --topic a --user-property n:bytes=abc", "'abc' is not bytes as pairs of hex digits"},
        {"send --topic a --user-property n:null=x", "'x' is not empty"},
        {"send --topic a --user-property n:int33=1", "unknown type 'int33' in 'n:int33=1' (types: string, bool,"},
        {"send --topic a --user-property =x", "'=x' is not NAME=VALUE or NAME:TYPE=VALUE"},
        {"receive", "velclient receive: needs --topic or --queue"},
        {"receive --topic a --ack sometimes", "option --ack: 'sometimes' is not auto or client"},
        {"receive --topic a --count 0", "option --count: '0' is not a whole number from 1 to 9223372036854775807"},
        {"receive --topic a --transport loopback",
         "receive needs a broker transport, amqp or mqtt (a loopback session receives only what it sends)"},
        {"dump --sizes=1", "velclient dump: option --sizes takes no value"},
        {"send --host 127.0.0.1:1 --topic a --text x",
         "velclient send: Could not connect to 127.0.0.1:1 (proton:io: Connection refused", 1},
        {"receive --host 127.0.0.1:1 --host 127.0.0.1:1 --queue a", "velclient receive: Could not connect to 127.0.0.1:1", 1},
        {"send --transport mqtt --host 127.0.0.1:1 --topic a", "velclient send: Could not connect to 127.0.0.1:1", 1},
        {"receive --transport mqtt --host 127.0.0.1:1 --topic a", "velclient receive: Could not connect to 127.0.0.1:1", 1},
        {"send --transport loopback --text x --topic " + std::string(251, 'x'), "velclient send: ", 1},
        {"send --property SESSION_NOT_A_PROPERTY=1 --topic a", "velclient send: ", 1},
    };
    for (const auto &c : cases) {
        const veltest::ToolResult r = run(c.given);
        const std::string &text = c.status == 0 ? r.out : r.err;
        EXPECT_EQ(c.status, r.status) << c.given << "\n" << r.err;
        const std::size_t at = text.find(c.text); /* anywhere in a refusal, first otherwise */
        EXPECT_TRUE(c.status == 2 ? at != std::string::npos : at == 0) << c.given << "\n" << text;
        EXPECT_TRUE(c.status == 0 || (lines(r.err) == 1 && r.out.empty())) << c.given << "\n" << r.err;
    }
    EXPECT_EQ(0u, run("").err.find("Usage: velclient COMMAND"));
}

TEST(CommandTool, LoopbackSendDumpsEveryTypedUserPropertyAndMessageOption)
{
    const Expect cases[] = {
        {"i8:int8=-128", "Key 'i8' (INT8) -128"},
        {"u8:uint8=255", "Key 'u8' (UINT8) 255"},
        {"i16:int16=-32768", "Key 'i16' (INT16) -32768"},
        {"u16:uint16=65535", "Key 'u16' (UINT16) 65535"},
        {"i32:int32=-2147483648", "Key 'i32' (INT32) -2147483648"},
        {"u32:uint32=4294967295", "Key 'u32' (UINT32) 4294967295"},
        {"i64:int64=-9223372036854775808", "Key 'i64' (INT64) -9223372036854775808"},
        {"u64:uint64=18446744073709551615", "Key 'u64' (UINT64) 18446744073709551615"},
        {"t:bool=true", "Key 't' (BOOL) TRUE"},
        {"f:bool=0", "Key 'f' (BOOL) FALSE"},
        {"fl:float=1.5", "Key 'fl' (FLOAT) 1.500000"},
        {"db:double=-2.25", "Key 'db' (DOUBLE) -2.250000"},
        {"c:char=A", "Key 'c' (WCHAR) A"},
        {"by:bytes=00fF", "Key 'by' (BYTE ARRAY) len=2"},
        {"z:null", "Key 'z' (NULL)"},
        {"tp:topic=x/y", "Key 'tp' (DESTINATION) Topic 'x/y'"},
        {"qu:queue=qq", "Key 'qu' (DESTINATION) Queue 'qq'"},
        {"s=a:b=c", "Key 's' (STRING) a:b=c"},
        {"a:b:string=x", "Key 'a:b' (STRING) x"},
    };
    std::string args = "send --transport loopback --topic a/b --text hello --ttl 5000 --mode persistent "
                       "--reply-to queue:rq --correlation-id cid --count 2 --dump";
    for (const auto &c : cases)
        args.append(" --user-property '").append(c.given).append("'");
    const veltest::ToolResult r = run(args);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("velclient send: 2 sent\n", r.err);
    const std::size_t second = r.out.find("--- message 2\n");
    ASSERT_NE(std::string::npos, second) << r.out;
    const std::string first = r.out.substr(0, second);
    for (const auto &c : cases)
        EXPECT_NE(std::string::npos, first.find(std::string("  ").append(c.text).append("\n"))) << c.given << "\n" << first;
    EXPECT_NE(std::string::npos, first.find("len=2\n    00 ff  ")) << first;
    for (const char *line : {"Destination:                            Topic 'a/b'",
                             "DeliveryMode:                           PERSISTENT",
                             "TimeToLive:                             5000", "Reply To:                               Queue 'rq'",
                             "CorrelationId:                          cid",
                             "Binary Attachment String:               len=5"})
        EXPECT_NE(std::string::npos, first.find(std::string(line) + "\n")) << line << "\n" << first;
    EXPECT_EQ(first.substr(std::string("--- message 1").size()), r.out.substr(second + std::string("--- message 2").size()));
}

TEST(CommandTool, FileAttachmentFromStandardInputAndReplyToTopic)
{
    const std::string name = tempFile("ab\0c", 4);
    const veltest::ToolResult r = run("send --transport loopback --queue q --reply-to re/ply --file - --dump <" + name);
    std::remove(name.c_str());
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Binary Attachment:                      len=4\n  61 62 00 63")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Reply To:                               Topic 're/ply'\n")) << r.out;
    /* Without --text or --file nothing is read and the message has no attachment. */
    const veltest::ToolResult bare = run("send --transport loopback --queue q --dump");
    EXPECT_EQ(0, bare.status) << bare.err;
    EXPECT_EQ(std::string::npos, bare.out.find("Attachment")) << bare.out;
}

#ifdef VELCLIENT_DUMP_TOOL
namespace {

/* velclient-dump with its standard error on its standard output. */
veltest::ToolResult dump(const std::string &args)
{
    return veltest::runTool(VELCLIENT_DUMP_TOOL, args + " 2>&1");
}

veltest::Bytes frameWithTopic(const char *topic)
{
    veltest::Msg m;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, topic));
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, "<doc/>", 6));
    return veltest::encode(m.h);
}

} // namespace

/* Every frame of a file in order, with its offset; an empty file has none; a corrupt frame gives status 1 after
 * the good ones, an absent file status 2. velclient dump prints what velclient-dump prints, in full or sizes only. */
TEST(DumpTool, FramesInOrderEmptyCorruptAndAbsentFiles)
{
    const veltest::Bytes a = frameWithTopic("first/topic"), two = veltest::cat(a, frameWithTopic("second/topic"));
    veltest::Bytes corrupt = veltest::cat(a, a);
    corrupt[a.size()] = 9; /* the second frame has an unknown version */
    const std::string files[] = {tempFile(two.data(), two.size()), tempFile("", 0), tempFile(corrupt.data(), corrupt.size())};
    const veltest::ToolResult good = dump(files[0]), empty = dump(files[1]), bad = dump(files[2]);
    const veltest::ToolResult sizes = dump("--sizes " + files[0]), command = run("dump --sizes " + files[0]);
    for (const std::string &f : files)
        std::remove(f.c_str());
    EXPECT_EQ(0, good.status);
    const std::size_t first = good.out.find("Topic 'first/topic'"), second = good.out.find("Topic 'second/topic'"),
                      frame2 = good.out.find(veltest::format("frame 2, offset %zu", a.size()));
    EXPECT_TRUE(first < frame2 && frame2 < second && second != std::string::npos) << good.out;
    EXPECT_NE(std::string::npos, good.out.find("<doc/>")) << good.out;
    EXPECT_EQ(std::string::npos, sizes.out.find("<doc/>")) << sizes.out;
    EXPECT_NE(std::string::npos, sizes.out.find("XML:" + std::string(36, ' ') + "len=6\n")) << sizes.out;
    EXPECT_EQ(withoutReceiveTime(sizes.out), withoutReceiveTime(command.out));
    EXPECT_EQ(0, empty.status);
    EXPECT_EQ(std::string::npos, empty.out.find("frame"));
    EXPECT_EQ(1, bad.status);
    EXPECT_NE(std::string::npos, bad.out.find(veltest::format("frame 2 at byte offset %zu is not valid VWF", a.size())))
        << bad.out;
    EXPECT_EQ(2, dump("/nonexistent/absent.vwf").status);
    EXPECT_EQ(2, dump("--bogus").status);
}
#endif

#endif
