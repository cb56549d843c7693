/*
 * dumpCommand.cpp - the dump command (velclient-dump, velclient dump): reads
 * wire frames (VWF) back to back from files or standard input, decodes each
 * and prints its message dump. Also the printing of one message's dump that
 * the receive command shares.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commandOptions.h"
#include "commands.h"

namespace vel::tool {

namespace {

constexpr std::size_t kFrameHeader = 12;

void usage(const char *program)
{
    std::printf("Usage: %s [--sizes] [FILE...]\n"
                "Decodes wire-format (VWF) messages, one or more frames back to back, from each FILE\n"
                "(standard input when there is none or FILE is -) and prints each message's dump.\n"
                "\n"
                "  --sizes   show the user property map, binary attachment and XML as sizes only\n"
                "  --help    show this text\n"
                "\n"
                "Exit status: 0 when every frame decoded, 1 when some input was not valid VWF,\n"
                "2 for a usage or file error.\n",
                program);
}

bool readAll(FILE *in, std::vector<unsigned char> &bytes)
{
    unsigned char chunk[65536];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    return !std::ferror(in);
}

/* Length of the frame at p (0 when its header is incomplete or impossible). */
std::size_t frameLength(const unsigned char *p, std::size_t left)
{
    if (left < kFrameHeader)
        return 0;
    std::size_t len = (std::size_t{p[6]} << 24) | (std::size_t{p[7]} << 16) | (std::size_t{p[8]} << 8) | p[9];
    return len >= kFrameHeader && len <= left ? len : 0;
}

/* Dumps every frame of one input; false when a frame is not valid VWF. */
bool dumpFrames(const char *program, const char *name, const std::vector<unsigned char> &bytes,
                velClient_uint32_t flags)
{
    std::size_t offset = 0;
    for (unsigned frame = 1; offset < bytes.size(); ++frame) {
        std::size_t len = frameLength(bytes.data() + offset, bytes.size() - offset);
        velClient_opaqueMsg_pt msg = nullptr;
        velClient_bufInfo_t buf{const_cast<unsigned char *>(bytes.data() + offset),
                                static_cast<velClient_uint32_t>(len)};
        if (len == 0 || velClient_msg_decodeFromVwf(&buf, &msg) != VELCLIENT_OK) {
            std::fprintf(stderr, "%s: %s: frame %u at byte offset %zu is not valid VWF: %s\n", program, name, frame,
                         offset,
                         len == 0 ? "truncated or impossible frame header" : velClient_getLastErrorInfo()->errorStr);
            return false;
        }
        printMessageDump("--- " + std::string(name) + ": frame " + std::to_string(frame) + ", offset " +
                             std::to_string(offset) + ", " + std::to_string(len) + " bytes",
                         msg, flags);
        velClient_msg_free(&msg);
        offset += len;
    }
    return true;
}

/* Dumps one file ("-": standard input); the exit status it asks for. */
int dumpFile(const char *program, const std::string &file, velClient_uint32_t flags)
{
    const bool stdinput = file == "-";
    FILE *in = stdinput ? stdin : std::fopen(file.c_str(), "rb");
    if (in == nullptr) {
        std::fprintf(stderr, "%s: cannot open %s: %s\n", program, file.c_str(), std::strerror(errno));
        return kExitUsage;
    }
    std::vector<unsigned char> bytes;
    const bool ok = readAll(in, bytes);
    if (!stdinput)
        std::fclose(in);
    if (!ok) {
        std::fprintf(stderr, "%s: cannot read %s\n", program, file.c_str());
        return kExitUsage;
    }
    return dumpFrames(program, stdinput ? "<stdin>" : file.c_str(), bytes, flags) ? kExitOk : kExitFailure;
}

int dump(const char *program, int argc, char **argv)
{
    velClient_uint32_t flags = VELCLIENT_MSGDUMP_FULL;
    std::vector<std::string> files;
    for (OptionReader args(argc, argv); args.next();) {
        if (args.isHelp()) {
            usage(program);
            return kExitOk;
        }
        if (args.is("--sizes")) {
            args.noValue();
            flags = VELCLIENT_MSGDUMP_BRIEF;
        } else if (args.isOperand()) {
            files.emplace_back(args.name());
        } else {
            args.unknown();
        }
    }
    if (files.empty())
        files.emplace_back("-");
    velclient::Library library(VELCLIENT_LOG_ERROR);
    int status = kExitOk;
    for (const std::string &file : files) {
        const int fileStatus = dumpFile(program, file, flags);
        /* A file error (2) outranks invalid input (1). */
        if (fileStatus == kExitUsage || status == kExitOk)
            status = fileStatus;
    }
    return status;
}

} // namespace

void printMessageDump(const std::string &heading, velClient_opaqueMsg_pt msg, velClient_uint32_t flags)
{
    std::printf("%s\n", heading.c_str());
    check(velClient_msg_dumpExt(msg, nullptr, 0, flags));
    std::fflush(stdout);
}

int dumpCommand(const char *program, int argc, char **argv)
{
    return runGuarded(program, [&] { return dump(program, argc, argv); });
}

} // namespace vel::tool
