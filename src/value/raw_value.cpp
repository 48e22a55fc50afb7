#include "value/raw_value.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>

#include "core/text.h"

namespace lm::value {
namespace {

// --- Decoding

template <std::unsigned_integral Word, bool kSigned, ByteOrder kOrder>
double decodePlain(const std::uint8_t* bytes, const RawCoding& /*coding*/) {
    const Word word = readBytes<Word>(bytes, kOrder);
    if constexpr (kSigned) return static_cast<double>(static_cast<std::make_signed_t<Word>>(word));
    return static_cast<double>(word);
}

template <std::unsigned_integral Word, bool kSigned, ByteOrder kOrder>
double decodeMasked(const std::uint8_t* bytes, const RawCoding& coding) {
    const std::uint64_t value = IntegerField(coding).valueIn(readBytes<Word>(bytes, kOrder));
    if constexpr (kSigned) return static_cast<double>(static_cast<std::int64_t>(value));
    return static_cast<double>(value);
}

template <ByteOrder kOrder>
double decodeHalf(const std::uint8_t* bytes, const RawCoding& /*coding*/) {
    return doubleFromHalf(readBytes<std::uint16_t>(bytes, kOrder));
}

template <ByteOrder kOrder>
double decodeSingle(const std::uint8_t* bytes, const RawCoding& /*coding*/) {
    return std::bit_cast<float>(readBytes<std::uint32_t>(bytes, kOrder));
}

template <ByteOrder kOrder>
double decodeDouble(const std::uint8_t* bytes, const RawCoding& /*coding*/) {
    return std::bit_cast<double>(readBytes<std::uint64_t>(bytes, kOrder));
}

template <std::unsigned_integral Word, bool kSigned, ByteOrder kOrder>
RawDecodeFunction integerDecoder(bool masked) {
    return masked ? &decodeMasked<Word, kSigned, kOrder> : &decodePlain<Word, kSigned, kOrder>;
}

template <ByteOrder kOrder>
RawDecodeFunction decoderFor(DataType type, bool masked) {
    switch (type) {
        case DataType::ubyte:
            return integerDecoder<std::uint8_t, false, kOrder>(masked);
        case DataType::sbyte:
            return integerDecoder<std::uint8_t, true, kOrder>(masked);
        case DataType::uword:
            return integerDecoder<std::uint16_t, false, kOrder>(masked);
        case DataType::sword:
            return integerDecoder<std::uint16_t, true, kOrder>(masked);
        case DataType::ulong:
            return integerDecoder<std::uint32_t, false, kOrder>(masked);
        case DataType::slong:
            return integerDecoder<std::uint32_t, true, kOrder>(masked);
        case DataType::uint64:
            return integerDecoder<std::uint64_t, false, kOrder>(masked);
        case DataType::int64:
            return integerDecoder<std::uint64_t, true, kOrder>(masked);
        case DataType::float16:
            return &decodeHalf<kOrder>;
        case DataType::float32:
            return &decodeSingle<kOrder>;
        case DataType::float64:
            break;
    }
    return &decodeDouble<kOrder>;
}

// --- Encoding

/// IEEE half precision, to the nearest, ties to even.
std::uint16_t halfFromSingle(float value) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    const std::uint32_t sign = bits >> 16U & 0x8000U;
    const std::uint32_t magnitude = bits & 0x7FFFFFFFU;
    constexpr std::uint32_t kInfinity = 0x7F800000;
    constexpr std::uint32_t kSmallestNormal = 0x38800000;    // 2^-14
    constexpr std::uint32_t kRoundsToInfinity = 0x477FF000;  // 65520, midway from 65504 to 65536
    std::uint32_t half = 0;
    if (magnitude > kInfinity) {
        half = 0x7E00;
    } else if (magnitude >= kRoundsToInfinity) {
        half = 0x7C00;
    } else if (magnitude >= kSmallestNormal) {
        const std::uint32_t odd = magnitude >> 13U & 1U;
        half = (magnitude - ((127U - 15U) << 23U) + 0xFFFU + odd) >> 13U;
    } else {
        // Scaled to multiples of 2^-24; nearbyint would depend on the rounding mode of the moment.
        const float scaled = std::bit_cast<float>(magnitude) * 0x1p24F;
        half = static_cast<std::uint32_t>(scaled);
        const float rest = scaled - static_cast<float>(half);
        if (rest > 0.5F || (rest == 0.5F && (half & 1U) != 0)) ++half;
    }
    return static_cast<std::uint16_t>(sign | half);
}

void encodeFloat(double value, const RawCoding& coding, std::uint8_t* to) {
    if (coding.dataType == DataType::float64) {
        writeBytes(to, std::bit_cast<std::uint64_t>(value), coding.byteOrder);
        return;
    }
    const auto single = static_cast<float>(value);
    if (coding.dataType == DataType::float32) {
        writeBytes(to, std::bit_cast<std::uint32_t>(single), coding.byteOrder);
    } else {
        writeBytes(to, halfFromSingle(single), coding.byteOrder);
    }
}

/// Whether a whole number fits into a field.
bool fits(Int128 whole, unsigned width, bool isSignedField) {
    const Int128 one = 1;
    if (!isSignedField || width == 0) return whole >= 0 && whole < one << width;
    const Int128 bound = one << (width - 1);
    return whole >= -bound && whole < bound;
}

/// Puts a whole number, in units of the field, among the other bits; false when it does not fit.
bool putField(Int128 whole, const RawCoding& coding, std::span<std::uint8_t> buffer) {
    const IntegerField field(coding);
    if (!fits(whole, field.width, hasSign(coding))) return false;
    const auto bits = static_cast<std::uint64_t>(whole);
    const std::uint64_t old = readSized(buffer.data(), coding.size(), coding.byteOrder);
    const std::uint64_t merged = (((bits << field.shift) ^ old) & field.mask) ^ old;
    writeSized(buffer.data(), merged, coding.size(), coding.byteOrder);
    return true;
}

Error tooSmall() {
    return {ErrorCode::invalidArgument, "buffer too small"};
}

Error outOfRange(const std::string& value, DataType type) {
    return {ErrorCode::invalidArgument,
            "raw value " + value + " outside the range of " + std::string(dataTypeName(type))};
}

double decodeShifted(const std::uint8_t* bytes, const RawCoding& coding) {
    const std::uint64_t value = decodeInteger(bytes, coding);
    return hasSign(coding) ? static_cast<double>(static_cast<std::int64_t>(value))
                           : static_cast<double>(value);
}

/// A value that is not 0 with some significant digits, and with all digits before the point.
double roundedToDigits(double value, int digits) {
    const int decimals = digits - 1 - static_cast<int>(std::floor(std::log10(std::fabs(value))));
    return parseDouble(formatFixed(value, std::max(decimals, 0))).value_or(value);
}

/// What a float type makes of a value.
double storedFloat(double value, DataType type) {
    const auto single = static_cast<float>(value);
    return type == DataType::float64   ? value
           : type == DataType::float32 ? double{single}
                                       : doubleFromHalf(halfFromSingle(single));
}

}  // namespace

