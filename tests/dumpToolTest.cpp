/* The velclient-dump command on files: good, several frames, empty, corrupt. */
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/velTestSupport.h"

#ifdef VELCLIENT_DUMP_TOOL

namespace {

namespace fs = std::filesystem;

/* The tool's exit status and its output (standard error included). */
std::pair<int, std::string> run(const std::string &args)
{
    FILE *pipe = popen((std::string(VELCLIENT_DUMP_TOOL) + " " + args + " 2>&1").c_str(), "r");
    std::string output;
    char buf[4096];
    for (std::size_t n; pipe != nullptr && (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;)
        output.append(buf, n);
    const int raw = pipe != nullptr ? pclose(pipe) : -1;
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, output};
}

veltest::Bytes frameWithTopic(const char *topic)
{
    veltest::Msg m;
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_setTopicPtr(m.h, topic));
    return veltest::encode(m.h);
}

class DumpTool : public ::testing::Test {
  protected:
    fs::path dir = fs::temp_directory_path() / ("velclient-dump-test-" + std::to_string(::getpid()));
    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }
    std::string write(const std::string &name, const veltest::Bytes &bytes)
    {
        std::ofstream(dir / name, std::ios::binary)
            .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return (dir / name).string();
    }
};

} // namespace

TEST_F(DumpTool, FramesInOrderEmptyAndCorruptFiles)
{
    const veltest::Bytes a = frameWithTopic("first/topic"), b = frameWithTopic("second/topic");
    auto [status, out] = run(write("two.vwf", veltest::cat(a, b)));
    EXPECT_EQ(0, status);
    const std::size_t first = out.find("Topic 'first/topic'"), frame2 = out.find(veltest::format("frame 2, offset %zu", a.size()));
    EXPECT_TRUE(first < frame2 && frame2 < out.find("Topic 'second/topic'") && out.find("Topic 'second/topic'") != std::string::npos)
        << out;
    std::tie(status, out) = run(write("empty.vwf", {}));
    EXPECT_EQ(0, status);
    EXPECT_EQ(std::string::npos, out.find("frame"));
    veltest::Bytes corrupt = veltest::cat(a, a);
    corrupt[a.size()] = 9; /* the second frame has an unknown version */
    std::tie(status, out) = run(write("bad.vwf", corrupt));
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, out.find(veltest::format("frame 2 at byte offset %zu is not valid VWF", a.size()))) << out;
    EXPECT_EQ(2, run((dir / "absent.vwf").string()).first);
}

TEST_F(DumpTool, HelpSizesOnlyAndBadOptions)
{
    EXPECT_EQ(0, run("--help").first);
    EXPECT_NE(std::string::npos, run("--help").second.find("Usage: velclient-dump"));
    veltest::Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, "<doc/>", 6));
    const std::string file = write("xml.vwf", veltest::encode(m.h));
    auto [status, out] = run("--sizes " + file);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, out.find("XML:" + std::string(36, ' ') + "len=6\n"));
    EXPECT_EQ(std::string::npos, out.find("<doc/>"));
    EXPECT_NE(std::string::npos, run(file).second.find("<doc/>"));
    EXPECT_EQ(2, run("--bogus").first);
}

#endif
