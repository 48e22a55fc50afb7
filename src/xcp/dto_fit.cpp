#include "xcp/dto_fit.h"

#include <utility>

#include <spdlog/fmt/fmt.h>

namespace lm::xcp {
namespace {

constexpr std::int64_t kMillisecondNs = 1'000'000;
constexpr std::int64_t kWatchedNs = 1000 * kMillisecondNs;
constexpr std::uint64_t kFewest = 4;                // DTOs that are more than an accident
constexpr std::uint64_t kFewestJumps = 3;           // one stands for a packet out of order
constexpr double kLateNs = 500.0 * kMillisecondNs;  // by which one packet may be held up
constexpr double kUnevenNs = 100.0 * kMillisecondNs;
constexpr double kLeastHostNs = 200.0 * kMillisecondNs;  // that tell a pace

}  // namespace

DtoFit::DtoFit(std::size_t lists, std::uint8_t timestampSize, std::int64_t tickNs, IsFilled isFilled)
    : modulus_(timestampSize == 0 ? 0 : std::uint64_t{1} << (8U * timestampSize)),
      tickNs_(tickNs),
      isFilled_(std::move(isFilled)),
      last_(lists) {}

/// A slow list gives few in a second.
void DtoFit::count(std::int64_t hostNs) {
    if (dtos_++ == 0) beginNs_ = hostNs;
    const std::uint64_t ofLists = first_.seen == 0 ? dtos_ : first_.seen;
    if (hostNs - beginNs_ >= kWatchedNs && ofLists >= kFewest)
        finished_.store(true, std::memory_order_release);
}

void DtoFit::onStranger(std::int64_t hostNs) {
    ++strangers_;
    count(hostNs);
}

void DtoFit::onDto(std::size_t list, bool isFirst, std::size_t planned, std::size_t length,
                   std::optional<std::uint32_t> stamp, std::int64_t hostNs) {
    Lengths& lengths = isFirst ? first_ : later_;
    ++lengths.seen;
    const bool longer = length > planned && !isFilled_(planned, length);
    if (longer) ++lengths.longer;
    if (length < planned) ++lengths.shorter;
    if (longer || length < planned) {
        lengths.planned = planned;
        lengths.length = length;
    }
    if (stamp) followStamp(last_[list], *stamp, hostNs);
    count(hostNs);
}

void DtoFit::followStamp(LastStamp& last, std::uint32_t raw, std::int64_t hostNs) {
    const LastStamp before = std::exchange(last, {true, raw, hostNs});
    if (!before.known || tickNs_ <= 0) return;
    const auto host = static_cast<double>(hostNs - before.hostNs);
    const double tick = static_cast<double>(tickNs_);
    // Of a counter that may have wrapped meanwhile, no pace is known.
    if (host > static_cast<double>(modulus_) * tick / 4) return;
    const double slave = static_cast<double>((raw - std::uint64_t{before.raw}) & (modulus_ - 1)) * tick;
    ++steps_;
    if (slave > 2 * host + kLateNs) {
        ++jumps_;
        return;
    }
    hostNs_ += host;
    slaveNs_ += slave;
}

DtoFit::Pace DtoFit::pace() const {
    if (jumps_ >= kFewestJumps && jumps_ * 10 > steps_) return Pace::wrong;
    if (steps_ < kFewest || hostNs_ < kLeastHostNs) return Pace::unknown;
    const bool slow = 2 * slaveNs_ + kUnevenNs < hostNs_;
    const bool fast = slaveNs_ > 2 * hostNs_ + kUnevenNs;
    return slow || fast ? Pace::wrong : Pace::right;
}

std::string DtoFit::misfit() const {
    if (dtos_ < kFewest) return {};
    if (strangers_ * 2 > dtos_)
        return fmt::format("{} of {} DTOs have an identification field that belongs to no ODT of the plan",
                           strangers_, dtos_);
    for (const Lengths* lengths : {&first_, &later_}) {
        if (lengths->seen < kFewest || lengths->shorter * 2 < lengths->seen) continue;
        return fmt::format("DTOs are shorter than planned ({} bytes instead of {})", lengths->length,
                           lengths->planned);
    }
    if (pace() == Pace::wrong)
        return "the timestamps of the DTOs do not go at the pace of this computer's clock";
    if (first_.seen < kFewest || first_.longer != first_.seen) return {};
    const bool padded = later_.longer != 0 && pace() == Pace::right;
    if (padded) return {};
    return fmt::format("{} longer than planned ({} bytes instead of {}){}",
                       later_.seen != 0 && later_.longer == 0
                           ? "the first DTO of each cycle is, and no other one,"
                           : "all DTOs are",
                       first_.length, first_.planned,
                       later_.seen != 0 && later_.longer == 0 ? "" : ", unless the ECU pads them");
}

}  // namespace lm::xcp
