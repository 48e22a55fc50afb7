// What an object holds: its place and the bytes there, and what they would be after a change.
//
// Threads: as a plain value. Lifetime: owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/memory_image.h"
#include "a2l/placed_object.h"
#include "core/result.h"
#include "value/value.h"

namespace lm::a2l {

struct ObjectContent {
    PlacedObject placed;
    MemoryImage image;  ///< holds all of placed.spans(), of readElement() those of the element

    const std::uint8_t* bytes(std::size_t element) const;
    value::Value raw(std::size_t element) const;
    value::Value physical(std::size_t element) const;
    /// As many physical() calls, but the points of DEPOSIT DIFFERENCE are added up once.
    std::vector<value::Value> physicals(std::size_t first, std::size_t count) const;
    /// Raw values of an axis' points, in logical order.
    std::vector<value::Value> points(std::size_t axis) const;
    /// A text in UTF-8, up to its first zero; what is no character of its ENCODING becomes U+FFFD.
    std::string text() const;
};

/// Places an object and reads what it holds. What placed it is read once more, last, and when that is no
/// longer the same all is read again, some times. Errors: those of place(), of `read` and of
/// PlacedObject::checkMaps(); (protocolError) "NAME: its place or size changed meanwhile".
Result<ObjectContent> readObject(const Object& object, const ReadMemory& read, std::size_t bytesPerPacket);

/// Which element is wanted, once it is known how many there are.
using ChooseElement = std::function<Result<std::size_t>(const PlacedObject&)>;

/// The same with one element only. Further errors: those of `choose`.
Result<ObjectContent> readElement(const Object& object, const ChooseElement& choose, const ReadMemory& read,
                                  std::size_t bytesPerPacket);

/// One element or point that gets another value.
struct ObjectChange {
    std::optional<std::size_t> axis;  ///< none: the values
    std::size_t number = 0;
    value::Value physical;
};

/// The bytes with all changes made; the content stays as it is. Checked before: limits, types, whether the
/// part can be written, that the numbers are in use, that steps of DEPOSIT DIFFERENCE fit, and that no axis
/// loses its monotony by it. Errors (invalidArgument) bear the element's name.
Result<MemoryImage> changed(const ObjectContent& content, std::span<const ObjectChange> changes);

/// The same for a text in UTF-8: zeros fill the rest. Errors (invalidArgument): "NAME: ..." for a text that
/// is too long or has characters that the ENCODING lacks.
Result<MemoryImage> changedText(const ObjectContent& content, std::string_view text);

/// What differs, in whole elements and points that touch.
std::vector<MemorySpan> differences(const ObjectContent& content, const MemoryImage& other);

}  // namespace lm::a2l
