#include "xcp/checksum.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace lm::xcp {
namespace {

struct Kind {
    ChecksumType type;
    std::string_view name;
    std::uint8_t width;    ///< bytes of the sum
    std::uint8_t element;  ///< bytes that are added at once; 0: a CRC
};

constexpr std::array kKinds = {
    Kind{ChecksumType::add11, "ADD_11", 1, 1}, Kind{ChecksumType::add12, "ADD_12", 2, 1},
    Kind{ChecksumType::add14, "ADD_14", 4, 1}, Kind{ChecksumType::add22, "ADD_22", 2, 2},
    Kind{ChecksumType::add24, "ADD_24", 4, 2}, Kind{ChecksumType::add44, "ADD_44", 4, 4},
    Kind{ChecksumType::crc16, "CRC_16", 2, 0}, Kind{ChecksumType::crc16Citt, "CRC_16_CITT", 2, 0},
    Kind{ChecksumType::crc32, "CRC_32", 4, 0}, Kind{ChecksumType::userDefined, "USER_DEFINED", 4, 0},
};

const Kind* find(ChecksumType type) {
    const auto* const found =
        std::find_if(kKinds.begin(), kKinds.end(), [type](const Kind& kind) { return kind.type == type; });
    return found == kKinds.end() ? nullptr : found;
}

std::uint32_t sum(std::span<const std::uint8_t> bytes, std::size_t element, ByteOrder order) {
    std::uint32_t total = 0;
    for (std::size_t at = 0; at < bytes.size(); at += element) {
        const std::uint8_t* const here = bytes.data() + at;
        total += element == 1   ? *here
                 : element == 2 ? readBytes<std::uint16_t>(here, order)
                                : readBytes<std::uint32_t>(here, order);
    }
    return total;
}

/// Tables of the two polynomials with their bits turned round, and of the one that goes from the top down.
constexpr std::array<std::uint32_t, 256> reflectedTable(std::uint32_t polynomial) {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1U) != 0 ? value >> 1U ^ polynomial : value >> 1U;
        table[i] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> plainTable(std::uint32_t polynomial) {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i << 8U;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000U) != 0 ? value << 1U ^ polynomial : value << 1U;
        table[i] = value & 0xFFFFU;
    }
    return table;
}

constexpr auto kCrc32 = reflectedTable(0xEDB88320);
constexpr auto kCrc16 = reflectedTable(0xA001);
constexpr auto kCitt = plainTable(0x1021);

std::uint32_t reflectedCrc(std::span<const std::uint8_t> bytes, const std::array<std::uint32_t, 256>& table,
                           std::uint32_t crc) {
    for (const std::uint8_t byte : bytes)
        crc = crc >> 8U ^ table[(crc ^ byte) & 0xFFU];
    return crc;
}

std::uint32_t citt(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xFFFF;
    for (const std::uint8_t byte : bytes)
        crc = (crc << 8U & 0xFFFFU) ^ kCitt[crc >> 8U ^ byte];
    return crc;
}

}  // namespace

std::string_view checksumTypeName(ChecksumType type) {
    const Kind* const kind = find(type);
    return kind == nullptr ? std::string_view() : kind->name;
}

std::uint8_t checksumWidth(ChecksumType type) {
    const Kind* const kind = find(type);
    return kind == nullptr ? std::uint8_t{4} : kind->width;
}

std::optional<std::uint32_t> checksum(ChecksumType type, std::span<const std::uint8_t> bytes,
                                      ByteOrder order) {
    const Kind* const kind = find(type);
    if (kind == nullptr || type == ChecksumType::userDefined) return std::nullopt;
    if (type == ChecksumType::crc32) return ~reflectedCrc(bytes, kCrc32, 0xFFFFFFFF);
    if (type == ChecksumType::crc16) return reflectedCrc(bytes, kCrc16, 0);
    if (type == ChecksumType::crc16Citt) return citt(bytes);
    if (bytes.size() % kind->element != 0) return std::nullopt;
    const std::uint32_t kept = kind->width == 4 ? 0xFFFFFFFF : (1U << 8U * kind->width) - 1;
    return sum(bytes, kind->element, order) & kept;
}

}  // namespace lm::xcp
