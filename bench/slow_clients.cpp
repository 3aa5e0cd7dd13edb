// Holds COUNT client connections open against HOST:PORT for SECONDS, each
// trickling a request head one byte a second and never finishing it, the load a
// server must carry without making its other clients wait. A connection the server
// closes (at its head deadline) is opened again, so COUNT stay open throughout.
//
//   slow_clients HOST PORT COUNT SECONDS
// Prints how many connections were opened in all.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::string kHead = "POST /zel2/location HTTP/1.1\r\nHost: bench\r\nX-Slow: ";

int connectTo(const sockaddr_in& address) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd >= 0) {
        connect(fd, reinterpret_cast<const sockaddr*>(&address),
                sizeof address);  // completes later
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: slow_clients HOST PORT COUNT SECONDS\n");
        return 2;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &address.sin_addr) != 1) {
        std::fprintf(stderr, "slow_clients: %s is not an IPv4 address\n", argv[1]);
        return 2;
    }
    const size_t count = std::strtoul(argv[3], nullptr, 10);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[4]));

    std::vector<pollfd> connections(count);
    std::vector<size_t> sent(count, 0);
    size_t opened = 0;
    for (pollfd& connection : connections) {
        connection = {connectTo(address), POLLIN, 0};
        ++opened;
    }
    auto reopen = [&](size_t i) {
        close(connections[i].fd);
        connections[i].fd = connectTo(address);
        sent[i] = 0;
        ++opened;
    };
    auto nextByte = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < end) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
            nextByte - std::chrono::steady_clock::now());
        poll(connections.data(), connections.size(), std::max<int>(0, wait.count()));
        for (size_t i = 0; i < count; ++i) {  // closed by the server: open another
            if ((connections[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                reopen(i);
            }
        }
        if (std::chrono::steady_clock::now() < nextByte) {
            continue;
        }
        nextByte += std::chrono::seconds(1);
        for (size_t i = 0; i < count; ++i) {
            const char byte = sent[i] < kHead.size() ? kHead[sent[i]] : 'x';
            if (send(connections[i].fd, &byte, 1, MSG_NOSIGNAL) == 1) {
                ++sent[i];
            } else if (errno != EAGAIN && errno != ENOTCONN) {  // not merely still connecting
                reopen(i);
            }
        }
    }
    std::printf("%zu slow connections held, %zu opened in all\n", count, opened);
    return 0;
}
