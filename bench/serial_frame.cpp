// What a byte costs on a serial line: framing and CRC in both directions, as a ratio to the plain byte-wise
// CRC alone, and the processor time of the receiving transport at 1 Mbaud (100,000 bytes a second).
//
//     serial_frame [SECONDS]        default 5, for the second part

#include "xcp/serial_frame.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "xcp/serial_transport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

class Count final : public lm::xcp::ISerialFrameSink, public lm::xcp::IPacketSink {
  public:
    void onFrame(const std::uint8_t*, std::size_t) override { ++frames; }
    void onPlainBytes(const std::uint8_t*, std::size_t) override {}
    void onInvalidFrame() override {}
    void onPacket(const std::uint8_t*, std::size_t, lm::xcp::ReceiveTime) override { ++frames; }
    void onTransportEvent(const lm::xcp::TransportEvent&) override {}

    std::uint64_t frames = 0;
};

/// The least time of several rounds, in nanoseconds per byte.
double leastPerByte(std::size_t bytes, const std::function<void()>& work) {
    double least = std::numeric_limits<double>::infinity();
    for (int round = 0; round < 9; ++round) {
        const auto start = Clock::now();
        work();
        const std::chrono::duration<double, std::nano> elapsed = Clock::now() - start;
        least = std::min(least, elapsed.count() / static_cast<double>(bytes));
    }
    return least;
}

std::uint16_t plainCrc(const Bytes& bytes) {
    static const std::vector<std::uint16_t> table = [] {
        std::vector<std::uint16_t> entries(256);
        for (unsigned byte = 0; byte < 256; ++byte) {
            unsigned crc = byte << 8U;
            for (int bit = 0; bit < 8; ++bit) {
                crc = (crc << 1U) ^ ((crc & 0x8000U) != 0 ? 0x1021U : 0U);
            }
            entries[byte] = static_cast<std::uint16_t>(crc);
        }
        return entries;
    }();
    unsigned crc = 0xFFFF;
    for (const std::uint8_t byte : bytes) {
        crc = ((crc << 8U) & 0xFFFFU) ^ table[byte ^ (crc >> 8U)];
    }
    return static_cast<std::uint16_t>(crc);
}

/// Framing of DTOs of one length; `zeros` of 100 bytes are zero, at random places.
void measureFraming(std::size_t length, unsigned zeros) {
    constexpr std::size_t kTotal = 4'000'000;
    std::uint32_t random = 1;
    std::vector<Bytes> packets(kTotal / length);
    for (Bytes& packet : packets) {
        packet.resize(length);
        for (std::uint8_t& byte : packet) {
            random = random * 1664525U + 1013904223U;
            byte = (random >> 8U) % 100 < zeros ? 0 : static_cast<std::uint8_t>(1 + (random >> 16U) % 255);
        }
    }
    const std::size_t bytes = packets.size() * length;
    Bytes frame;
    Bytes stream;
    for (const Bytes& packet : packets) {
        lm::xcp::encodeSerialFrame(packet.data(), packet.size(), frame);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    const double encode = leastPerByte(bytes, [&] {
        for (const Bytes& packet : packets) {
            lm::xcp::encodeSerialFrame(packet.data(), packet.size(), frame);
        }
    });
    Count count;
    lm::xcp::SerialFrameReceiver receiver(count);
    const double decode = leastPerByte(bytes, [&] {
        constexpr std::size_t kRead = 4096;
        for (std::size_t at = 0; at < stream.size(); at += kRead) {
            receiver.receive(stream.data() + at, std::min(kRead, stream.size() - at));
        }
    });
    volatile std::uint16_t keep = 0;
    const double plain = leastPerByte(bytes, [&] {
        for (const Bytes& packet : packets) {
            keep = plainCrc(packet);
        }
    });
    std::printf(
        "%5zu bytes, %3u %% zeros: send %.2f ns, receive %.2f ns a byte; ratio to a byte-wise CRC %.2f, "
        "%.2f%s\n",
        length, zeros, encode, decode, encode / plain, decode / plain,
        count.frames == 9 * packets.size() ? "" : " (frames were lost)");
}

double threadSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Frames of `length` bytes at 100,000 bytes a second, written in pieces as an adapter hands them over.
int measureTransport(std::size_t length, std::size_t piece, double seconds) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return 1;
    Count count;
    lm::xcp::SerialTransport transport(
        {.port = ptsname(master), .baudrate = 1'000'000, .resetDelay = std::chrono::milliseconds(0)});
    transport.setSink(&count);
    if (const auto opened = transport.open(); !opened.ok()) {
        std::fprintf(stderr, "%s\n", opened.error().text().c_str());
        return 1;
    }
    Bytes stream;
    Bytes frame;
    while (stream.size() < 100'000) {
        const Bytes packet(length, static_cast<std::uint8_t>(stream.size()));
        lm::xcp::encodeSerialFrame(packet.data(), packet.size(), frame);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    const double processAtStart = threadSeconds(CLOCK_PROCESS_CPUTIME_ID);
    const double ownAtStart = threadSeconds(CLOCK_THREAD_CPUTIME_ID);
    const auto start = Clock::now();
    std::size_t sent = 0;
    for (std::size_t at = 0; std::chrono::duration<double>(Clock::now() - start).count() < seconds;) {
        const std::size_t now = std::min(piece, stream.size() - at);
        if (write(master, stream.data() + at, now) != static_cast<ssize_t>(now)) return 1;
        at = (at + now) % stream.size();
        sent += now;
        std::this_thread::sleep_until(start + std::chrono::microseconds(sent * 10));
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const double own = threadSeconds(CLOCK_THREAD_CPUTIME_ID) - ownAtStart;
    const double used = threadSeconds(CLOCK_PROCESS_CPUTIME_ID) - processAtStart - own;
    transport.close();
    std::printf(
        "1 Mbaud, DTOs of %zu bytes in pieces of %zu: %.1f %% of a core, %.0f bytes/s, %llu invalid frames\n",
        length, piece, 100 * used / elapsed, static_cast<double>(sent) / elapsed,
        static_cast<unsigned long long>(transport.statistics().invalidFrames));
    close(master);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (const std::size_t length : {std::size_t{8}, std::size_t{64}, std::size_t{250}, std::size_t{1500}}) {
        for (const unsigned zeros : {0U, 1U, 30U, 50U, 100U}) {
            measureFraming(length, zeros);
        }
    }
    const double seconds = argc > 1 ? std::atof(argv[1]) : 5;
    for (const std::size_t piece : {std::size_t{10}, std::size_t{64}, std::size_t{512}}) {
        if (measureTransport(64, piece, seconds) != 0) return 1;
    }
    return 0;
}
