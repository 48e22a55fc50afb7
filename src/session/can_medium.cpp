#include "session/can_medium.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "session/session_config.h"
#include "storage/format/recording_source.h"
#include "xcp/transport_event.h"

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

/// Those of DAQ lists that the response identifier does not cover.
std::vector<xcp::CanId> furtherIds(const std::vector<DaqListId>& lists, const xcp::CanId& resId) {
    std::vector<xcp::CanId> ids;
    for (const DaqListId& list : lists) {
        const auto id = xcp::CanId::fromA2l(list.id);
        if (id == resId || std::find(ids.begin(), ids.end(), id) != ids.end()) continue;
        if (const auto valid = checkId(list.id); valid.ok()) {
            ids.push_back(id);
        } else {
            log::warn("{}: identifier of DAQ list {} ignored: {}",
                      list.source == DaqListId::Source::a2l ? "A2L" : "GET_DAQ_ID", list.list,
                      valid.error().text());
        }
    }
    return ids;
}

/// An A2L that names optional commands names all there are.
bool mayKnowIds(const a2l::XcpInterface& ifData) {
    if (!ifData.protocolLayer || ifData.protocolLayer->optionalCommands.empty()) return true;
    const auto& offered = ifData.protocolLayer->optionalCommands;
    return std::find(offered.begin(), offered.end(), "TRANSPORT_LAYER_CMD") != offered.end();
}

Result<void> checkListIds(const DaqListIds& listIds, const CanIdByList& wanted, std::uint32_t cmdId) {
    for (const auto& [list, id] : wanted) {
        auto valid = checkId(id);
        if (valid.ok() && id == cmdId)
            valid = Error{ErrorCode::invalidArgument, fmt::format("CAN-ID 0x{:X} is that of commands", id)};
        if (valid.ok()) continue;
        return Error{ErrorCode::invalidArgument,
                     fmt::format("can.daqIds: DAQ list {}: {}", list, valid.error().text())};
    }
    return listIds.check();
}

xcp::CanTransportConfig transportConfig(const SessionConfig::Can& config, const a2l::XcpOnCan& described,
                                        const DaqListIds& listIds, std::uint32_t cmdId, std::uint32_t resId) {
    xcp::CanTransportConfig transport;
    transport.cmdId = xcp::CanId::fromA2l(cmdId);
    transport.resId = xcp::CanId::fromA2l(resId);
    transport.extraIds = furtherIds(listIds.given(), transport.resId);
    transport.maxDlcRequired = config.maxDlcRequired || described.maxDlcRequired;
    transport.fd = config.fd;
    transport.brs = config.fd;
    if (config.fd) transport.maxDlc = described.maxDlc.value_or(hal::CanFrame::kMaxData);
    return transport;
}

void warnAboutSettings(const SessionConfig::Can& config, const a2l::XcpOnCan& described) {
    if (described.fd && !config.fd) {
        log::warn("the A2L says that the ECU speaks CAN FD, and the configuration does not (can.fd)");
    }
    if (config.dataBitrate && !config.bitrate) {
        log::warn("{}: can.dataBitrate alone only counts for the load estimate; with can.bitrate it is set",
                  config.interface);
    }
}

}  // namespace

Result<std::unique_ptr<IMedium>> makeCanMedium(const SessionConfig& config, const a2l::XcpInterface& ifData,
                                               ChannelPool& pool, const StopToken& /*stop*/) {
    const SessionConfig::Can& can = config.can;
    if (can.interface.empty()) return std::unique_ptr<IMedium>();
    const a2l::XcpOnCan described = ifData.can.value_or(a2l::XcpOnCan{});
    const auto cmdId = can.cmdId ? can.cmdId : described.masterId;
    const auto resId = can.resId ? can.resId : described.slaveId;
    if (!cmdId || !resId) {
        Error missing{ErrorCode::invalidArgument, "CAN-IDs for XCP are neither configured nor in the A2L"};
        missing.hint = ifData.isCcpOnly() ? "the A2L describes an ECU that speaks CCP, not XCP"
                                          : "--cmd-id and --res-id name them";
        return missing;
    }
    for (const std::uint32_t id : {*cmdId, *resId}) {
        if (const auto valid = checkId(id); !valid.ok()) return valid.error();
    }
    DaqListIds listIds(can.daqIds, described.daqListIds, mayKnowIds(ifData));
    if (const auto checked = checkListIds(listIds, can.daqIds, *cmdId); !checked.ok()) return checked.error();
    warnAboutSettings(can, described);
    auto channel = pool.acquire(channelConfig(can));
    if (!channel.ok()) return channel.error();

    MediumTexts texts{
        "can:" + can.interface, fmt::format("CMD 0x{:X}, RES 0x{:X} on {}", *cmdId, *resId, can.interface),
        fmt::format("{} {}", storage::kCanSource, can.interface),
        fmt::format("no one answers to CMD 0x{:X} with RES 0x{:X} on {}: the ECU is off, "
                    "identifiers, bit rate or CAN FD are others, or another master is connected",
                    *cmdId, *resId, can.interface),
        fmt::format("can:{}:0x{:X}:0x{:X}", can.interface, *cmdId, *resId)};
    auto transport = transportConfig(can, described, listIds, *cmdId, *resId);
    auto medium = std::make_unique<CanMedium>(std::move(channel).value(), std::move(transport),
                                              std::move(texts), described, std::move(listIds));
    if (const auto claimed = medium->claimIds(); !claimed.ok()) return claimed.error();
    return std::unique_ptr<IMedium>(std::move(medium));
}

