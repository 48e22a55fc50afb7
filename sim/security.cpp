#include "sim/security.h"

#include <algorithm>
#include <random>

namespace lm::sim {
namespace {

constexpr std::uint8_t kModeFirst = 0;
constexpr std::uint8_t kModeNext = 1;
constexpr std::uint8_t kKeyMask = 0x5A;

bool isOneResource(std::uint8_t resource) {
    return resource == kCalibration || resource == kDaq || resource == kStim || resource == kPgm;
}

}  // namespace

std::vector<std::uint8_t> keyOf(std::span<const std::uint8_t> seed, std::uint8_t resource, std::size_t size) {
    std::vector<std::uint8_t> key(size);
    for (std::size_t i = 0; i < size; ++i)
        key[i] = static_cast<std::uint8_t>((seed[i % seed.size()] ^ kKeyMask) + resource + i);
    return key;
}

Security::Security(const LockOptions& options, std::uint8_t maxCto)
    : options_(options), room_(maxCto - 2U), locked_(options.resources) {}

void Security::lockAll() {
    locked_ = options_.resources;
    forgetSeed();
}

void Security::forgetSeed() {
    resource_ = 0;
    seed_.clear();
    sent_ = 0;
    keySize_ = 0;
    key_.clear();
}

std::uint8_t Security::resourceOf(std::uint8_t code) const {
    switch (code) {
        case kDownload:
        case kDownloadNext:
        case kModifyBits:
        case kSetCalPage:
        case kSetSegmentMode:
        case kCopyCalPage:
            return kCalibration;
        case kUpload:
        case kShortUpload:
            return options_.locksReads ? kCalibration : 0;
        case kGetDaqClock:
        case kGetDaqProcessorInfo:
        case kGetDaqResolutionInfo:
        case kGetDaqListInfo:
        case kGetDaqListMode:
        case kGetDaqEventInfo:
            return options_.locksQueries ? kDaq : 0;
        case kClearDaqList:
        case kReadDaq:
        case kSetDaqPtr:
        case kWriteDaq:
        case kWriteDaqMultiple:
        case kSetDaqListMode:
        case kStartStopDaqList:
        case kStartStopSynch:
        case kFreeDaq:
        case kAllocDaq:
        case kAllocOdt:
        case kAllocOdtEntry:
            return kDaq;
        default:
            return 0;
    }
}

bool Security::admit(std::uint8_t code) {
    const std::uint8_t resource = resourceOf(code);
    if ((resource & locked_) != 0) return false;
    if (options_.grantsOnce) locked_ = static_cast<std::uint8_t>(locked_ | (resource & options_.resources));
    return true;
}

Security::Refusal Security::requestSeed(std::uint8_t mode, std::uint8_t resource) {
    if (mode == kModeNext) {
        // The resource repeats the first request's, and does not count.
        return resource_ != 0 && sent_ < seed_.size() ? Refusal{} : Err::sequence;
    }
    if (mode != kModeFirst || !isOneResource(resource)) return Err::outOfRange;
    forgetSeed();
    if ((locked_ & resource) == 0) return std::nullopt;
    resource_ = resource;
    std::random_device random;
    seed_.resize(options_.seedBytes);
    std::generate(seed_.begin(), seed_.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return std::nullopt;
}

std::vector<std::uint8_t> Security::seedPart() const {
    const std::size_t size = std::min(room_, seed_.size() - sent_);
    const std::uint8_t* from = seed_.data() + sent_;
    return {from, from + size};
}

Security::Refusal Security::unlock(std::uint8_t left, std::span<const std::uint8_t> part) {
    if (left == 0) return Err::cmdSyntax;
    const bool hasSeed = resource_ != 0 && sent_ == seed_.size();
    if (keySize_ == 0) keySize_ = left;
    if (!hasSeed || left != keySize_ - key_.size()) {
        forgetSeed();
        return Err::sequence;
    }
    const std::span<const std::uint8_t> used = part.first(std::min<std::size_t>({left, part.size(), room_}));
    if (used.empty()) return Err::cmdSyntax;
    key_.insert(key_.end(), used.begin(), used.end());
    if (key_.size() < keySize_) return std::nullopt;
    const std::size_t size = options_.keyBytes != 0 ? options_.keyBytes : seed_.size();
    const bool right = key_ == keyOf(seed_, resource_, size);
    if (right) locked_ = static_cast<std::uint8_t>(locked_ & ~resource_);
    forgetSeed();
    return right ? Refusal{} : Err::accessLocked;
}

}  // namespace lm::sim
