/* The broker example against the suite's broker, on the suite's transport
 * (both broker-test executables run it): it exits 0 after its wildcard
 * subscriber got both prices and its requester got the reply. */
#include "support/brokerClient.h"
#include "support/toolProcess.h"

#ifdef VELCLIENT_BROKER_EXAMPLE

TEST(BrokerExample, PublishSubscribeAndRequestReplyRun)
{
    const veltest::ToolResult run = veltest::runTool(
        VELCLIENT_BROKER_EXAMPLE, veltest::broker::host() + " " + veltest::broker::transport().name);
    EXPECT_EQ(0, run.status) << run.err;
    for (const char *line : {"subscriber: prices/eu/widgets costs 12.50 EUR\n",
                             "subscriber: prices/us/widgets costs 13.75 USD\n",
                             "requester: reply to quote-42 in inbox 'quotes': widgets at 12.40 EUR until noon\n"})
        EXPECT_NE(std::string::npos, run.out.find(line)) << run.out;
}

#endif