CanMedium::CanMedium(std::shared_ptr<SharedChannel> channel, xcp::CanTransportConfig config,
                     MediumTexts texts, const a2l::XcpOnCan& described, DaqListIds listIds)
    : channel_(std::move(channel)),
      config_(std::move(config)),
      texts_(std::move(texts)),
      described_{described.baudrate.value_or(0), described.dataBaudrate.value_or(0)},
      interfaceState_(channel_->interfaceState()),
      transport_(config_, channel_->broker()),
      listIds_(std::move(listIds)),
      listIdsKnown_(!listIds_.given().empty()) {}

CanMedium::~CanMedium() {
    transport_.close();
    if (hidden_ > 0) {
        log::warn("{}: {} further change(s) of state not told, now {}", channel_->name(), hidden_,
                  stateText(channel_->busState()));
    }
    channel_->releaseIds(this);
}

Result<void> CanMedium::claim(const std::vector<xcp::CanId>& listIds) {
    std::vector<std::uint32_t> received = {config_.resId.toA2l()};
    for (const xcp::CanId& id : listIds)
        received.push_back(id.toA2l());
    return channel_->registerIds(this, received);
}

Result<void> CanMedium::prepareLists(xcp::Master& master, std::span<const std::uint16_t> lists) {
    auto settled = xcp::inStep(master, [&] { return listIds_.settle(master, lists); });
    if (!settled) return settled.error();
    std::vector<DaqListId>& ids = settled.value();
    for (const DaqListId& told : ids)
        log::info("DAQ list {}: CAN-ID 0x{:X} ({})", told.list, told.id, sourceName(told.source));
    const auto given = listIds_.given();
    ids.insert(ids.end(), given.begin(), given.end());
    const auto heard = furtherIds(ids, config_.resId);
    if (auto claimed = claim(heard); !claimed) return claimed;
    transport_.setListIds(heard);
    listIdsKnown_ = !ids.empty();
    return {};
}

Result<std::vector<DaqListId>> CanMedium::listIds(xcp::Master& master, std::span<const std::uint16_t> lists) {
    auto ids = xcp::inStep(master, [&] { return listIds_.find(master, lists); });
    if (!ids) return ids;
    for (const DaqListId& given : listIds_.given()) {
        if (std::find(lists.begin(), lists.end(), given.list) == lists.end()) ids.value().push_back(given);
    }
    return ids;
}

CanTiming CanMedium::timing() const {
    CanBitrates rates = channel_->bitrates();
    if (rates.nominal == 0) rates.nominal = described_.nominal;
    if (rates.data == 0) rates.data = described_.data;
    if (rates.data == 0) rates.data = rates.nominal;
    CanTiming timing;
    timing.bitrate = rates.nominal;
    timing.dataBitrate = config_.fd ? rates.data : 0;
    timing.extendedIds = config_.resId.extended;
    timing.maxDlcRequired = config_.maxDlcRequired;
    return timing;
}

std::uint16_t CanMedium::largestDto(std::uint16_t told) const {
    const std::size_t frame = config_.fd ? hal::CanFrame::kMaxData : hal::CanFrame::kMaxClassicData;
    if (told <= frame) return told;
    log::warn("the ECU says MAX_DTO {}, a CAN frame holds {} bytes: its ODTs are made for those", told,
              frame);
    return static_cast<std::uint16_t>(frame);
}