RawDecodeFunction rawDecoder(const RawCoding& coding) {
    if (coding.hasBitOperation()) return &decodeShifted;
    const bool masked = coding.bitMask != 0;
    return coding.byteOrder == ByteOrder::bigEndian
               ? decoderFor<ByteOrder::bigEndian>(coding.dataType, masked)
               : decoderFor<ByteOrder::littleEndian>(coding.dataType, masked);
}

double decodeRaw(const std::uint8_t* bytes, const RawCoding& coding) {
    return rawDecoder(coding)(bytes, coding);
}

std::uint64_t decodeInteger(const std::uint8_t* bytes, const RawCoding& coding) {
    const std::uint64_t word = readSized(bytes, coding.size(), coding.byteOrder);
    return IntegerField(coding).valueIn(word) << coding.leftShift;
}

Result<void> encodeRaw(double value, const RawCoding& coding, std::span<std::uint8_t> buffer) {
    if (buffer.size() < coding.size()) return tooSmall();
    if (isFloat(coding.dataType)) {
        encodeFloat(value, coding, buffer.data());
        return {};
    }
    if (std::isnan(value)) return Error{ErrorCode::invalidArgument, "value is not a number"};
    constexpr double kBeyond = 0x1p100;  // no field holds it
    const double whole = std::round(std::ldexp(value, -int{coding.leftShift}));
    if (putField(static_cast<Int128>(std::clamp(whole, -kBeyond, kBeyond)), coding, buffer)) return {};
    return outOfRange(formatFixed(std::round(value), 6), coding.dataType);
}

Result<void> encodeInteger(Int128 value, const RawCoding& coding, std::span<std::uint8_t> buffer) {
    if (buffer.size() < coding.size()) return tooSmall();
    if (putField(shiftedDown(value, coding.leftShift), coding, buffer)) return {};
    return outOfRange(Exact{value}.fixed(6), coding.dataType);
}

Result<void> requireFinite(double value, DataType type) {
    if (!isFloat(type)) return {};
    if (!std::isfinite(storedFloat(value, type))) return outOfRange(formatGeneral(value), type);
    return {};
}

std::string shortestFloat(double value, DataType type) {
    if (type == DataType::float32) return formatShortest(static_cast<float>(value));
    // Five digits tell all halves apart; the sixth is for a logarithm that rounds up.
    constexpr int kMostDigitsOfHalf = 6;
    const bool half = type == DataType::float16 && std::isfinite(value) && value != 0;
    for (int digits = 1; half && digits <= kMostDigitsOfHalf; ++digits) {
        const double rounded = roundedToDigits(value, digits);
        if (storedFloat(rounded, type) == value) return formatShortest(rounded);
    }
    return formatShortest(value);
}

}  // namespace lm::value
