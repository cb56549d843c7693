/* The AMQP broker tests' entry point: RabbitMQ started once for the run, with
 * a TLS listener beside the plain one, and stopped at its end (see
 * brokerFixture.h). */
#include <cstdio>

#include "broker/brokerFixture.h"

namespace veltest::broker {

namespace {

int tlsPort_s = 0;

class RabbitBroker : public ThrowawayBroker {
public:
    RabbitBroker()
        : ThrowawayBroker("broker.sh", "VELCLIENT_BROKER_TLS=1", "/tmp/velclient-broker-test.XXXXXX",
                          "rabbitmq-server")
    {
    }
    void SetUp() override
    {
        ThrowawayBroker::SetUp();
        if (::testing::Test::HasFatalFailure())
            return;
        FILE *f = std::fopen((dir() + "/tls_port").c_str(), "r");
        ASSERT_NE(nullptr, f) << "no TLS listener";
        ASSERT_EQ(1, std::fscanf(f, "%d", &tlsPort_s));
        std::fclose(f);
    }
};

} // namespace

const Transport &transport()
{
    static const Transport amqp{"amqp", true};
    return amqp;
}

int tlsPort()
{
    return tlsPort_s;
}

std::string tlsFile(const char *name)
{
    return broker().dir() + "/tls/" + name;
}

} // namespace veltest::broker

int main(int argc, char **argv)
{
    return veltest::broker::runBrokerTests(argc, argv, new veltest::broker::RabbitBroker);
}
