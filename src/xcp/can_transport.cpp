#include "xcp/can_transport.h"

#include <algorithm>
#include <utility>

#include "core/log.h"
#include "xcp/packet.h"
#include "xcp/transport_event.h"

namespace lm::xcp {
namespace {

broker::Filter filterFor(const CanId& id) {
    if (id.extended) {
        return {.id = id.id, .mask = hal::CanFrame::kExtendedIdMask, .format = broker::FrameFormat::extended};
    }
    return {.id = id.id, .mask = hal::CanFrame::kStandardIdMask, .format = broker::FrameFormat::standard};
}

bool isValidMaxDlc(const CanTransportConfig& config) {
    if (config.maxDlc < hal::CanFrame::kMaxClassicData) return false;
    if (!config.fd) return config.maxDlc == hal::CanFrame::kMaxClassicData;
    return hal::roundUpCanFdLength(config.maxDlc) == config.maxDlc;
}

}  // namespace

CanTransport::CanTransport(CanTransportConfig config, broker::ChannelBroker& broker)
    : config_(std::move(config)), broker_(broker), listIds_(config_.extraIds) {}

CanTransport::~CanTransport() {
    close();
}

Result<void> CanTransport::open() {
    if (subscription_) return {};
    if (!isValidMaxDlc(config_)) return invalidArgument("invalid XCP on CAN MAX_DLC");
    subscription_ = broker_.registerHandler(filters(), *this);
    return {};
}

std::vector<broker::Filter> CanTransport::filters() const {
    std::vector<broker::Filter> filters = {filterFor(config_.resId)};
    for (const CanId& id : listIds_)
        filters.push_back(filterFor(id));
    return filters;
}

void CanTransport::setListIds(std::vector<CanId> ids) {
    listIds_ = std::move(ids);
    if (subscription_) broker_.setFilters(*subscription_, filters());
}

void CanTransport::close() {
    if (!subscription_) return;
    broker_.unregisterHandler(*subscription_);
    subscription_.reset();
}

Result<void> CanTransport::send(const std::uint8_t* data, std::size_t length) {
    if (length == 0 || length > config_.maxDlc || length > hal::CanFrame::kMaxData) {
        return invalidArgument("XCP packet does not fit into a CAN frame");
    }
    hal::CanFrame frame;
    frame.id = config_.cmdId.id;
    if (config_.cmdId.extended) frame.set(hal::CanFrame::extended);
    if (config_.fd) frame.set(hal::CanFrame::fd);
    if (config_.fd && config_.brs) frame.set(hal::CanFrame::brs);
    frame.length = static_cast<std::uint8_t>(length);
    if (config_.fd) frame.length = hal::roundUpCanFdLength(length);
    if (config_.maxDlcRequired) frame.length = config_.maxDlc;
    std::copy_n(data, length, frame.data.begin());
    std::fill(frame.data.begin() + length, frame.data.begin() + frame.length, config_.fillByte);
    watchForSecrets(*data);
    trace(">", frame);
    return broker_.send(frame);
}

void CanTransport::onFrame(const hal::CanFrame& frame) {
    trace("<", frame);
    IPacketSink* const sink = sink_.load(std::memory_order_acquire);
    if (sink == nullptr || frame.length == 0 || frame.has(hal::CanFrame::remote)) return;
    sink->onPacket(frame.data.data(), frame.length,
                   {.hostNs = frame.timestampNs, .hardwareNs = frame.hwTimestampNs});
}

void CanTransport::onChannelEvent(const hal::CanChannelEvent& event) {
    if (IPacketSink* const sink = sink_.load()) sink->onTransportEvent({.what = event});
}

/// After a SYNCH the answer to an earlier GET_SEED may still come.
void CanTransport::watchForSecrets(std::uint8_t command) {
    const auto code = static_cast<Command>(command);
    if (code != Command::synch) secret_ = code == Command::getSeed || code == Command::unlock;
}

void CanTransport::trace(const char* direction, const hal::CanFrame& frame) const {
    if (!log::isWanted(log::Level::debug)) return;
    const bool mayTell =
        frame.data[0] == kPidResponse || frame.data[0] == static_cast<std::uint8_t>(Command::unlock);
    if (secret_ && mayTell && frame.length > 1) {
        hal::CanFrame shown = frame;
        shown.length = 1;
        log::debug("{} {} {} (seed and key: the rest is not shown)", broker_.interfaceName(), direction,
                   hal::formatCanFrame(shown));
        return;
    }
    log::debug("{} {} {}", broker_.interfaceName(), direction, hal::formatCanFrame(frame));
}

}  // namespace lm::xcp
