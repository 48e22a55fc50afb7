// From the socket to the record sink: the UDP transport, the master's dispatch and the DAQ decoder, against a
// bare loop that only receives and counts, both fed as fast as they go.
//
//     dto_receive [DATAGRAMS]        default 400000 per run
//
// A thread sends over loopback and never has more than kWindow datagrams under way, so nothing may be lost.
// Both sides run in turn; per row it prints the key, the best rate of ours and of the bare loop (datagrams/s
// by the clock), the same per second of the receiving thread's processor time, and what was lost in all runs.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/bytes.h"
#include "xcp/daq_decoder.h"
#include "xcp/master.h"
#include "xcp/udp_transport.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kWindow = 1500;
constexpr std::size_t kBatch = 64;
constexpr std::size_t kHeader = 4;
constexpr std::size_t kDatagram = 1400;
constexpr int kRounds = 7;

double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Counts on the receiving thread; the sender watches the count.
struct Progress {
    std::atomic<std::uint64_t> datagrams{0};
    double processorAtStart = 0;
    double processor = 0;
    Clock::time_point begin;
    Clock::time_point end;

    void add(std::uint64_t count, std::uint64_t wanted) {
        const std::uint64_t before = datagrams.load(std::memory_order_relaxed);
        if (before == 0) {
            processorAtStart = threadSeconds();
            begin = Clock::now();
        }
        if (before + count >= wanted) {
            processor = threadSeconds() - processorAtStart;
            end = Clock::now();
        }
        datagrams.store(before + count, std::memory_order_release);
    }
};

class Sender {
  public:
    explicit Sender(std::size_t packetBytes) : perDatagram_(kDatagram / (packetBytes + kHeader)) {
        socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof own;
        if (::bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0 ||
            ::getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size) != 0) {
            std::perror("dto_receive");
            std::exit(1);
        }
        port_ = ntohs(own.sin_port);
        for (auto& bytes : bytes_) {
            bytes.resize(perDatagram_ * (packetBytes + kHeader));
            for (std::size_t at = 0; at < bytes.size(); at += packetBytes + kHeader)
                lm::writeLittle(&bytes[at], static_cast<std::uint16_t>(packetBytes));
        }
    }
    ~Sender() { ::close(socket_); }

    std::uint16_t port() const { return port_; }
    std::size_t perDatagram() const { return perDatagram_; }

    /// Connects to whoever sends the first datagram.
    void meet() {
        std::array<char, 64> hello{};
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (::recvfrom(socket_, hello.data(), hello.size(), 0, reinterpret_cast<sockaddr*>(&peer), &size) <
                0 ||
            ::connect(socket_, reinterpret_cast<sockaddr*>(&peer), size) != 0) {
            std::perror("dto_receive");
            std::exit(1);
        }
    }

    /// Gives up when nothing more is received for a second: something was lost.
    void run(const Progress& progress, std::uint64_t wanted) {
        std::uint16_t counter = 0;
        std::uint32_t ticks = 0;
        std::uint64_t sent = 0;
        auto lastMove = Clock::now();
        std::uint64_t lastSeen = 0;
        while (lastSeen < wanted) {
            const std::uint64_t seen = progress.datagrams.load(std::memory_order_acquire);
            if (seen != lastSeen) lastMove = Clock::now();
            lastSeen = seen;
            if (Clock::now() - lastMove > std::chrono::seconds(1)) return;
            if (sent == wanted || sent - seen + kBatch > kWindow) {
                std::this_thread::yield();
                continue;
            }
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kBatch, wanted - sent));
            for (std::size_t i = 0; i < count; ++i)
                prepare(i, counter, ticks);
            for (std::size_t done = 0; done < count;) {
                const int taken =
                    ::sendmmsg(socket_, &messages_[done], static_cast<unsigned>(count - done), 0);
                if (taken > 0) done += static_cast<std::size_t>(taken);
            }
            sent += count;
        }
    }

  private:
    void prepare(std::size_t index, std::uint16_t& counter, std::uint32_t& ticks) {
        std::vector<std::uint8_t>& bytes = bytes_[index];
        for (std::size_t at = 0; at < bytes.size(); at += bytes.size() / perDatagram_) {
            lm::writeLittle(&bytes[at + 2], counter++);
            lm::writeLittle(&bytes[at + kHeader + 2], ticks += 10);
        }
        parts_[index] = {.iov_base = bytes.data(), .iov_len = bytes.size()};
        messages_[index] = {};
        messages_[index].msg_hdr.msg_iov = &parts_[index];
        messages_[index].msg_hdr.msg_iovlen = 1;
    }

    std::size_t perDatagram_;
    int socket_ = -1;
    std::uint16_t port_ = 0;
    std::array<std::vector<std::uint8_t>, kBatch> bytes_;
    std::array<iovec, kBatch> parts_{};
    std::array<mmsghdr, kBatch> messages_{};
};

