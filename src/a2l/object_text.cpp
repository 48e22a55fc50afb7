// Texts of ASCII objects between UTF-8 and the bytes of the ECU.

#include <optional>
#include <string>

#include "a2l/object_content.h"
#include "core/bytes.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

Error fault(const Object& object, const std::string& what) {
    return {ErrorCode::invalidArgument, object.name + ": " + what};
}

/// Bytes per unit of an encoding.
std::size_t unitSize(TextEncoding encoding) {
    if (encoding == TextEncoding::utf16) return 2;
    return encoding == TextEncoding::utf32 ? 4 : 1;
}

void appendUtf8(std::string& text, char32_t character) {
    const auto put = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
    if (character > 0x10FFFF || (character >= 0xD800 && character < 0xE000)) character = kReplacement;
    if (character < 0x80) return put(character);
    if (character < 0x800) {
        put(0xC0U | character >> 6U);
    } else {
        if (character < 0x10000) {
            put(0xE0U | character >> 12U);
        } else {
            put(0xF0U | character >> 18U);
            put(0x80U | (character >> 12U & 0x3FU));
        }
        put(0x80U | (character >> 6U & 0x3FU));
    }
    put(0x80U | (character & 0x3FU));
}

/// The characters of a text that is UTF-8.
std::u32string charactersOf(std::string_view text) {
    std::u32string characters;
    for (const char letter : text) {
        const auto byte = static_cast<std::uint8_t>(letter);
        if ((byte & 0xC0U) == 0x80U) {
            characters.back() = characters.back() << 6U | (byte & 0x3FU);
        } else {
            const std::uint32_t mask = byte < 0x80 ? 0x7F : byte < 0xE0 ? 0x1F : byte < 0xF0 ? 0x0F : 0x07;
            characters += static_cast<char32_t>(byte & mask);
        }
    }
    return characters;
}

void appendUnit(std::vector<std::uint8_t>& bytes, std::uint64_t unit, std::size_t size, ByteOrder order) {
    bytes.resize(bytes.size() + size);
    writeSized(bytes.data() + bytes.size() - size, unit, size, order);
}

/// None for a text with a character that the encoding lacks.
std::optional<std::vector<std::uint8_t>> encoded(std::string_view text, TextEncoding encoding,
                                                 ByteOrder order) {
    if (encoding == TextEncoding::utf8) return std::vector<std::uint8_t>(text.begin(), text.end());
    const std::size_t size = unitSize(encoding);
    std::vector<std::uint8_t> bytes;
    for (const char32_t character : charactersOf(text)) {
        if (encoding == TextEncoding::notGiven && character > 0xFF) return std::nullopt;
        if (encoding == TextEncoding::utf16 && character > 0xFFFF) {
            appendUnit(bytes, 0xD800U + (character - 0x10000U) / 0x400U, size, order);
            appendUnit(bytes, 0xDC00U + character % 0x400U, size, order);
        } else {
            appendUnit(bytes, character, size, order);
        }
    }
    return bytes;
}

std::size_t bytesOf(const PlacedObject& placed) {
    return placed.elementCount() * placed.object().first.size();
}

}  // namespace

std::string ObjectContent::text() const {
    const Object& object = placed.object();
    const std::size_t size = bytesOf(placed);
    const std::uint8_t* const bytes = image.at(placed.address(0), size);
    const std::size_t unit = unitSize(object.encoding);
    const ByteOrder order = object.first.coding.byteOrder;
    std::size_t end = 0;
    while (end + unit <= size && readSized(bytes + end, unit, order) != 0)
        end += unit;
    std::string stored(bytes, bytes + end);
    if (object.encoding == TextEncoding::utf16) return utf16ToUtf8(stored, order == ByteOrder::bigEndian);
    if (object.encoding == TextEncoding::utf8 && isValidUtf8(stored)) return stored;
    std::string text;
    for (std::size_t i = 0; i < end; i += unit) {
        const auto character = static_cast<char32_t>(readSized(bytes + i, unit, order));
        appendUtf8(text,
                   object.encoding == TextEncoding::utf8 && character > 0x7F ? kReplacement : character);
    }
    return text;
}

Result<MemoryImage> changedText(const ObjectContent& content, std::string_view text) {
    const Object& object = content.placed.object();
    if (!object.isText()) return fault(object, "is no text");
    if (!isValidUtf8(text) || text.find('\0') != std::string_view::npos)
        return fault(object, "the text is not valid UTF-8, or holds a zero");
    const std::size_t size = bytesOf(content.placed);
    auto bytes = encoded(text, object.encoding, object.first.coding.byteOrder);
    if (!bytes)
        return fault(object, "the text has characters beyond U+00FF, the object has one byte for each");
    if (bytes->size() > size) {
        return fault(object, "the text takes " + std::to_string(bytes->size()) +
                                 " bytes, there is room for " + std::to_string(size));
    }
    bytes->resize(size);
    MemoryImage image = content.image;
    image.add(content.placed.address(0), *bytes);
    return image;
}

}  // namespace lm::a2l
