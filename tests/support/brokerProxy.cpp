/* The TCP relay of the broker tests (see brokerProxy.h): one thread polls the
 * listener and both ends of every relayed connection, and acts on a cut
 * within 10 ms. */
#include "support/brokerProxy.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace veltest::broker {

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return addr;
}

/* Moves what from holds to to; false when either end is gone. */
bool relay(int from, int to)
{
    char buf[16384];
    ssize_t got = read(from, buf, sizeof buf);
    if (got <= 0)
        return false;
    for (ssize_t sent = 0; sent < got;) {
        ssize_t n = write(to, buf + sent, static_cast<std::size_t>(got - sent));
        if (n <= 0)
            return false;
        sent += n;
    }
    return true;
}

} // namespace

Proxy::Proxy(int targetPort) : targetPort_(targetPort)
{
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    listen(listener_, 16);
    socklen_t len = sizeof addr;
    getsockname(listener_, reinterpret_cast<sockaddr *>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread(&Proxy::run, this);
}

Proxy::~Proxy()
{
    stop_ = true;
    thread_.join();
    for (Pair &pair : pairs_)
        closePair(pair);
    close(listener_);
}

void Proxy::closePair(Pair &pair)
{
    linger hard{1, 0}; /* a reset, as from a crashed peer */
    setsockopt(pair.client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(pair.client);
    close(pair.broker);
}

void Proxy::run()
{
    while (!stop_) {
        if (cutRequested_.exchange(false)) {
            for (Pair &pair : pairs_)
                closePair(pair);
            pairs_.clear();
        }
        std::vector<pollfd> fds = {{listener_, POLLIN, 0}};
        if (!paused_)
            for (const Pair &pair : pairs_) {
                fds.push_back({pair.client, POLLIN, 0});
                fds.push_back({pair.broker, POLLIN, 0});
            }
        if (poll(fds.data(), fds.size(), 10) <= 0)
            continue;
        if (fds[0].revents & POLLIN) {
            int client = accept(listener_, nullptr, nullptr);
            if (client >= 0 && refusing_) {
                close(client);
            } else if (client >= 0) {
                int broker = socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in addr = loopback(targetPort_);
                if (connect(broker, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
                    pairs_.push_back({client, broker});
                } else {
                    close(client);
                    close(broker);
                }
            }
        }
        for (std::size_t i = 1; i + 1 < fds.size(); i += 2) {
            Pair &pair = pairs_[(i - 1) / 2];
            bool alive = true;
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR))
                alive = relay(pair.client, pair.broker);
            if (alive && (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR)))
                alive = relay(pair.broker, pair.client);
            if (!alive) {
                closePair(pair);
                pair.client = pair.broker = -1;
            }
        }
        std::erase_if(pairs_, [](const Pair &p) { return p.client < 0; });
    }
}

} // namespace veltest::broker
