#include "a2l/object_content.h"

#include <cstring>
#include <string>
#include <utility>

namespace lm::a2l {

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
    auto placed = place(object, read);
    if (!placed) return placed.error();
    ObjectContent content{std::move(placed).value(), {}};
    if (auto loaded = content.image.load(content.placed.spans(bytesPerPacket), read); !loaded)
        return loaded.error();
    if (auto same = content.placed.checkMaps(content.image); !same) return same.error();
    return content;
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
