#include "session/can_access.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <spdlog/spdlog.h>

namespace lm::session {
namespace {

// A controller that changes its state again and again must not bury everything else that is said.
constexpr std::int64_t kMessagePauseNs = 10'000'000'000;
constexpr std::int64_t kMessagesAtOnce = 6;
constexpr const char* kWillHide =
    " (from now on a change is told every 10 s at most, the others are counted)";

const char* stateName(hal::CanBusState state) {
    switch (state) {
        case hal::CanBusState::errorActive:
            return "error active";
        case hal::CanBusState::errorWarning:
            return "error warning";
        case hal::CanBusState::errorPassive:
            return "error passive";
        case hal::CanBusState::busOff:
            return "bus off";
        case hal::CanBusState::unknown:
            break;
    }
    return "state unknown";
}

Result<void> checkId(std::uint32_t id) {
    const auto split = xcp::CanId::fromA2l(id);
    hal::CanFrame frame;
    frame.id = split.id;
    if (split.extended) frame.set(hal::CanFrame::extended);
    const auto valid = hal::validate(frame);
    if (valid.ok()) return {};
    std::string text = fmt::format("CAN-ID 0x{:X}: {}", id, valid.error().text());
    if (id <= hal::CanFrame::kExtendedIdMask) {
        text += fmt::format(" (a 29-bit identifier has bit 31 set: 0x{:X})", id | 0x80000000U);
    }
    return Error{ErrorCode::invalidArgument, text};
}

hal::CanChannelConfig channelConfig(const SessionConfig::Can& config) {
    hal::CanChannelConfig channel;
    channel.interfaceName = config.interface;
    channel.fd = config.fd;
    if (config.bitrate) channel.bitrate = hal::CanBitTiming{*config.bitrate, 0};
    if (config.dataBitrate) channel.dataBitrate = hal::CanBitTiming{*config.dataBitrate, 0};
    return channel;
}

/// The fixed identifiers of DAQ lists that the response identifier does not cover.
std::vector<std::uint32_t> furtherIds(const a2l::XcpOnCan& described, std::uint32_t resId) {
    std::vector<std::uint32_t> ids;
    for (const std::uint32_t id : described.daqListIds) {
        if (id == resId || std::find(ids.begin(), ids.end(), id) != ids.end()) continue;
        if (const auto valid = checkId(id); valid.ok()) {
            ids.push_back(id);
        } else {
            spdlog::warn("A2L: identifier of a DAQ list ignored: {}", valid.error().text());
        }
    }
    return ids;
}

xcp::CanTransportConfig transportConfig(const SessionConfig::Can& config, const a2l::XcpOnCan& described) {
    xcp::CanTransportConfig transport;
    transport.maxDlcRequired = config.maxDlcRequired || described.maxDlcRequired;
    transport.fd = config.fd;
    transport.brs = config.fd;
    if (config.fd) transport.maxDlc = described.maxDlc.value_or(hal::CanFrame::kMaxData);
    return transport;
}

}  // namespace

Result<std::unique_ptr<CanAccess>> CanAccess::obtain(const SessionConfig::Can& config,
                                                     const a2l::XcpInterface& interface, ChannelPool& pool) {
    const a2l::XcpOnCan described = interface.can.value_or(a2l::XcpOnCan{});
    const auto cmdId = config.cmdId ? config.cmdId : described.masterId;
    const auto resId = config.resId ? config.resId : described.slaveId;
    if (!cmdId || !resId) {
        return Error{ErrorCode::invalidArgument, "CAN-IDs for XCP are neither configured nor in the A2L"};
    }
    for (const std::uint32_t id : {*cmdId, *resId}) {
        if (const auto valid = checkId(id); !valid.ok()) return valid.error();
    }
    if (described.fd && !config.fd) {
        spdlog::warn("the A2L says that the ECU speaks CAN FD, and the configuration does not (can.fd)");
    }
    if (config.dataBitrate && !config.bitrate) {
        spdlog::warn(
            "{}: can.dataBitrate alone only counts for the load estimate; with can.bitrate it is set",
            config.interface);
    }
    auto channel = pool.acquire(channelConfig(config));
    if (!channel.ok()) return channel.error();

    std::unique_ptr<CanAccess> access(new CanAccess(std::move(channel).value()));
    access->interface_ = access->channel_->interfaceState();
    access->cmdId_ = *cmdId;
    access->resId_ = *resId;
    access->described_ = {described.baudrate.value_or(0), described.dataBaudrate.value_or(0)};
    access->listIdsFixed_ = !described.daqListIds.empty();
    access->transport_ = session::transportConfig(config, described);
    access->transport_.cmdId = xcp::CanId::fromA2l(*cmdId);
    access->transport_.resId = xcp::CanId::fromA2l(*resId);
    std::vector<std::uint32_t> received = furtherIds(described, *resId);
    for (const std::uint32_t id : received)
        access->transport_.extraIds.push_back(xcp::CanId::fromA2l(id));
    received.insert(received.begin(), *resId);
    const auto registered = access->channel_->registerIds(access.get(), received);
    if (!registered.ok()) return registered.error();
    return access;
}

CanAccess::~CanAccess() {
    if (hidden_ > 0) {
        spdlog::warn("{}: {} further change(s) of state not told, now {}", channel_->name(), hidden_,
                     stateText(channel_->busState()));
    }
    channel_->releaseIds(this);
}

CanTiming CanAccess::timing() const {
    CanBitrates rates = channel_->bitrates();
    if (rates.nominal == 0) rates.nominal = described_.nominal;
    if (rates.data == 0) rates.data = described_.data;
    if (rates.data == 0) rates.data = rates.nominal;
    CanTiming timing;
    timing.bitrate = rates.nominal;
    timing.dataBitrate = transport_.fd ? rates.data : 0;
    timing.extendedIds = transport_.resId.extended;
    timing.maxDlcRequired = transport_.maxDlcRequired;
    return timing;
}

void CanAccess::report(const hal::CanChannelEvent& event) {
    using hal::CanChannelEventKind;
    const std::string& name = channel_->name();
    switch (event.kind) {
        case CanChannelEventKind::stateChanged:
            return reportState(event.state, event.timeNs);
        case CanChannelEventKind::framesLost:
            if (!lossReported_.exchange(true)) {
                spdlog::warn("{}: {} frame(s) lost; further losses are only counted", name, event.value);
            }
            return;
        case CanChannelEventKind::errorFrame:
            return spdlog::debug("{}: error frame, classes 0x{:X}", name, event.value);
        case CanChannelEventKind::receiveFailed:
            return;  // the channel has said so itself, once for all its users
    }
}

void CanAccess::reportBusState() {
    const hal::CanBusState state = channel_->busState();
    if (state != hal::CanBusState::busOff && state != hal::CanBusState::errorPassive) return;
    reportState(state, std::chrono::steady_clock::now().time_since_epoch().count());
}

void CanAccess::reportState(hal::CanBusState state, std::int64_t timeNs) {
    const std::lock_guard lock(stateMutex_);
    const std::string& name = channel_->name();
    const bool trouble = state == hal::CanBusState::busOff || state == hal::CanBusState::errorPassive;
    const bool over = trouble_ && state == hal::CanBusState::errorActive;
    if (!trouble && !over) return spdlog::info("{}: {}", name, stateName(state));
    trouble_ = trouble;

    const std::int64_t due = std::max(spentNs_, timeNs);
    const bool spent = due - timeNs > (kMessagesAtOnce - 1) * kMessagePauseNs;
    const bool newlyOff = state == hal::CanBusState::busOff && told_ != state;
    if (spent && !newlyOff) {
        ++hidden_;
        return;
    }
    if (!spent) spentNs_ = due + kMessagePauseNs;
    std::string text = stateText(state);
    if (over) text += " again";
    if (hidden_ > 0) text += fmt::format(" ({} changes before it not told)", hidden_);
    if (spentNs_ - timeNs > (kMessagesAtOnce - 1) * kMessagePauseNs) text += kWillHide;
    spdlog::warn("{}: {}", name, text);
    told_ = state;
    hidden_ = 0;
}

/// The state, and what there is to be done about it.
std::string CanAccess::stateText(hal::CanBusState state) const {
    std::string text(stateName(state));
    if (state == hal::CanBusState::errorPassive) return text + ": check bit rate, wiring and termination";
    if (state != hal::CanBusState::busOff) return text;
    if (interface_ && !interface_->isController()) return text;  // a report on a virtual interface
    if (interface_ && interface_->restartMs != 0) {
        return text + fmt::format(", the controller restarts by itself after {} ms", interface_->restartMs);
    }
    return text + ", nothing is sent any more. Restart the controller in a terminal: `sudo ip link set " +
           channel_->name() + " type can restart`";
}

}  // namespace lm::session