class RecordCounter final : public lm::xcp::IDaqRecordSink {
  public:
    RecordCounter(Progress& progress, std::size_t perDatagram, std::uint64_t wanted)
        : progress_(progress), perDatagram_(perDatagram), wanted_(wanted) {}
    void onRecord(const lm::xcp::DaqRecord& record) override {
        bytes_ += record.size;
        if (++inDatagram_ < perDatagram_) return;
        inDatagram_ = 0;
        progress_.add(1, wanted_);
    }

  private:
    Progress& progress_;
    const std::size_t perDatagram_;
    const std::uint64_t wanted_;
    std::size_t inDatagram_ = 0;
    std::uint64_t bytes_ = 0;
};

/// Returns the packets lost.
std::uint64_t receiveOurs(Sender& sender, std::size_t packetBytes, Progress& progress, std::uint64_t wanted) {
    const lm::xcp::DaqCapabilities slave = {.dynamicConfiguration = true,
                                            .timestampSupported = true,
                                            .maxEventChannel = 1,
                                            .identification = lm::xcp::DaqIdentification::relativeByte,
                                            .timestampSize = 4,
                                            .tickNs = 1000,
                                            .events = {{.number = 0}}};
    std::vector<lm::xcp::DaqSignal> signals;
    for (std::size_t left = packetBytes - 6; left > 0; left -= std::min<std::size_t>(left, 8)) {
        const auto at = static_cast<std::uint32_t>(signals.size() * 8);
        signals.push_back({{at, 0}, static_cast<std::uint32_t>(std::min<std::size_t>(left, 8)), 0});
    }
    const auto plan = lm::xcp::planDaq(signals, slave, {.maxDto = static_cast<std::uint16_t>(packetBytes)});
    if (!plan) {
        std::fprintf(stderr, "%s\n", plan.error().text().c_str());
        std::exit(1);
    }
    RecordCounter sink(progress, sender.perDatagram(), wanted);
    lm::xcp::DaqDecoder decoder(plan.value(), slave, {});
    decoder.setSink(&sink);
    lm::xcp::UdpTransport transport({.host = "127.0.0.1", .port = sender.port()});
    lm::xcp::Master master(transport, {});
    master.setDtoSink(&decoder);
    const std::uint8_t hello = 0;
    if (!transport.open() || !transport.send(&hello, 1)) std::exit(1);
    sender.meet();
    sender.run(progress, wanted);
    transport.close();
    return wanted * sender.perDatagram() - decoder.counters().records;
}

std::uint64_t receiveBare(Sender& sender, Progress& progress, std::uint64_t wanted) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int size = 8 * 1024 * 1024;
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer.sin_port = htons(sender.port());
    if (::connect(socket, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0 ||
        ::send(socket, "", 1, 0) != 1) {
        std::perror("dto_receive");
        std::exit(1);
    }
    sender.meet();
    std::thread receiver([&] {
        std::vector<std::array<std::uint8_t, 2048>> buffers(kBatch);
        std::array<iovec, kBatch> parts{};
        std::array<mmsghdr, kBatch> messages{};
        for (std::size_t i = 0; i < kBatch; ++i) {
            parts[i] = {.iov_base = buffers[i].data(), .iov_len = buffers[i].size()};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const timeval patience = {.tv_sec = 2, .tv_usec = 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        int count = 1;
        while (progress.datagrams.load(std::memory_order_relaxed) < wanted && count > 0) {
            count = ::recvmmsg(socket, messages.data(), kBatch, MSG_WAITFORONE, nullptr);
            if (count > 0) progress.add(static_cast<std::uint64_t>(count), wanted);
        }
    });
    sender.run(progress, wanted);
    receiver.join();
    ::close(socket);
    return wanted - progress.datagrams;
}

struct Best {
    double byClock = 0;
    double byProcessor = 0;

    void take(const Progress& progress) {
        const auto count = static_cast<double>(progress.datagrams.load());
        const std::chrono::duration<double> elapsed = progress.end - progress.begin;
        byClock = std::max(byClock, count / elapsed.count());
        byProcessor = std::max(byProcessor, count / progress.processor);
    }
};

void measure(const char* key, std::size_t packetBytes, std::uint64_t wanted) {
    Best ours;
    Best bare;
    std::uint64_t lost = 0;
    for (int round = 0; round < kRounds; ++round) {
        Progress ourProgress;
        Sender ourSender(packetBytes);
        lost += receiveOurs(ourSender, packetBytes, ourProgress, wanted);
        ours.take(ourProgress);
        Progress bareProgress;
        Sender bareSender(packetBytes);
        lost += receiveBare(bareSender, bareProgress, wanted);
        bare.take(bareProgress);
    }
    std::printf("%s %.0f %.0f %.0f %.0f %llu\n", key, ours.byClock, bare.byClock, ours.byProcessor,
                bare.byProcessor, static_cast<unsigned long long>(lost));
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t wanted = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 400'000;
    measure("one", kDatagram - kHeader, wanted);
    measure("many", 16, wanted / 4);
    return 0;
}
