#include "a2l/object_content.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace lm::a2l {
namespace {

/// How often an object is placed that the ECU changes while it is read.
constexpr int kMostPlacings = 5;

/// In an order that reads what placed the object last: what was read before it is then certainly of that
/// place. It takes no more packets, as a first packet of its own needs no pointer to be set before it.
std::vector<MemorySpan> placesLast(const std::vector<MemorySpan>& spans, const std::vector<PlacedBy>& places,
                                   std::size_t bytesPerPacket) {
    std::vector<MemorySpan> last;
    std::vector<MemorySpan> ordered;
    for (const MemorySpan& span : spans) {
        std::uint64_t end = 0;
        for (const PlacedBy& place : places) {
            const bool isIn = place.address.extension == span.address.extension &&
                              place.address.address >= span.address.address &&
                              place.span().end() <= span.end();
            if (isIn) end = std::max(end, place.span().end());
        }
        if (end == 0) {
            ordered.push_back(span);
        } else if (span.size <= bytesPerPacket || end > span.address.address + bytesPerPacket) {
            last.push_back(span);
        } else {
            xcp::Address behind = span.address;
            behind.address += static_cast<std::uint32_t>(bytesPerPacket);
            ordered.push_back({behind, span.size - bytesPerPacket});
            last.push_back({span.address, bytesPerPacket});
        }
    }
    ordered.insert(ordered.end(), last.begin(), last.end());
    return ordered;
}

Result<ObjectContent> readChosen(const Object& object, const ChooseElement& choose, const ReadMemory& read,
                                 std::size_t bytesPerPacket) {
    for (int i = 0; i < kMostPlacings; ++i) {
        auto placed = place(object, read);
        if (!placed) return placed.error();
        ObjectContent content{std::move(placed).value(), {}};
        std::optional<std::size_t> only;
        if (choose) {
            const auto chosen = choose(content.placed);
            if (!chosen) return chosen.error();
            only = chosen.value();
        }
        const auto spans =
            placesLast(content.placed.spans(bytesPerPacket, only), content.placed.placedBy(), bytesPerPacket);
        if (auto loaded = content.image.load(spans, read); !loaded) return loaded.error();
        if (content.placed.isStillPlaced(content.image)) return content;
    }
    Error error{ErrorCode::protocolError, object.name + ": its place or size changed meanwhile"};
    error.hint = "the ECU keeps changing the counts or pointers that tell where it lies: read it again later";
    return error;
}

}  // namespace

const std::uint8_t* ObjectContent::bytes(std::size_t element) const {
    return image.at(placed.address(element), placed.element(element).size());
}

value::Value ObjectContent::raw(std::size_t element) const {
    const value::Element one = placed.element(element);
    return value::rawValue(one, image.at(one.address, one.size()));
}

value::Value ObjectContent::physical(std::size_t element) const {
    return physicals(element, 1).front();
}

std::vector<value::Value> ObjectContent::physicals(std::size_t first, std::size_t count) const {
    const bool areSteps =
        placed.object().kind == ObjectKind::axisPoints && placed.axes().front().about().difference;
    const std::vector<value::Value> sums = areSteps ? points(0) : std::vector<value::Value>();
    std::vector<value::Value> values;
    values.reserve(count);
    for (std::size_t i = first; i < first + count; ++i) {
        const value::Element one = placed.element(i);
        values.push_back(value::physicalValue(
            one, areSteps ? sums[i] : value::rawValue(one, image.at(one.address, one.size()))));
    }
    return values;
}

std::vector<value::Value> ObjectContent::points(std::size_t axis) const {
    auto points = placed.axes()[axis].raw(image);
    return points ? std::move(points).value() : std::vector<value::Value>();
}

Result<ObjectContent> readObject(const Object& object, const ReadMemory& read, std::size_t bytesPerPacket) {
    auto content = readChosen(object, {}, read, bytesPerPacket);
    if (!content) return content;
    if (auto same = content.value().placed.checkMaps(content.value().image); !same) return same.error();
    return content;
}

Result<ObjectContent> readElement(const Object& object, const ChooseElement& choose, const ReadMemory& read,
                                  std::size_t bytesPerPacket) {
    return readChosen(object, choose, read, bytesPerPacket);
}

std::vector<MemorySpan> differences(const ObjectContent& content, const MemoryImage& other) {
    std::vector<MemorySpan> spans;
    const auto compare = [&](const value::Element& element) {
        const std::size_t size = element.size();
        const std::uint8_t* const before = content.image.at(element.address, size);
        const std::uint8_t* const after = other.at(element.address, size);
        if (std::memcmp(before, after, size) != 0) spans.push_back({element.address, size});
    };
    for (std::size_t i = 0; i < content.placed.elementCount(); ++i)
        compare(content.placed.element(i));
    for (const PlacedAxis& axis : content.placed.axes()) {
        for (std::uint32_t i = 0; axis.isOwn() && i < axis.count(); ++i)
            compare(axis.element(i));
    }
    return merged(std::move(spans), 0);
}

}  // namespace lm::a2l