bool CanMedium::mayFill(std::size_t planned, std::size_t length) const {
    constexpr std::array<std::size_t, 8> kLengths{8, 12, 16, 20, 24, 32, 48, 64};
    if (length == kLengths.front() || (config_.fd && length == config_.maxDlc)) return true;
    return config_.fd && length == *std::lower_bound(kLengths.begin(), kLengths.end() - 1, planned);
}

Result<double> CanMedium::claimLoad(const LoadInput& input, double limit) {
    const double own = estimateCanLoad(input, timing()).fraction;
    const double others = channel_->claimLoad(this, own);
    const double total = own + others;
    if (total <= limit) return total;
    releaseLoad();
    std::string estimated = fmt::format("estimated bus load {:.0f} %", total * 100);
    if (others > 0) {
        estimated = fmt::format("estimated bus load on {} {:.0f} % (this ECU {:.0f} %, others {:.0f} %)",
                                channel_->name(), total * 100, own * 100, others * 100);
    }
    return Error{ErrorCode::invalidArgument,
                 estimated + fmt::format(" exceeds the limit of {:.0f} %", limit * 100)};
}

std::vector<MediumCounter> CanMedium::counters() const {
    const hal::CanChannelStatistics can = channel_->statistics();
    return {{kCanDropped, can.framesLost}, {kErrorFrames, can.errorFrames, false}};
}

std::string CanMedium::silenceHint() const {
    if (listIdsKnown_) return {};
    return fmt::format(
        "DTOs were expected with the identifier 0x{:X} only, since neither the A2L fixes one for DAQ lists "
        "(DAQ_LIST_CAN_ID is VARIABLE or missing) nor the ECU tells one (GET_DAQ_ID); if it sends them with "
        "another one, write that into the A2L: /begin DAQ_LIST_CAN_ID 0 FIXED 0x123 /end DAQ_LIST_CAN_ID",
        config_.resId.toA2l());
}

bool CanMedium::report(const xcp::TransportEvent& told) {
    using hal::CanChannelEventKind;
    const auto* const event = std::get_if<hal::CanChannelEvent>(&told.what);
    if (event == nullptr) return false;
    const std::string& name = channel_->name();
    switch (event->kind) {
        case CanChannelEventKind::stateChanged:
            reportState(event->state, event->timeNs);
            break;
        case CanChannelEventKind::framesLost:
            if (!lossReported_.exchange(true)) {
                log::warn("{}: {} frame(s) lost; further losses are only counted", name, event->value);
            }
            return true;
        case CanChannelEventKind::errorFrame:
            log::debug("{}: error frame, classes 0x{:X}", name, event->value);
            break;
        case CanChannelEventKind::receiveFailed:
            break;  // the channel has said so itself, once for all its users
    }
    return false;
}

void CanMedium::reportTrouble() {
    const hal::CanBusState state = channel_->busState();
    if (state != hal::CanBusState::busOff && state != hal::CanBusState::errorPassive) return;
    reportState(state, std::chrono::steady_clock::now().time_since_epoch().count());
}

void CanMedium::reportState(hal::CanBusState state, std::int64_t timeNs) {
    const std::lock_guard lock(stateMutex_);
    const std::string& name = channel_->name();
    const bool trouble = state == hal::CanBusState::busOff || state == hal::CanBusState::errorPassive;
    const bool over = trouble_ && state == hal::CanBusState::errorActive;
    if (!trouble && !over) return log::info("{}: {}", name, stateName(state));
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
    log::warn("{}: {}", name, text);
    told_ = state;
    hidden_ = 0;
}

/// The state, and what there is to be done about it.
std::string CanMedium::stateText(hal::CanBusState state) const {
    std::string text(stateName(state));
    if (state == hal::CanBusState::errorPassive) return text + ": check bit rate, wiring and termination";
    if (state != hal::CanBusState::busOff) return text;
    if (interfaceState_ && !interfaceState_->isController()) return text;  // a report on a virtual interface
    if (interfaceState_ && interfaceState_->restartMs != 0) {
        return text +
               fmt::format(", the controller restarts by itself after {} ms", interfaceState_->restartMs);
    }
    return text + ", nothing is sent any more. Restart the controller in a terminal: `sudo ip link set " +
           channel_->name() + " type can restart`";
}

}  // namespace lm::session
