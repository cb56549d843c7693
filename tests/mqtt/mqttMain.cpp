/* The MQTT session tests' entry point: a throwaway mosquitto (scripts/
 * mosquitto.sh) started once for the run, its state on tmpfs where there is
 * one, and stopped at its end; the sessions use the mqtt transport. */
#include <unistd.h>

#include "support/brokerClient.h"

namespace veltest::broker {

const Transport &transport()
{
    /* A subscribe returns once the broker's SUBACK has arrived. */
    static const Transport mqtt{"mqtt", true};
    return mqtt;
}

} // namespace veltest::broker

int main(int argc, char **argv)
{
    const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return veltest::broker::runBrokerTests(
        argc, argv,
        new veltest::broker::ThrowawayBroker("mosquitto.sh", "", std::string(base) + "/velclient-mqtt-test.XXXXXX",
                                             "mosquitto"));
}
