// The least that a command can cost: a datagram like SHORT_UPLOAD of 4 bytes sent to a slave, its answer
// received, one after the other, by blocking calls on one thread.
//
//     ping_pong HOST_PORT COUNT        prints the seconds that COUNT took

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: ping_pong PORT COUNT\n", stderr);
        return 1;
    }
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    if (::connect(socket, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
        std::perror("ping_pong");
        return 1;
    }
    const long count = std::atol(argv[2]);
    const std::array<std::uint8_t, 12> command = {8, 0, 0, 0, 0xF4, 4, 0, 0, 0, 0, 1, 0};
    std::array<std::uint8_t, 300> answer{};
    const auto begin = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
        if (::send(socket, command.data(), command.size(), 0) != static_cast<ssize_t>(command.size()) ||
            ::recv(socket, answer.data(), answer.size(), 0) < 9) {
            std::perror("ping_pong");
            return 1;
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    std::printf("%.6f\n", elapsed.count());
    return 0;
}
