// The least XCP slave on UDP: answers every command from a table and, while DAQ runs, sends prepared DTOs at
// a fixed rate. So that what is measured is the master.
//
//     bare_slave [DATAGRAMS_PER_SECOND [DATAGRAM_BYTES]]      default 0 (answers only) and 1468
//
// The first line on standard output is "port N"; at the end (SIGTERM) "sent N", the datagrams of the last
// run. It tells one event channel, identification by list number in one byte and timestamps of 4 bytes in
// microseconds.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "core/bytes.h"
#include "xcp/packet.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using lm::xcp::Command;

constexpr std::size_t kHeader = 4;
constexpr std::size_t kBatch = 32;
volatile std::sig_atomic_t ended = 0;

void end(int) {
    ended = 1;
}

class Slave {
  public:
    Slave(double rate, std::size_t datagramBytes) : rate_(rate), datagramBytes_(datagramBytes) {
        for (Bytes& datagram : datagrams_) {
            datagram.resize(datagramBytes);
            for (std::size_t i = 0; i < datagramBytes; ++i)
                datagram[i] = static_cast<std::uint8_t>(i * 37 + i / 256);
            lm::writeLittle(datagram.data(), static_cast<std::uint16_t>(datagramBytes - kHeader));
            lm::writeLittle(datagram.data() + kHeader, std::uint16_t{0});  // ODT 0 of list 0
        }
    }

    int run() {
        socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof own;
        if (::bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0 ||
            ::getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size) != 0) {
            std::perror("bare_slave");
            return 1;
        }
        std::printf("port %u\n", ntohs(own.sin_port));
        std::fflush(stdout);
        while (ended == 0) {
            if (running_) {
                sendDue();
            } else {
                answerOne(0);
            }
        }
        std::printf("sent %llu\n", static_cast<unsigned long long>(sent_));
        return 0;
    }

  private:
    void answerOne(int flags) {
        std::array<std::uint8_t, 300> request{};
        socklen_t size = sizeof master_;
        const ssize_t count = ::recvfrom(socket_, request.data(), request.size(), flags,
                                         reinterpret_cast<sockaddr*>(&master_), &size);
        if (count <= static_cast<ssize_t>(kHeader)) return;
        std::array<std::uint8_t, kHeader + 255> answer{};
        const std::size_t length = fill(request.data() + kHeader, answer.data() + kHeader);
        lm::writeLittle(answer.data(), static_cast<std::uint16_t>(length));
        lm::writeLittle(answer.data() + 2, counter_++);
        ::sendto(socket_, answer.data(), kHeader + length, 0, reinterpret_cast<sockaddr*>(&master_), size);
    }

    /// The answer to a command; returns its length.
    std::size_t fill(const std::uint8_t* command, std::uint8_t* answer) {
        answer[0] = lm::xcp::kPidResponse;
        std::array<std::uint8_t, 7> rest{};
        const auto maxDto = static_cast<std::uint16_t>(datagramBytes_ - kHeader);
        switch (static_cast<Command>(command[0])) {
            case Command::connect:
                rest = {0x05, 0, 248, 0, 0, 1, 1};
                lm::writeLittle(&rest[3], maxDto);
                break;
            case Command::synch:
                answer[0] = lm::xcp::kPidError;
                answer[1] = 0x00;  // ERR_CMD_SYNCH
                return 2;
            case Command::getStatus:
                rest[0] = running_ ? 0x40 : 0;
                break;
            case Command::getDaqProcessorInfo:
                rest = {0x11, 0xFF, 0, 1, 0, 0, 0x40};
                break;
            case Command::getDaqResolutionInfo:
                rest = {1, 248, 1, 0, 0x34, 1, 0};
                break;
            case Command::getDaqEventInfo:
                rest = {0x04, 0xFF, 0, 0, 0, 0, 0};
                break;
            case Command::startStopSynch:
                running_ = command[1] == 1 && rate_ > 0;
                begin_ = Clock::now();
                if (running_) sent_ = 0;
                break;
            case Command::shortUpload:
            case Command::upload:
                return 1U + command[1];
            default:
                break;
        }
        std::copy(rest.begin(), rest.end(), answer + 1);
        return 1 + rest.size();
    }

    /// Sends what the rate asks for by now, then waits a little for a command.
    void sendDue() {
        const std::chrono::duration<double> elapsed = Clock::now() - begin_;
        const auto due = static_cast<std::uint64_t>(elapsed.count() * rate_);
        std::uint64_t missing = due > sent_ ? due - sent_ : 0;
        const bool late = missing > kBatch;
        for (std::size_t i = 0; missing > 0; missing -= std::min<std::uint64_t>(missing, kBatch)) {
            for (i = 0; i < std::min<std::uint64_t>(missing, kBatch); ++i)
                prepare(i, static_cast<double>(sent_ + i) / rate_);
            sendBatch(i);
            if (late) break;  // a command must not wait for what is left
        }
        pollfd wait = {.fd = socket_, .events = POLLIN, .revents = 0};
        const timespec pause = {.tv_sec = 0, .tv_nsec = late ? 0 : 200'000};
        if (::ppoll(&wait, 1, &pause, nullptr) > 0) answerOne(MSG_DONTWAIT);
    }

    void prepare(std::size_t index, double seconds) {
        lm::writeLittle(datagrams_[index].data() + 2, counter_++);
        lm::writeLittle(datagrams_[index].data() + kHeader + 2,
                        static_cast<std::uint32_t>(static_cast<std::uint64_t>(seconds * 1e6)));
        parts_[index] = {.iov_base = datagrams_[index].data(), .iov_len = datagramBytes_};
        messages_[index] = {};
        messages_[index].msg_hdr.msg_iov = &parts_[index];
        messages_[index].msg_hdr.msg_iovlen = 1;
        messages_[index].msg_hdr.msg_name = &master_;
        messages_[index].msg_hdr.msg_namelen = sizeof master_;
    }

    void sendBatch(std::size_t count) {
        for (std::size_t done = 0; done < count;) {
            const int taken = ::sendmmsg(socket_, &messages_[done], static_cast<unsigned>(count - done), 0);
            if (taken > 0) {
                done += static_cast<std::size_t>(taken);
            } else if (errno != EINTR && errno != ECONNREFUSED) {
                std::perror("bare_slave: send");
                std::exit(1);
            }
        }
        sent_ += count;
    }

    const double rate_;
    const std::size_t datagramBytes_;
    int socket_ = -1;
    sockaddr_in master_{};
    std::uint16_t counter_ = 0;
    bool running_ = false;
    Clock::time_point begin_;
    std::uint64_t sent_ = 0;
    std::array<Bytes, kBatch> datagrams_;
    std::array<iovec, kBatch> parts_{};
    std::array<mmsghdr, kBatch> messages_{};
};

}  // namespace

int main(int argc, char** argv) {
    struct sigaction action {};
    action.sa_handler = end;  // without SA_RESTART, so that a waiting receive ends
    ::sigaction(SIGTERM, &action, nullptr);
    const double rate = argc > 1 ? std::atof(argv[1]) : 0;
    const std::size_t bytes = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1468;
    return Slave(rate, bytes).run();
}
