// What receiving on CAN costs: frames a second, and processor time per frame, of the whole way from the
// interface to records (channel, broker, transport, master, decoder) beside a bare recvmmsg counter on the
// same interface in the same run, while a process of its own sends DTOs as fast as the interface takes them.
// Without an interface: the time of our code alone, from the kernel's messages to records.
//
//     can_receive [INTERFACE [SECONDS [fd]]]        default 5 seconds for each of the two, in turns

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "hal/can_receiver.h"
#include "hal/socketcan_adapter.h"
#include "xcp/can_transport.h"
#include "xcp/daq_decoder.h"
#include "xcp/master.h"

namespace {

using Clock = std::chrono::steady_clock;
using lm::hal::CanFrame;

constexpr std::size_t kBatch = 64;
constexpr std::uint32_t kDtoId = 0x7E1;
constexpr double kTurnSeconds = 0.25;

double processorSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

struct Figures {
    std::uint64_t frames = 0;
    double seconds = 0;
    double processor = 0;

    double rate() const { return static_cast<double>(frames) / seconds; }
    double microseconds() const { return processor * 1e6 / static_cast<double>(frames); }
};

/// The way of a frame behind the channel: records of two ODTs with one signal byte per payload byte.
class Chain final : public lm::xcp::IDaqRecordSink {
  public:
    Chain(lm::hal::ICanChannel& channel, bool fd)
        : broker_(channel),
          transport_({.cmdId = {0x7E0, false},
                      .resId = {kDtoId, false},
                      .fd = fd,
                      .maxDlc = static_cast<std::uint8_t>(fd ? 64 : 8)},
                     broker_),
          master_(transport_, {}),
          decoder_(plan(fd), capabilities()) {
        decoder_.setSink(this);
        transport_.setSink(&master_);
        master_.setDtoSink(&decoder_);
        transport_.open().value();
    }
    ~Chain() override { transport_.close(); }
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    lm::hal::IFrameSink& sink() { return broker_; }
    lm::xcp::DaqDecoderCounters counters() const { return decoder_.counters(); }
    void onRecord(const lm::xcp::DaqRecord& record) override { bytes_ += record.size; }

  private:
    static lm::xcp::DaqCapabilities capabilities() {
        lm::xcp::DaqCapabilities slave;
        slave.dynamicConfiguration = true;
        slave.events = {{.number = 0}};
        return slave;
    }
    static lm::xcp::DaqPlan plan(bool fd) {
        const unsigned length = fd ? 64 : 8;
        std::vector<lm::xcp::DaqSignal> signals(2UL * (length - 1));
        for (std::size_t i = 0; i < signals.size(); ++i) {
            signals[i] = {.address = {static_cast<std::uint32_t>(i), 0}, .size = 1};
        }
        return lm::xcp::planDaq(signals, capabilities(), {.maxDto = static_cast<std::uint16_t>(length)})
            .value();
    }

    lm::broker::ChannelBroker broker_;
    lm::xcp::CanTransport transport_;
    lm::xcp::Master master_;
    lm::xcp::DaqDecoder decoder_;
    std::uint64_t bytes_ = 0;
};

canfd_frame dto(std::uint8_t pid, bool fd) {
    canfd_frame frame{};
    frame.can_id = kDtoId;
    frame.len = fd ? 64 : 8;
    frame.data[0] = pid;
    return frame;
}

int rawSocket(const std::string& interface, bool fd) {
    const int socket = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    const int enable = fd ? 1 : 0;
    setsockopt(socket, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &enable, sizeof enable);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (address.can_ifindex == 0 ||
        bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "%s: %s\n", interface.c_str(), std::strerror(errno));
        std::exit(1);
    }
    return socket;
}

/// Messages over one set of buffers, for recvmmsg and sendmmsg.
struct Messages {
    std::array<canfd_frame, kBatch> frames{};
    std::array<iovec, kBatch> parts{};
    std::array<mmsghdr, kBatch> headers{};

