#include "params/record_lines.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"

namespace lm::params {
namespace {

constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> digitTable() {
    std::array<std::uint8_t, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        const auto digit = hexDigit(static_cast<char>(i));
        table[i] = digit ? static_cast<std::uint8_t>(*digit) : kNoDigit;
    }
    return table;
}
constexpr auto kDigits = digitTable();

constexpr std::uint8_t digitOf(char c) {
    return kDigits[static_cast<std::uint8_t>(c)];
}

std::string shown(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isprint(byte) != 0) return fmt::format("'{}'", c);
    return fmt::format("byte 0x{:02X}", byte);
}

constexpr const char* kDamaged = "the file was damaged on its way: export it again";

}  // namespace

Error lineError(std::size_t line, const std::string& what, std::string hint) {
    Error error{ErrorCode::invalidArgument, fmt::format("line {}: {}", line, what)};
    error.hint = std::move(hint);
    return error;
}

bool RecordLines::next() {
    while (!rest_.empty()) {
        const std::size_t end = std::min(rest_.find('\n'), rest_.size());
        line_ = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        ++number_;
        hasCarriageReturns_ = hasCarriageReturns_ || line_.ends_with('\r');
        line_ = line_.substr(0, line_.find_last_not_of(" \t\r") + 1);
        if (!line_.empty()) return true;
    }
    return false;
}

Result<std::span<const std::uint8_t>> RecordLines::decode(std::size_t before, std::size_t counted) {
    const std::string_view digits = line_.substr(std::min(before, line_.size()));
    const auto other =
        std::find_if(digits.begin(), digits.end(), [](char c) { return digitOf(c) == kNoDigit; });
    if (other != digits.end())
        return error(fmt::format("{} is no hexadecimal digit", shown(*other)), kDamaged);
    if (digits.size() < 2) return error("the record has no length", kDamaged);
    const std::size_t length = digitOf(digits[0]) * 16U + digitOf(digits[1]);
    const std::size_t wanted = 2 * (length + counted);
    if (digits.size() != wanted) {
        return error(fmt::format("the record has {} digit(s), its length byte 0x{:02X} asks for {}",
                                 digits.size(), length, wanted),
                     kDamaged);
    }
    for (std::size_t i = 0; i < wanted / 2; ++i)
        bytes_[i] = static_cast<std::uint8_t>(digitOf(digits[2 * i]) * 16U + digitOf(digits[2 * i + 1]));
    return std::span<const std::uint8_t>(bytes_).first(wanted / 2);
}

Error RecordLines::error(const std::string& what, std::string hint) const {
    return lineError(number_, what, std::move(hint));
}

std::uint8_t sumOf(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes)
        sum += byte;
    return static_cast<std::uint8_t>(sum);
}

void appendHex(std::string& text, std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) {
        text += kHexDigits[byte >> 4U];
        text += kHexDigits[byte & 0xFU];
    }
}

}  // namespace lm::params
