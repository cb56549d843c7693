/* The velclient-dump command on files: good, several frames, empty, corrupt. */
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

#ifdef VELCLIENT_DUMP_TOOL

namespace {

namespace fs = std::filesystem;

struct ToolRun {
    int status;
    std::string output;
};

ToolRun run(const std::string &args)
{
    std::string command = std::string(VELCLIENT_DUMP_TOOL) + " " + args + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    ToolRun r{-1, {}};
    if (pipe == nullptr)
        return r;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0)
        r.output.append(buf, n);
    int raw = pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

std::vector<std::uint8_t> frameWithTopic(const char *topic)
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
    std::string write(const std::string &name, const std::vector<std::uint8_t> &bytes)
    {
        fs::path p = dir / name;
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                                  static_cast<std::streamsize>(bytes.size()));
        return p.string();
    }
};

} // namespace

TEST_F(DumpTool, GoodFileAndSeveralFramesInOrder)
{
    auto a = frameWithTopic("first/topic"), b = frameWithTopic("second/topic");
    ToolRun one = run(write("one.vwf", a));
    EXPECT_EQ(0, one.status);
    EXPECT_NE(std::string::npos, one.output.find("Topic 'first/topic'"));
    auto both = a;
    both.insert(both.end(), b.begin(), b.end());
    ToolRun two = run(write("two.vwf", both));
    EXPECT_EQ(0, two.status);
    std::size_t first = two.output.find("Topic 'first/topic'"), second = two.output.find("Topic 'second/topic'");
    ASSERT_NE(std::string::npos, first);
    ASSERT_NE(std::string::npos, second);
    EXPECT_LT(first, second);
    EXPECT_NE(std::string::npos, two.output.find(veltest::format("frame 2, offset %zu", a.size())));
}

TEST_F(DumpTool, EmptyAndCorruptFiles)
{
    ToolRun empty = run(write("empty.vwf", {}));
    EXPECT_EQ(0, empty.status);
    EXPECT_EQ(std::string::npos, empty.output.find("frame"));
    auto good = frameWithTopic("t");
    auto corrupt = good;
    corrupt.insert(corrupt.end(), good.begin(), good.end());
    corrupt[good.size()] = 9; /* the second frame has an unknown version */
    ToolRun bad = run(write("bad.vwf", corrupt));
    EXPECT_EQ(1, bad.status);
    EXPECT_NE(std::string::npos, bad.output.find(veltest::format("frame 2 at byte offset %zu is not valid VWF", good.size())))
        << bad.output;
    ToolRun missing = run((dir / "absent.vwf").string());
    EXPECT_EQ(2, missing.status);
}

TEST_F(DumpTool, HelpAndSizesOnly)
{
    ToolRun help = run("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.output.find("Usage: velclient-dump"));
    veltest::Msg m;
    ASSERT_EQ(VELCLIENT_OK, velClient_msg_setXml(m.h, "<doc/>", 6));
    std::string file = write("xml.vwf", veltest::encode(m.h));
    ToolRun sizes = run("--sizes " + file);
    EXPECT_EQ(0, sizes.status);
    EXPECT_NE(std::string::npos, sizes.output.find("XML:" + std::string(36, ' ') + "len=6\n"));
    ToolRun full = run(file);
    EXPECT_NE(std::string::npos, full.output.find("<doc/>"));
    EXPECT_EQ(2, run("--bogus").status);
}

#endif
