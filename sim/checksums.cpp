#include "sim/checksums.h"

#include "sim/data_type.h"

namespace lm::sim {
namespace {

struct ChecksumKind {
    std::uint8_t number;
    std::string_view name;
    std::string_view word;
    std::uint8_t step;   ///< bytes of one summand
    std::uint8_t width;  ///< bits of the sum
    std::uint32_t polynomial = 0;
    std::uint32_t start = 0;
    bool mirrored = false;
    std::uint32_t finish = 0;
};

constexpr ChecksumKind kChecksumKinds[] = {
    {0x01, "add-11", "XCP_ADD_11", 1, 8},
    {0x02, "add-12", "XCP_ADD_12", 1, 16},
    {0x03, "add-14", "XCP_ADD_14", 1, 32},
    {0x04, "add-22", "XCP_ADD_22", 2, 16},
    {0x05, "add-24", "XCP_ADD_24", 2, 32},
    {0x06, "add-44", "XCP_ADD_44", 4, 32},
    {0x07, "crc-16", "XCP_CRC_16", 1, 16, 0x8005, 0, true, 0},
    {0x08, "crc-16-citt", "XCP_CRC_16_CITT", 1, 16, 0x1021, 0xFFFF, false, 0},
    {0x09, "crc-32", "XCP_CRC_32", 1, 32, 0x04C11DB7, 0xFFFFFFFF, true, 0xFFFFFFFF},
    {0xFF, "user", "XCP_USER_DEFINED", 1, 32},
};

const ChecksumKind& kindOf(std::uint8_t number) {
    for (const ChecksumKind& kind : kChecksumKinds) {
        if (kind.number == number) return kind;
    }
    return kChecksumKinds[0];
}

std::uint32_t mirror(std::uint32_t value, unsigned bits) {
    std::uint32_t mirrored = 0;
    for (unsigned i = 0; i < bits; ++i)
        mirrored |= (value >> i & 1U) << (bits - 1 - i);
    return mirrored;
}

/// From the highest bit down, as the polynomials are written.
std::uint32_t crc(const ChecksumKind& kind, std::span<const std::uint8_t> bytes) {
    const std::uint32_t top = 1U << (kind.width - 1U);
    std::uint32_t value = kind.start;
    for (const std::uint8_t byte : bytes) {
        value ^= (kind.mirrored ? mirror(byte, 8) : byte) << (kind.width - 8U);
        for (int bit = 0; bit < 8; ++bit)
            value = (value & top) != 0 ? value << 1U ^ kind.polynomial : value << 1U;
    }
    if (kind.width < 32) value &= (1U << kind.width) - 1;
    return (kind.mirrored ? mirror(value, kind.width) : value) ^ kind.finish;
}

}  // namespace

std::optional<std::uint8_t> checksumNumber(std::string_view name) {
    for (const ChecksumKind& kind : kChecksumKinds) {
        if (kind.name == name) return kind.number;
    }
    return std::nullopt;
}

std::string_view checksumWord(std::uint8_t number) {
    return kindOf(number).word;
}

std::uint8_t checksumStep(std::uint8_t number) {
    return kindOf(number).step;
}

std::uint32_t checksumOf(std::uint8_t number, std::span<const std::uint8_t> bytes, ByteOrder order) {
    const ChecksumKind& kind = kindOf(number);
    if (kind.polynomial != 0) return crc(kind, bytes);
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < bytes.size(); at += kind.step) {
        for (std::size_t i = 0; i < kind.step; ++i) {
            const std::size_t shift = order == ByteOrder::bigEndian ? kind.step - 1U - i : i;
            sum += std::uint64_t{bytes[at + i]} << 8U * shift;
        }
    }
    return static_cast<std::uint32_t>(sum & ((std::uint64_t{1} << kind.width) - 1));
}

}  // namespace lm::sim
