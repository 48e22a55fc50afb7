// Messages of a raw CAN socket through receiver, broker and transports, which come and go. Each transport is
// told what a second, plain reading of the messages gives, in the same order, and the channel counts the
// same.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "broker/fake_can.h"
#include "can_message.h"
#include "hal/can_receiver.h"
#include "xcp/can_transport.h"
#include "xcp/transport_event.h"

namespace lm::fuzz {
namespace {

constexpr std::size_t kBatch = 64;

std::string packetLine(const std::uint8_t* data, std::size_t size, std::int64_t hostNs,
                       std::int64_t hardwareNs) {
    return fmt::format("{:02x}@{}/{}\n", fmt::join(data, data + size, ""), hostNs, hardwareNs);
}
std::string eventLine(unsigned kind, std::int64_t timeNs, unsigned state, std::uint32_t value) {
    return fmt::format("event {}@{} {} {:x}\n", kind, timeNs, state, value);
}

/// Identifiers whose frames are packets, and what came of them.
struct Slave final : xcp::IPacketSink {
    std::vector<std::uint32_t> ids;
    std::unique_ptr<xcp::CanTransport> transport;
    bool open = false;
    std::string told;
    std::string expected;

    void toggle() {
        open = !open;
        if (open) require(transport->open().ok(), "the transport opens");
        if (!open) transport->close();
    }
    void onPacket(const std::uint8_t* data, std::size_t size, xcp::ReceiveTime time) override {
        told += packetLine(data, size, time.hostNs, time.hardwareNs);
    }
    void onTransportEvent(const xcp::TransportEvent& transportEvent) override {
        const auto& event = std::get<hal::CanChannelEvent>(transportEvent.what);
        told += eventLine(static_cast<unsigned>(event.kind), event.timeNs, static_cast<unsigned>(event.state),
                          event.value);
    }
};

class Bus {
  public:
    explicit Bus(Input& input) {
        for (Slave& slave : slaves_) {
            for (std::size_t i = 1 + input.takeBelow(3); i > 0; --i) {
                const std::uint32_t id = takeId(input);
                slave.ids.push_back(id & ((id & kExtended) != 0 ? kExtended | 0x1FFFFFFF : 0x7FF));
            }
            xcp::CanTransportConfig config{.resId = xcp::CanId::fromA2l(slave.ids[0])};
            for (const std::uint32_t id : slave.ids)
                config.extraIds.push_back(xcp::CanId::fromA2l(id));
            slave.transport = std::make_unique<xcp::CanTransport>(config, broker_);
            slave.transport->setSink(&slave);
            slave.toggle();
        }
        receiver_.begin(kClocks);
    }
    Slave& slave(std::size_t index) { return slaves_[index]; }

    void add(Message message) {
        iovec part{.iov_base = message.bytes.data(), .iov_len = message.bytes.size()};
        msghdr header{nullptr, 0, &part, 1, message.control.data(), message.controlSize, 0};
        receiver_.add(header, message.bytes.size());
        if (message.hasDrops && message.drops != drops_) {
            expectLost(message.drops - drops_, message.hostNs());
            drops_ = message.drops;
        }
        if (message.bytes.size() < 16) return;
        if ((message.id() & kError) != 0) return expectError(message);
        ++received_;
        pending_.push_back(std::move(message));
        if (pending_.size() == kBatch) finish();
    }

    void finish() {
        receiver_.finish();
        expectPending();
    }

    void check() const {
        for (const Slave& slave : slaves_)
            require(slave.told == slave.expected, "a transport is told what is its own, in order");
        require(counters_.framesReceived == received_, "every frame counts");
        require(counters_.errorFrames == errors_ && counters_.busOffCount == busOffs_, "every error counts");
        require(counters_.framesLost == lost_, "every lost frame counts");
        require(static_cast<unsigned>(counters_.busState.load()) == state_, "the state of the bus");
    }

  private:
    void expectEvent(unsigned kind, std::int64_t timeNs, std::uint32_t value) {
        for (Slave& slave : slaves_)
            if (slave.open) slave.expected += eventLine(kind, timeNs, state_, value);
    }
    void expectState(unsigned state, std::int64_t timeNs) {
        if (std::exchange(state_, state) != state) expectEvent(0, timeNs, 0);
    }
    void expectPending() {
        for (const Message& message : std::exchange(pending_, {}))
            expectFrame(message);
    }
    /// Told where the frames are missing: behind those that came before.
    void expectLost(std::uint32_t count, std::int64_t timeNs) {
        expectPending();
        lost_ += count;
        expectEvent(1, timeNs, count);
    }
    void expectError(const Message& message) {
        ++errors_;
        if ((message.id() & 0x40U) != 0) {
            ++busOffs_;
            expectState(4, message.hostNs());
        }
        if ((message.id() & 0x100U) != 0) expectState(1, message.hostNs());
        if ((message.id() & 0x4U) != 0) {
            const unsigned problem = message.bytes[9];
            const unsigned state = (problem & 0x30U) != 0 ? 3 : (problem & 0x0CU) != 0 ? 2 : 1;
            if ((problem & 0x7CU) != 0) expectState(state, message.hostNs());
            if ((problem & 0x03U) != 0) expectLost(1, message.hostNs());
        }
        expectEvent(2, message.hostNs(), message.id() & 0x1FFFFFFFU);
    }
    void expectFrame(const Message& message) {
        const std::size_t length =
            std::min<std::size_t>(message.bytes[4], message.bytes.size() == 72 ? 64 : 8);
        if ((message.id() & kRemote) != 0 || length == 0) return;
        const bool extended = (message.id() & kExtended) != 0;
        const std::uint32_t id = message.id() & (extended ? kExtended | 0x1FFFFFFF : 0x7FF);
        const timespec& hardware = message.stamps[2];
        for (Slave& slave : slaves_) {
            if (!slave.open || std::find(slave.ids.begin(), slave.ids.end(), id) == slave.ids.end()) continue;
            slave.expected += packetLine(&message.bytes[8], length, message.hostNs(),
                                         hardware.tv_sec * 1'000'000'000 + hardware.tv_nsec);
        }
    }

    broker::test::FakeCan fake_;
    std::unique_ptr<hal::ICanChannel> channel_ = fake_.openChannel({}).value();
    broker::ChannelBroker broker_{*channel_};
    hal::CanCounters counters_;
    const std::atomic<hal::IFrameSink*> sink_{fake_.sink};
    hal::CanReceiver receiver_{counters_, sink_, kBatch};
    std::array<Slave, 2> slaves_;

    // What the plain reading has come to.
    std::vector<Message> pending_;  ///< received, not handed on yet
    std::uint64_t received_ = 0;
    std::uint64_t errors_ = 0;
    std::uint64_t busOffs_ = 0;
    std::uint64_t lost_ = 0;
    std::uint32_t drops_ = 0;
    unsigned state_ = 0;
};

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm::fuzz;
    Input input(data, size);
    Bus bus(input);
    while (!input.empty()) {
        const auto shape = input.take<std::uint8_t>();
        if ((shape & 0x20U) != 0) bus.finish();
        if ((shape & 0xC0U) == 0xC0U) bus.slave(shape & 1U).toggle();
        bus.add(Message(input, shape));
    }
    bus.finish();
    bus.check();
    return 0;
}
