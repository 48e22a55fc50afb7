#include "session/name_pattern.h"

#include <algorithm>

#include "a2l/object_name.h"
#include "a2l/structure.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

/// Whether leaves of an instance may match: they begin with its name.
bool mayMatchBelow(std::string_view instance, std::string_view pattern) {
    const std::string_view plain = pattern.substr(0, pattern.find_first_of("*?"));
    const std::size_t common = std::min(plain.size(), instance.size());
    return plain.substr(0, common) == instance.substr(0, common);
}

}  // namespace

bool isNamePattern(const a2l::Description& description, std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos &&
           !a2l::parseObjectName(description, text).ok();
}

std::vector<std::string> namesMatching(const a2l::Description& description, std::string_view pattern) {
    std::vector<std::string> names;
    const auto take = [&](std::string_view name) {
        if (storage::matchesPattern(name, pattern)) names.emplace_back(name);
    };
    for (const a2l::Measurement& measurement : description.measurements)
        take(measurement.name);
    for (const a2l::Characteristic& characteristic : description.characteristics)
        take(characteristic.name);
    for (const a2l::AxisPoints& points : description.axisPoints)
        take(points.name);
    for (const a2l::Blob& blob : description.blobs)
        take(blob.name);
    for (const a2l::Instance& instance : description.instances) {
        if (!mayMatchBelow(instance.name, pattern)) continue;
        a2l::walkLeaves(description, instance, [&](const Result<a2l::Leaf>& leaf) {
            if (leaf.ok()) take(leaf.value().name);
            return true;
        });
    }
    return names;
}

}  // namespace lm::session
