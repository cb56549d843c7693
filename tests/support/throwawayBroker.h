/* The broker a broker-test executable shares: started once for the run by
 * one of the scripts/ throwaway-broker scripts, on a free port of 127.0.0.1
 * with its state in a temporary directory, and stopped after the last test,
 * each process by its own pid; a test may kill it and start it again on the
 * same port with the same data. Without the broker every test fails, unless
 * VELCLIENT_SKIP_BROKER_TESTS=1, which skips them all and says so. */
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace veltest::broker {

/* Runs command in the shell and returns its standard output; status gets its exit status. */
std::string run(const std::string &command, int &status);

class ThrowawayBroker : public ::testing::Environment {
public:
    /* script: under scripts/; env: assignments put before the start command;
     * dirTemplate: for mkdtemp; missing: what to install when it does not start. */
    ThrowawayBroker(std::string script, std::string env, std::string dirTemplate, std::string missing);
    void SetUp() override;
    void TearDown() override;

    int port() const { return port_; }
    const std::string &dir() const { return dir_; }
    /* Ends the broker with signal ("TERM" or "KILL") and waits until it is gone. */
    void kill(const char *signal);
    /* Starts it again on the same port with its data. */
    void restart();

private:
    std::string command(const std::string &verb) const;

    std::string script_;
    std::string env_;
    std::string dirTemplate_;
    std::string missing_;
    std::string dir_;
    int port_ = 0;
};

/* The broker of the run (set by runBrokerTests). */
ThrowawayBroker &broker();

/* main() of a broker-test executable: skips everything (exit status 77) when
 * VELCLIENT_SKIP_BROKER_TESTS=1, else starts the library quietly and runs
 * every test with the broker set up around them. Takes the broker over. */
int runBrokerTests(int argc, char **argv, ThrowawayBroker *broker);

} // namespace veltest::broker
