#include "session/name_pattern.h"

#include <algorithm>
#include <variant>

#include <spdlog/fmt/fmt.h>

#include "a2l/object_name.h"
#include "a2l/structure.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

bool isOfKind(const a2l::Leaf& leaf, NameKind kind) {
    const bool isMeasurement = std::holds_alternative<const a2l::Measurement*>(leaf.record);
    return kind == NameKind::all || isMeasurement == (kind == NameKind::measurements);
}

/// Whether parts of the instance may match: they begin with its name.
bool mayMatchBelow(std::string_view instance, std::string_view pattern) {
    const std::string_view plain = pattern.substr(0, pattern.find_first_of("*?"));
    const std::size_t common = std::min(plain.size(), instance.size());
    return plain.substr(0, common) == instance.substr(0, common);
}

}  // namespace

Result<void> checkParts(const a2l::Description& description, std::string_view pattern,
                        std::string_view purpose) {
    constexpr std::uint64_t kMostParts = 4'000'000;
    for (const a2l::Instance& instance : description.instances) {
        if (!mayMatchBelow(instance.name, pattern)) continue;
        const std::uint64_t count = a2l::leafCount(description, instance);
        if (count <= kMostParts) continue;
        return Error{ErrorCode::invalidArgument,
                     fmt::format("'{}' reaches into {}, which has {} parts: name those to be {}", pattern,
                                 instance.name, count, purpose)};
    }
    return {};
}

bool isNamePattern(const a2l::Description& description, std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos &&
           !a2l::parseObjectName(description, text).ok();
}

std::vector<std::string> namesMatching(const a2l::Description& description, std::string_view pattern,
                                       NameKind kind, const StopToken& stop) {
    std::vector<std::string> names;
    const auto take = [&](std::string_view name) {
        if (storage::matchesPattern(name, pattern)) names.emplace_back(name);
    };
    const auto takeAll = [&](const auto& records) {
        for (const auto& record : records)
            take(record.name);
    };
    if (kind != NameKind::parameters) takeAll(description.measurements);
    if (kind != NameKind::measurements) {
        takeAll(description.characteristics);
        takeAll(description.axisPoints);
        takeAll(description.blobs);
    }
    for (const a2l::Instance& instance : description.instances) {
        if (!mayMatchBelow(instance.name, pattern)) continue;
        a2l::walkLeaves(description, instance, [&](const Result<a2l::Leaf>& leaf) {
            if (leaf.ok() && isOfKind(leaf.value(), kind)) take(leaf.value().name);
            return !stop.requested();
        });
    }
    return names;
}

}  // namespace lm::session
