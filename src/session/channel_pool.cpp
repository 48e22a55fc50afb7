#include "session/channel_pool.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "core/log.h"
#include "hal/socketcan_adapter.h"

namespace lm::session {
namespace {

constexpr std::uint32_t kExtendedBit = 0x80000000;

/// Whether a channel that is in use can serve a request for one of its bit rates.
Result<void> checkSetting(const std::string& channel, const char* setting,
                          const std::optional<hal::CanBitTiming>& inUse,
                          const std::optional<hal::CanBitTiming>& requested) {
    if (!requested) return {};
    if (!inUse) {
        log::warn("{}: {} {} ignored, the channel is already in use", channel, setting, requested->bitrate);
        return {};
    }
    if (inUse->bitrate == requested->bitrate) return {};
    return Error{ErrorCode::invalidArgument,
                 channel + ": " + setting + " " + std::to_string(requested->bitrate) + " conflicts with " +
                     std::to_string(inUse->bitrate) + " of another ECU on this channel"};
}

Result<void> checkSettings(const hal::CanChannelConfig& inUse, const hal::CanChannelConfig& requested) {
    const std::string& name = requested.interfaceName;
    if (inUse.fd != requested.fd) {
        return Error{ErrorCode::invalidArgument,
                     name + ": CAN FD setting differs from another ECU on this channel"};
    }
    auto nominal = checkSetting(name, "bitrate", inUse.bitrate, requested.bitrate);
    if (!nominal.ok()) return nominal;
    return checkSetting(name, "data bitrate", inUse.dataBitrate, requested.dataBitrate);
}

}  // namespace

Result<std::shared_ptr<SharedChannel>> SharedChannel::open(hal::ICanAdapter& adapter,
                                                           const hal::CanChannelConfig& config) {
    auto channel = adapter.openChannel(config);
    if (!channel.ok()) return channel.error();
    // The constructor is private, which std::make_shared cannot call.
    std::shared_ptr<SharedChannel> shared(new SharedChannel(adapter, std::move(channel).value()));
    const auto opened = shared->channel_->open();
    if (!opened.ok()) return opened.error();
    return shared;
}

SharedChannel::SharedChannel(hal::ICanAdapter& adapter, std::unique_ptr<hal::ICanChannel> channel)
    : adapter_(adapter), channel_(std::move(channel)), broker_(*channel_) {
    eventRegistration_ = broker_.registerHandler({}, *this);
}

SharedChannel::~SharedChannel() {
    channel_->close();
    broker_.unregisterHandler(eventRegistration_);
}

CanBitrates SharedChannel::bitrates() const {
    CanBitrates rates;
    if (config().bitrate) rates.nominal = config().bitrate->bitrate;
    if (config().dataBitrate) rates.data = config().dataBitrate->bitrate;
    if (rates.nominal != 0 && (rates.data != 0 || !config().fd)) return rates;
    const auto state = interfaceState();
    if (!state) return rates;
    if (rates.nominal == 0) rates.nominal = state->bitTiming.bitrate;
    if (rates.data == 0) rates.data = state->dataBitTiming.bitrate;
    return rates;
}

std::optional<hal::CanInterfaceState> SharedChannel::interfaceState() const {
    const auto interfaces = adapter_.listInterfaces();
    if (!interfaces.ok()) {
        log::info("{}: state of the interface not known: {}", name(), interfaces.error().text());
        return std::nullopt;
    }
    for (const hal::CanInterfaceInfo& interface : interfaces.value()) {
        if (interface.name == name()) return interface.state;
    }
    return std::nullopt;
}

Result<void> SharedChannel::registerIds(Owner owner, const std::vector<std::uint32_t>& ids) {
    const std::lock_guard lock(registryMutex_);
    for (const std::uint32_t id : ids) {
        const auto found = ids_.find(id);
        if (found == ids_.end() || found->second == owner) continue;
        std::array<char, 128> text{};
        std::snprintf(text.data(), text.size(), "CAN-ID 0x%X is already used by another ECU on %s",
                      id & ~kExtendedBit, name().c_str());
        return Error{ErrorCode::alreadyOpen, text.data()};
    }
    std::erase_if(ids_, [owner](const auto& entry) { return entry.second == owner; });
    for (const std::uint32_t id : ids)
        ids_[id] = owner;
    return {};
}

void SharedChannel::releaseIds(Owner owner) {
    const std::lock_guard lock(registryMutex_);
    std::erase_if(ids_, [owner](const auto& entry) { return entry.second == owner; });
    loads_.erase(owner);
}

double SharedChannel::claimLoad(Owner owner, double load) {
    const std::lock_guard lock(registryMutex_);
    loads_[owner] = load;
    double others = 0;
    for (const auto& [other, otherLoad] : loads_) {
        if (other != owner) others += otherLoad;
    }
    return others;
}

Result<void> SharedChannel::reopenIfLost() {
    const std::lock_guard lock(reopenMutex_);
    if (!lost_ && channel_->isOpen()) return {};
    channel_->close();
    lost_ = false;
    return channel_->open();
}

void SharedChannel::onChannelEvent(const hal::CanChannelEvent& event) {
    if (event.kind == hal::CanChannelEventKind::receiveFailed) lost_ = true;
}

ChannelPool& ChannelPool::ofThisMachine() {
    static hal::SocketCanAdapter adapter;
    static ChannelPool pool(adapter);
    return pool;
}

Result<std::shared_ptr<SharedChannel>> ChannelPool::acquire(const hal::CanChannelConfig& config) {
    const std::lock_guard lock(mutex_);
    std::weak_ptr<SharedChannel>& entry = channels_[config.interfaceName];
    if (std::shared_ptr<SharedChannel> channel = entry.lock()) {
        const auto agreed = checkSettings(channel->config(), config);
        if (!agreed.ok()) return agreed.error();
        return channel;
    }
    auto opened = SharedChannel::open(adapter_, config);
    if (opened.ok()) entry = opened.value();
    return opened;
}

}  // namespace lm::session
