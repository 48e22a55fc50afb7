#include "session/name_pattern.h"

#include <variant>

#include <spdlog/fmt/fmt.h>

#include "a2l/leaf_search.h"
#include "a2l/object_name.h"
#include "a2l/structure.h"
#include "core/text.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

bool isOfKind(const a2l::Leaf& leaf, NameKind kind) {
    const bool isMeasurement = std::holds_alternative<const a2l::Measurement*>(leaf.record);
    return kind == NameKind::all || isMeasurement == (kind == NameKind::measurements);
}

/// A pattern whose last indices choose elements: "*.pressure[1]" of the arrays that "*.pressure" matches.
struct ElementPattern {
    std::string_view array;
    std::string_view indices;
};

/// The ways to read the end of a pattern as indices, the one with the fewest first.
std::vector<ElementPattern> elementPatterns(std::string_view pattern) {
    std::vector<ElementPattern> ways;
    std::string_view array = pattern;
    while (array.ends_with(']')) {
        const std::size_t open = array.rfind('[');
        if (open == std::string_view::npos || open == 0) break;
        const std::string_view inside = array.substr(open + 1, array.size() - open - 2);
        const bool isNumber =
            !inside.empty() && inside.find_first_not_of("0123456789") == std::string_view::npos;
        if (!isNumber && inside != "*") break;
        array = array.substr(0, open);
        ways.push_back({array, pattern.substr(open)});
    }
    return ways;
}

bool isArray(const a2l::Measurement& record) {
    return record.elementCount > 1;
}
bool isArray(const a2l::Characteristic& record) {
    const bool isNumbers = record.type != a2l::CharacteristicType::ascii;
    return isNumbers && (record.elementCount > 1 || !record.axes.empty());
}
bool isArray(const a2l::AxisPoints& /*record*/) {
    return true;
}
bool isArray(const a2l::Blob& /*record*/) {
    return true;
}
bool isArray(const a2l::Leaf& leaf) {
    const bool hasParts = std::visit([](const auto* record) { return isArray(*record); }, leaf.record);
    return hasParts || !leaf.dimensions.empty();
}

}  // namespace

NamePattern::NamePattern(std::string_view text, Reading reading)
    : reading_(reading), hasWildcards_(text.find_first_of("*?") != std::string_view::npos), text_(text) {
    if (reading == Reading::search) lowerAsciiInto(text_, text);
}

bool NamePattern::matches(std::string_view name) {
    if (reading_ == Reading::exact) return storage::matchesPattern(name, text_);
    if (text_.empty()) return true;
    lowerAsciiInto(name_, name);
    if (hasWildcards_) return storage::matchesPattern(name_, text_);
    return name_.find(text_) != std::string::npos;
}

std::string_view NamePattern::beginning() const {
    if (reading_ == Reading::search && !hasWildcards_) return {};
    return std::string_view(text_).substr(0, text_.find_first_of("*?"));
}

bool NamePattern::mayMatchBelow(std::string_view instance) const {
    return a2l::NameBeginning(beginning()).allows(instance);
}

Result<void> checkParts(const a2l::Description& description, const a2l::Instance& instance,
                        std::string_view beginning, std::string_view pattern, std::string_view purpose) {
    constexpr std::uint64_t kMostParts = 4'000'000;
    const std::uint64_t count = a2l::leafCount(description, instance, a2l::NameBeginning(beginning));
    if (count <= kMostParts) return {};
    return Error{ErrorCode::invalidArgument,
                 fmt::format("'{}' reaches into {}, which has {} parts: name those to be {}", pattern,
                             instance.name, count, purpose)};
}

Result<void> checkParts(const a2l::Description& description, std::string_view pattern,
                        std::string_view purpose, const FolderFilter& folders) {
    const NamePattern names(pattern, NamePattern::Reading::exact);
    for (const a2l::Instance& instance : description.instances) {
        if (!folders.reachesInto(instance.name)) continue;
        auto few = checkParts(description, instance, names.beginning(), pattern, purpose);
        if (!few.ok()) return few;
    }
    return {};
}

bool isNamePattern(const a2l::Description& description, std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos &&
           !a2l::parseObjectName(description, text).ok();
}

std::vector<std::string> namesMatching(const a2l::Description& description, std::string_view pattern,
                                       NameKind kind, const StopToken& stop, const FolderFilter& folders) {
    std::vector<std::string> names;
    const a2l::NameBeginning beginning(NamePattern(pattern, NamePattern::Reading::exact).beginning());
    const std::vector<ElementPattern> ways = elementPatterns(pattern);
    const auto take = [&](const auto& record) {
        const std::string_view name = record.name;
        if (!folders.takes(name)) return;
        if (storage::matchesPattern(name, pattern)) {
            names.emplace_back(name);
            return;
        }
        for (const ElementPattern& way : ways) {
            if (!isArray(record) || !storage::matchesPattern(name, way.array)) continue;
            names.emplace_back(std::string(name) + std::string(way.indices));
            return;
        }
    };
    const auto takeAll = [&](const auto& records) {
        for (const auto& record : records)
            take(record);
    };
    if (kind != NameKind::parameters) takeAll(description.measurements);
    if (kind != NameKind::measurements) {
        takeAll(description.characteristics);
        takeAll(description.axisPoints);
        takeAll(description.blobs);
    }
    for (const a2l::Instance& instance : description.instances) {
        if (!folders.reachesInto(instance.name)) continue;
        a2l::walkLeaves(description, instance, beginning, [&](const Result<a2l::Leaf>& leaf) {
            if (leaf.ok() && isOfKind(leaf.value(), kind)) take(leaf.value());
            return !stop.requested();
        });
    }
    return names;
}

}  // namespace lm::session
