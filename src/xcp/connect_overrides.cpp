#include "xcp/connect_overrides.h"

#include <cstddef>

#include "core/log.h"

namespace lm::xcp {
namespace {

constexpr std::size_t kCommMode = 2;
constexpr std::size_t kMaxDto = 4;
constexpr std::uint8_t kByteOrderBit = 0x01;
constexpr std::uint8_t kGranularityBits = 0x06;

const char* nameOf(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "Motorola" : "Intel";
}

template <typename Value>
void tell(const char* what, const Value& told, const Value& counts, const char* key) {
    log::warn("the ECU says that its {} is {}: {} counts (xcp.overrides.{})", what, told, counts, key);
}

}  // namespace

Packet overruled(Packet response, const ConnectOverrides& overrides) {
    if (response.size() < kConnectLength || response.code() != kPidResponse) return response;
    std::uint8_t& mode = response.bytes[kCommMode];
    if (overrides.byteOrder && *overrides.byteOrder != byteOrderOf(mode)) {
        tell("byte order", nameOf(byteOrderOf(mode)), nameOf(*overrides.byteOrder), "byteOrder");
        mode ^= kByteOrderBit;
    }
    // As bits: the reserved code is none of the granularities.
    if (overrides.granularity) {
        const auto bits = static_cast<std::uint8_t>((*overrides.granularity / 2U) << 1U);
        if ((mode & kGranularityBits) != bits) {
            tell("address granularity", unsigned{granularityOf(mode)}, unsigned{*overrides.granularity},
                 "granularity");
            mode = static_cast<std::uint8_t>((mode & ~unsigned{kGranularityBits}) | bits);
        }
    }
    if (!overrides.maxDto) return response;
    std::uint8_t* const field = response.bytes.data() + kMaxDto;
    const auto told = readBytes<std::uint16_t>(field, byteOrderOf(mode));
    if (told == *overrides.maxDto) return response;
    tell("MAX_DTO", told, *overrides.maxDto, "maxDto");
    writeBytes<std::uint16_t>(field, *overrides.maxDto, byteOrderOf(mode));
    return response;
}

}  // namespace lm::xcp
