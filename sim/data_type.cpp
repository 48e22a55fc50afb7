#include "sim/data_type.h"

#include <bit>
#include <cmath>

namespace lm::sim {
namespace {

constexpr int kHalfBias = 15;
constexpr int kHalfFractionBits = 10;

/// Nearest half-precision number, ties to even; what is too large becomes infinite.
std::uint16_t toHalf(double value) {
    const std::uint16_t sign = std::signbit(value) ? 0x8000 : 0;
    if (std::isnan(value)) return 0x7E00;
    const double magnitude = std::fabs(value);
    if (magnitude >= 65520.0) return static_cast<std::uint16_t>(sign | 0x7C00);
    if (magnitude == 0) return sign;
    int exponent = std::ilogb(magnitude);
    if (exponent < 1 - kHalfBias) exponent = 1 - kHalfBias;
    // Counts of the last place; rounding up into the next binade carries into the exponent field by itself.
    const auto counts =
        static_cast<std::uint32_t>(std::nearbyint(std::ldexp(magnitude, kHalfFractionBits - exponent)));
    const auto base = static_cast<std::uint32_t>(exponent + kHalfBias - 1) << kHalfFractionBits;
    return static_cast<std::uint16_t>(sign | (base + counts));
}

double fromHalf(std::uint16_t bits) {
    const int exponent = (bits >> kHalfFractionBits) & 0x1F;
    const int fraction = bits & 0x3FF;
    double value = exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(fraction + 1024, exponent - 25);
    if (exponent == 31) value = fraction == 0 ? HUGE_VAL : std::nan("");
    return (bits & 0x8000) != 0 ? -value : value;
}

std::uint64_t floatBits(DataType type, double value) {
    switch (type) {
        case DataType::float16:
            return toHalf(value);
        case DataType::float32:
            return std::bit_cast<std::uint32_t>(static_cast<float>(value));
        default:
            return std::bit_cast<std::uint64_t>(value);
    }
}

double floatFromBits(DataType type, std::uint64_t bits) {
    switch (type) {
        case DataType::float16:
            return fromHalf(static_cast<std::uint16_t>(bits));
        case DataType::float32:
            return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
        default:
            return std::bit_cast<double>(bits);
    }
}

}  // namespace

void storeRaw(std::uint8_t* to, DataType type, ByteOrder order, std::uint64_t mask, const RawValue& value) {
    const TypeInfo& info = typeInfo(type);
    std::uint64_t bits = info.isFloat ? floatBits(type, value.real) : static_cast<std::uint64_t>(value.whole);
    if (mask != 0) {
        const std::uint64_t old = readSized(to, info.size, order);
        bits = ((bits << std::countr_zero(mask)) & mask) | (old & ~mask);
    }
    writeSized(to, bits, info.size, order);
}

RawValue loadRaw(const std::uint8_t* from, DataType type, ByteOrder order, std::uint64_t mask) {
    const TypeInfo& info = typeInfo(type);
    std::uint64_t bits = readSized(from, info.size, order);
    if (info.isFloat) return {0, floatFromBits(type, bits)};
    unsigned width = static_cast<unsigned>(8 * info.size);
    if (mask != 0) {
        bits = (bits & mask) >> std::countr_zero(mask);
        width = static_cast<unsigned>(std::bit_width(mask >> std::countr_zero(mask)));
    }
    if (info.isSigned && width > 0 && width < 64 && ((bits >> (width - 1)) & 1U) != 0) bits |= ~0ULL << width;
    return {static_cast<std::int64_t>(bits), 0};
}

}  // namespace lm::sim
