/*
 * velclient_dump.cpp - the velclient-dump command: reads wire frames (VWF)
 * back to back from files or standard input, decodes each and prints its
 * message dump.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "velclient/velClientMsg.h"

namespace {

constexpr std::size_t kFrameHeader = 12;

void usage(FILE *out)
{
    std::fputs("Usage: velclient-dump [--sizes] [FILE...]\n"
               "Decodes wire-format (VWF) messages, one or more frames back to back, from each FILE\n"
               "(standard input when there is none or FILE is -) and prints each message's dump.\n"
               "\n"
               "  --sizes   show the user property map, binary attachment and XML as sizes only\n"
               "  --help    show this text\n"
               "\n"
               "Exit status: 0 when every frame decoded, 1 when some input was not valid VWF,\n"
               "2 for a usage or file error.\n",
               out);
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
bool dumpFrames(const char *name, const std::vector<unsigned char> &bytes, velClient_uint32_t flags)
{
    std::size_t offset = 0;
    std::vector<char> text(1 << 20);
    for (unsigned frame = 1; offset < bytes.size(); ++frame) {
        std::size_t len = frameLength(bytes.data() + offset, bytes.size() - offset);
        velClient_opaqueMsg_pt msg = nullptr;
        velClient_bufInfo_t buf{const_cast<unsigned char *>(bytes.data() + offset),
                                static_cast<velClient_uint32_t>(len)};
        if (len == 0 || velClient_msg_decodeFromVwf(&buf, &msg) != VELCLIENT_OK) {
            std::fprintf(stderr, "velclient-dump: %s: frame %u at byte offset %zu is not valid VWF: %s\n", name,
                         frame, offset,
                         len == 0 ? "truncated or impossible frame header" : velClient_getLastErrorInfo()->errorStr);
            return false;
        }
        velClient_msg_dumpExt(msg, text.data(), text.size(), flags);
        std::printf("--- %s: frame %u, offset %zu, %zu bytes\n%s", name, frame, offset, len, text.data());
        velClient_msg_free(&msg);
        offset += len;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    velClient_uint32_t flags = VELCLIENT_MSGDUMP_FULL;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            usage(stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--sizes") == 0)
            flags = VELCLIENT_MSGDUMP_BRIEF;
        else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            std::fprintf(stderr, "velclient-dump: unknown option %s\n", argv[i]);
            usage(stderr);
            return 2;
        } else
            files.emplace_back(argv[i]);
    }
    if (files.empty())
        files.emplace_back("-");
    velClient_initialize(VELCLIENT_LOG_ERROR, nullptr);
    int status = 0;
    for (const std::string &file : files) {
        bool stdinput = file == "-";
        FILE *in = stdinput ? stdin : std::fopen(file.c_str(), "rb");
        if (in == nullptr) {
            std::fprintf(stderr, "velclient-dump: cannot open %s: %s\n", file.c_str(), std::strerror(errno));
            status = 2;
            continue;
        }
        std::vector<unsigned char> bytes;
        bool ok = readAll(in, bytes);
        if (!stdinput)
            std::fclose(in);
        if (!ok) {
            std::fprintf(stderr, "velclient-dump: cannot read %s\n", file.c_str());
            status = 2;
        } else if (!dumpFrames(stdinput ? "<stdin>" : file.c_str(), bytes, flags) && status == 0) {
            status = 1;
        }
    }
    velClient_cleanup();
    return status;
}
