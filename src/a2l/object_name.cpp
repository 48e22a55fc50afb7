#include "a2l/object_name.h"

#include <algorithm>
#include <array>
#include <functional>
#include <numeric>
#include <utility>

#include "a2l/structure.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr std::array<std::string_view, 5> kSuffixes = {".x", ".y", ".z", ".4", ".5"};

bool exists(const Description& description, std::string_view name) {
    return description.findMeasurement(name) != nullptr || description.findCharacteristic(name) != nullptr ||
           description.findAxisPoints(name) != nullptr || description.findBlob(name) != nullptr ||
           (belongsToInstance(description, name) && findLeaf(description, name));
}

/// Takes the last `[..]` off; none when there is none with a number or a `*` in it.
std::optional<std::optional<std::uint32_t>> takeIndex(std::string_view& name) {
    if (!name.ends_with(']')) return std::nullopt;
    const std::size_t open = name.rfind('[');
    if (open == std::string_view::npos || open == 0) return std::nullopt;
    const std::string_view inside = name.substr(open + 1, name.size() - open - 2);
    std::optional<std::uint32_t> index;
    if (inside != "*") {
        const auto number = parseUnsigned(inside, NumberBase::decimal, 0xFFFFFFFF);
        if (!number) return std::nullopt;
        index = static_cast<std::uint32_t>(number.value());
    }
    name = name.substr(0, open);
    return index;
}

Error refused(const ObjectName& name, const std::string& why) {
    return {ErrorCode::invalidArgument, name.text + ": " + why};
}

std::string counted(std::size_t count, const char* one, const char* more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

}  // namespace

bool ObjectName::isElement() const {
    if (indices.empty()) return false;
    for (const auto& index : indices)
        if (!index) return false;
    return true;
}

std::string_view axisSuffix(std::size_t axis) {
    return kSuffixes[axis];
}

Result<ObjectName> parseObjectName(const Description& description, std::string_view text) {
    ObjectName name;
    name.text = text;
    std::string_view rest = text;
    for (;;) {
        if (exists(description, rest)) {
            name.object = rest;
            return name;
        }
        for (std::size_t i = 0; i < kSuffixes.size(); ++i) {
            const bool isAxis = rest.ends_with(kSuffixes[i]) && name.indices.size() <= 1;
            const std::string_view object = rest.substr(0, rest.size() - (isAxis ? kSuffixes[i].size() : 0));
            if (!isAxis || !exists(description, object)) continue;
            name.object = object;
            name.axis = i;
            return name;
        }
        const auto index = takeIndex(rest);
        if (!index) break;
        name.indices.insert(name.indices.begin(), *index);
    }
    return Error{ErrorCode::notFound,
                 "'" + std::string(text) + "' is neither a MEASUREMENT nor a CHARACTERISTIC"};
}

Result<void> checkIndices(const ObjectName& name, std::span<const std::uint32_t> dimensions) {
    if (dimensions.empty()) return refused(name, "is a single value and has no index");
    if (name.indices.size() > dimensions.size()) {
        return refused(name, "has " + counted(dimensions.size(), "dimension", "dimensions") + ", not " +
                                 std::to_string(name.indices.size()));
    }
    for (std::size_t i = 0; i < name.indices.size(); ++i) {
        if (!name.indices[i] || *name.indices[i] < dimensions[i]) continue;
        return refused(name, "index " + std::to_string(*name.indices[i]) + " is beyond the last one, " +
                                 std::to_string(dimensions[i] - 1));
    }
    return {};
}

Result<std::vector<std::size_t>> selectElements(const ObjectName& name,
                                                std::span<const std::uint32_t> dimensions) {
    std::size_t count =
        std::accumulate(dimensions.begin(), dimensions.end(), std::size_t{1}, std::multiplies());
    std::vector<std::size_t> numbers;
    if (name.indices.empty()) {
        numbers.resize(count);
        std::iota(numbers.begin(), numbers.end(), std::size_t{0});
        return numbers;
    }
    if (auto checked = checkIndices(name, dimensions); !checked) return checked.error();
    // Dimension by dimension: what is chosen so far, once for each index that is chosen here.
    numbers = {0};
    std::size_t stride = 1;
    for (std::size_t i = 0; i < dimensions.size(); ++i) {
        std::vector<std::size_t> more;
        const auto index = i < name.indices.size() ? name.indices[i] : std::nullopt;
        const std::uint32_t first = index.value_or(0);
        const std::uint32_t last = index.value_or(dimensions[i] - 1);
        for (std::uint32_t at = first; at <= last; ++at)
            for (const std::size_t number : numbers)
                more.push_back(number + at * stride);
        numbers = std::move(more);
        stride *= dimensions[i];
    }
    return numbers;
}

std::string indexText(std::size_t number, std::span<const std::uint32_t> dimensions) {
    std::string text;
    for (const std::uint32_t count : dimensions) {
        text += "[" + std::to_string(number % count) + "]";
        number /= count;
    }
    return text;
}

}  // namespace lm::a2l
