#include "session/masked_write.h"

#include <array>

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

}  // namespace lm::session