    explicit Messages(std::size_t size) {
        for (std::size_t i = 0; i < kBatch; ++i) {
            parts[i] = {.iov_base = &frames[i], .iov_len = size};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

/// Sends until it is killed; PIDs 0 and 1 in turn.
[[noreturn]] void sendWithoutEnd(const std::string& interface, bool fd) {
    const int socket = rawSocket(interface, fd);
    setsockopt(socket, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0);  // receives nothing
    Messages messages(fd ? CANFD_MTU : CAN_MTU);
    for (std::size_t i = 0; i < kBatch; ++i) {
        messages.frames[i] = dto(i % 2, fd);
    }
    std::size_t at = 0;
    for (;;) {
        const int sent = sendmmsg(socket, &messages.headers[at], static_cast<unsigned>(kBatch - at), 0);
        if (sent > 0) at = (at + static_cast<std::size_t>(sent)) % kBatch;
        if (sent < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR) std::exit(1);
        if (sent < 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

void countBare(const std::string& interface, bool fd, double seconds, Figures& figures) {
    const int socket = rawSocket(interface, fd);
    const int size = 8 * 1024 * 1024;
    setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    Messages messages(sizeof(canfd_frame));
    pollfd wait{.fd = socket, .events = POLLIN, .revents = 0};
    const double processor = processorSeconds(CLOCK_THREAD_CPUTIME_ID);
    const auto start = Clock::now();
    std::chrono::duration<double> elapsed{};
    for (; elapsed.count() < seconds; elapsed = Clock::now() - start) {
        if (poll(&wait, 1, 100) <= 0) continue;
        const int count = recvmmsg(socket, messages.headers.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (count > 0) figures.frames += static_cast<std::uint64_t>(count);
    }
    figures.seconds += elapsed.count();
    figures.processor += processorSeconds(CLOCK_THREAD_CPUTIME_ID) - processor;
    close(socket);
}

/// Processor time of the receive thread: the process's without that of this thread, which sleeps.
double othersProcessorSeconds() {
    return processorSeconds(CLOCK_PROCESS_CPUTIME_ID) - processorSeconds(CLOCK_THREAD_CPUTIME_ID);
}

void countOurs(lm::hal::ICanChannel& channel, const Chain& chain, double seconds, Figures& figures) {
    const double processor = othersProcessorSeconds();
    if (const auto opened = channel.open(); !opened) {
        std::fprintf(stderr, "%s\n", opened.error().text().c_str());
        std::exit(1);
    }
    const auto start = Clock::now();
    const std::uint64_t before = chain.counters().dtos;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    figures.frames += chain.counters().dtos - before;
    figures.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    channel.close();
    figures.processor += othersProcessorSeconds() - processor;
}

int measureInterface(const std::string& interface, double seconds, bool fd) {
    const pid_t sender = fork();
    if (sender < 0) return 1;
    if (sender == 0) sendWithoutEnd(interface, fd);
    lm::hal::SocketCanAdapter adapter;
    const auto channel =
        std::move(adapter.openChannel({.interfaceName = interface, .fd = fd, .receiveBatch = kBatch}))
            .value();
    Figures bare;
    Figures ours;
    {
        const Chain chain(*channel, fd);
        // In short turns, so that what else the machine does falls on both.
        while (ours.seconds < seconds) {
            countBare(interface, fd, kTurnSeconds, bare);
            countOurs(*channel, chain, kTurnSeconds, ours);
        }
        kill(sender, SIGKILL);
        waitpid(sender, nullptr, 0);
        std::printf("%s, %d bytes a frame, sent without pause\n", interface.c_str(), fd ? 64 : 8);
        std::printf("bare counter  %8.0f frames/s  %6.2f us a frame\n", bare.rate(), bare.microseconds());
        std::printf("records       %8.0f frames/s  %6.2f us a frame\n", ours.rate(), ours.microseconds());
        std::printf("ratio %.2f; %llu frames lost, %llu records\n", ours.rate() / bare.rate(),
                    static_cast<unsigned long long>(channel->statistics().framesLost),
                    static_cast<unsigned long long>(chain.counters().records));
    }
    return 0;
}

/// A channel that is never opened.
class NoChannel final : public lm::hal::ICanChannel {
  public:
    void setSink(lm::hal::IFrameSink* sink) override { sink_ = sink; }
    lm::Result<void> open() override { return {}; }
    void close() override {}
    bool isOpen() const override { return false; }
    lm::Result<void> send(const CanFrame& /*frame*/) override { return {}; }
    const lm::hal::CanChannelConfig& config() const override { return config_; }
    lm::hal::CanBusState busState() const override { return lm::hal::CanBusState::unknown; }
    lm::hal::CanChannelStatistics statistics() const override { return {}; }
    const std::atomic<lm::hal::IFrameSink*>& sink() const { return sink_; }

  private:
    lm::hal::CanChannelConfig config_;
    std::atomic<lm::hal::IFrameSink*> sink_{nullptr};
};

/// Batches of messages with time stamps, as recvmmsg leaves them.
void measureCode(bool fd) {
    constexpr std::size_t kFrames = 1U << 20U;
    struct alignas(cmsghdr) Control {
        std::array<std::uint8_t, CMSG_SPACE(3 * sizeof(timespec))> bytes;
    };
    Messages messages(fd ? CANFD_MTU : CAN_MTU);
    std::array<Control, kBatch> controls{};
    for (std::size_t i = 0; i < kBatch; ++i) {
        messages.frames[i] = dto(i % 2, fd);
        msghdr& header = messages.headers[i].msg_hdr;
        header.msg_control = controls[i].bytes.data();
        header.msg_controllen = sizeof controls[i].bytes;
        cmsghdr* const item = CMSG_FIRSTHDR(&header);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = SCM_TIMESTAMPING;
        item->cmsg_len = CMSG_LEN(3 * sizeof(timespec));
        const timespec stamp{1, 0};
        std::memcpy(CMSG_DATA(item), &stamp, sizeof stamp);
    }
    NoChannel channel;
    const Chain chain(channel, fd);
    lm::hal::CanCounters counters;
    lm::hal::CanReceiver receiver(counters, channel.sink(), kBatch);
    double least = 1e9;
    for (int round = 0; round < 7; ++round) {
        const auto start = Clock::now();
        for (std::size_t frame = 0; frame < kFrames; frame += kBatch) {
            receiver.begin(lm::hal::CanClocks::read());
            for (mmsghdr& message : messages.headers) {
                receiver.add(message.msg_hdr, fd ? CANFD_MTU : CAN_MTU);
            }
            receiver.finish();
        }
        const std::chrono::duration<double, std::nano> elapsed = Clock::now() - start;
        least = std::min(least, elapsed.count() / kFrames);
    }
    std::printf("%2d bytes a frame: %.1f ns of our code from message to record%s\n", fd ? 64 : 8, least,
                chain.counters().lostOdts == 0 ? "" : " (ODTs were lost)");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const double seconds = argc > 2 ? std::atof(argv[2]) : 5;
        return measureInterface(argv[1], seconds, argc > 3 && std::string(argv[3]) == "fd");
    }
    measureCode(false);
    measureCode(true);
    return 0;
}
