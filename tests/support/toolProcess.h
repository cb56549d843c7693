/* The velclient command run in a child process by the tests: its standard
 * output read as it comes, its standard error kept in a temporary file, its
 * exit status. The command's path comes from the build (VELCLIENT_TOOL). */
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace veltest {

struct ToolResult {
    int status = -1; /* the exit status; -1 when the command did not exit */
    std::string out;
    std::string err;
};

/* "<tool> <args>" run by the shell (args may hold quotes and redirections); standard input is /dev/null
 * unless args redirect it. The command's own pid goes to pidFile when one is given. */
class ToolProcess {
public:
    explicit ToolProcess(const std::string &tool, const std::string &args, const std::string &pidFile = "")
    {
        char name[] = "/tmp/velclient-tool-err.XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0)
            close(fd);
        errFile_ = name;
        const std::string pid = pidFile.empty() ? "" : "echo $$ >" + pidFile + "; ";
        /* Redirections in args come later and win. */
        pipe_ = popen((pid + "exec " + tool + " </dev/null 2>" + errFile_ + " " + args).c_str(), "r");
    }
    ~ToolProcess()
    {
        finish();
        std::remove(errFile_.c_str());
    }
    ToolProcess(const ToolProcess &) = delete;
    ToolProcess &operator=(const ToolProcess &) = delete;

    /* The next line of standard output without its newline; false at its end. */
    bool readLine(std::string &line)
    {
        char buf[4096];
        if (pipe_ == nullptr || std::fgets(buf, sizeof buf, pipe_) == nullptr)
            return false;
        line = buf;
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        out_ += buf;
        return true;
    }

    /* Reads standard output to its end and waits for the command. */
    ToolResult finish()
    {
        if (pipe_ != nullptr) {
            char buf[4096];
            for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, pipe_)) > 0;)
                out_.append(buf, n);
            const int raw = pclose(pipe_);
            pipe_ = nullptr;
            result_.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
            result_.out = out_;
            std::ostringstream err;
            err << std::ifstream(errFile_).rdbuf();
            result_.err = err.str();
        }
        return result_;
    }

private:
    FILE *pipe_ = nullptr;
    std::string errFile_;
    std::string out_;
    ToolResult result_;
};

inline ToolResult runTool(const std::string &tool, const std::string &args)
{
    return ToolProcess(tool, args).finish();
}

} // namespace veltest
