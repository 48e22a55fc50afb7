#include "session/masked_write.h"

#include <algorithm>
#include <array>
#include <utility>

namespace lm::session {

bool isMasked(const value::Element& element) {
    if (value::isFloat(element.coding.dataType)) return false;
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * element.size());
    return value::IntegerField(element.coding).mask != whole;
}

std::vector<std::uint8_t> maskBytes(const value::Element& element) {
    const std::size_t size = element.size();
    std::uint64_t mask = ~std::uint64_t{0};
    if (!value::isFloat(element.coding.dataType)) mask = value::IntegerField(element.coding).mask;
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t place = element.coding.byteOrder == ByteOrder::littleEndian ? i : size - 1 - i;
        bytes[place] = static_cast<std::uint8_t>(mask >> (8U * i));
    }
    return bytes;
}

std::vector<MaskedWord> maskedWords(const value::Element& element, std::span<const std::uint8_t> bytes,
                                    ByteOrder slaveOrder) {
    constexpr std::size_t kWord = sizeof(std::uint32_t);
    const std::vector<std::uint8_t> mask = maskBytes(element);
    const std::size_t before = element.address.address % kWord;
    std::vector<MaskedWord> words;
    for (std::size_t begin = 0; begin < before + bytes.size(); begin += kWord) {
        std::array<std::uint8_t, kWord> maskOfWord{};
        std::array<std::uint8_t, kWord> bitsOfWord{};
        for (std::size_t i = 0; i < kWord; ++i) {
            const std::size_t at = begin + i - before;
            if (begin + i < before || at >= bytes.size()) continue;
            maskOfWord[i] = mask[at];
            bitsOfWord[i] = bytes[at] & mask[at];
        }
        MaskedWord word;
        word.address = {static_cast<std::uint32_t>(element.address.address - before + begin),
                        element.address.extension};
        word.mask = readBytes<std::uint32_t>(maskOfWord.data(), slaveOrder);
        word.bits = readBytes<std::uint32_t>(bitsOfWord.data(), slaveOrder);
        if (word.mask != 0) words.push_back(word);
    }
    return words;
}

bool sameBits(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b,
              std::span<const std::uint8_t> mask) {
    for (std::size_t i = 0; i < mask.size(); ++i)
        if (((a[i] ^ b[i]) & mask[i]) != 0) return false;
    return true;
}

Result<void> writeUnder(IMemory& memory, const std::string& name, xcp::Address address,
                        const std::vector<std::uint8_t>& bytes, const std::vector<std::uint8_t>& mask) {
    using value::DataType;
    constexpr std::array<std::pair<std::size_t, DataType>, 4> kTypes = {
        {{8, DataType::uint64}, {4, DataType::ulong}, {2, DataType::uword}, {1, DataType::ubyte}}};
    const bool isWhole = std::all_of(mask.begin(), mask.end(), [](auto bits) { return bits == 0xFF; });
    for (std::size_t at = 0; !isWhole && memory.modifiesBits() && at < bytes.size();) {
        const auto* const type = std::find_if(
            kTypes.begin(), kTypes.end(), [&](const auto& one) { return one.first <= bytes.size() - at; });
        value::Element part;
        part.name = name;
        part.address = {static_cast<std::uint32_t>(address.address + at), address.extension};
        part.coding.dataType = type->second;
        for (std::size_t i = 0; i < type->first; ++i)
            part.coding.bitMask |= std::uint64_t{mask[at + i]} << (8U * i);
        const auto* const first = bytes.data() + at;
        at += type->first;
        if (part.coding.bitMask == 0) continue;
        const auto stored = memory.writeBits(part, {first, first + type->first});
        if (!stored) return stored.error();
    }
    if (!isWhole && memory.modifiesBits()) return {};
    return memory.write(name, address, bytes);
}

}  // namespace lm::session
