#include "cli/object_parts.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "a2l/dependency.h"
#include "a2l/folders.h"
#include "a2l/object.h"
#include "a2l/object_name.h"
#include "a2l/placed_object.h"

namespace lm::cli {
namespace {

std::string_view roleName(a2l::Role role) {
    static constexpr std::array<std::string_view, 9> kNames = {
        "measurement", "parameter", "defined", "input", "output", "local", "linked", "folder", "function"};
    return kNames.at(static_cast<std::size_t>(role));
}

void addMemberships(const a2l::Description& description, std::string_view name,
                    std::vector<std::string>& texts) {
    for (const a2l::Membership& membership : a2l::foldersOf(description, name)) {
        const bool isGroup = membership.folder->kind == a2l::FolderKind::group;
        texts.push_back(
            isGroup ? fmt::format("GROUP {}", membership.folder->name)
                    : fmt::format("FUNCTION {} ({})", membership.folder->name, roleName(membership.role)));
    }
}

/// From the first byte of all elements to the end of the last.
MemoryPart partFrom(std::string name, std::size_t count, const auto& elementAt) {
    MemoryPart part;
    part.name = std::move(name);
    std::uint64_t end = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const value::Element element = elementAt(i);
        const std::uint32_t address = element.address.address;
        if (i == 0 || address < part.address) part.address = address;
        end = std::max<std::uint64_t>(end, std::uint64_t{address} + element.size());
    }
    part.size = end - part.address;
    return part;
}

std::vector<MemoryPart> placedParts(const a2l::PlacedObject& placed) {
    std::vector<MemoryPart> parts;
    const bool isAxisObject = placed.object().kind == a2l::ObjectKind::axisPoints;
    parts.push_back(partFrom(isAxisObject ? "points" : "values", placed.elementCount(),
                             [&](std::size_t i) { return placed.element(i); }));
    if (isAxisObject) return parts;
    for (std::size_t i = 0; i < placed.axes().size(); ++i) {
        const a2l::PlacedAxis& axis = placed.axes()[i];
        if (!axis.isStored()) continue;
        const std::string shared = axis.isOwn() ? "" : fmt::format(", those of {}", axis.about().reference);
        parts.push_back(partFrom(fmt::format("points of axis {}{}", a2l::axisSuffix(i).substr(1), shared),
                                 axis.count(), [&](std::size_t point) { return axis.element(point); }));
    }
    return parts;
}

}  // namespace

ObjectParts partsOf(const a2l::Description& description, std::string_view name) {
    ObjectParts parts;
    const auto object = a2l::findObject(description, name);
    if (!object) {
        if (const a2l::Instance* instance = description.findInstance(name)) {
            const auto dimensions = description.dimensions(description.details(*instance).extent);
            parts.dimensions.assign(dimensions.begin(), dimensions.end());
        }
        return parts;
    }
    parts.dimensions = object.value().dimensions;
    for (const a2l::Assumption assumption : object.value().assumptions.list())
        parts.restsOn.emplace_back(a2l::assumptionText(assumption));
    const auto noMemory = [&](xcp::Address, std::size_t) -> Result<std::vector<std::uint8_t>> {
        parts.memoryTells = true;
        return Error{ErrorCode::unsupported, "no memory"};
    };
    const auto placed = a2l::place(object.value(), noMemory);
    if (placed) {
        parts.parts = placedParts(placed.value());
    } else if (!parts.memoryTells) {
        parts.notPlaced = placed.error().text();
    }
    return parts;
}

Relations relationsOf(const a2l::Description& description, std::string_view name, std::string_view instance) {
    Relations relations;
    addMemberships(description, name, relations.folders);
    if (!instance.empty() && instance != name) addMemberships(description, instance, relations.folders);
    if (const a2l::Dependency* dependency = description.findDependency(name)) {
        relations.computedFrom = fmt::format("{}", fmt::join(description.sources(*dependency), ", "));
        if (!relations.computedFrom.empty() && !dependency->formula.empty()) relations.computedFrom += ": ";
        relations.computedFrom += dependency->formula;
    }
    for (const a2l::Dependency& dependency : description.dependencies) {
        const auto sources = description.sources(dependency);
        if (std::find(sources.begin(), sources.end(), name) != sources.end())
            relations.dependents.emplace_back(dependency.name);
    }
    return relations;
}

void writeParts(JsonWriter& json, const ObjectParts& parts) {
    json.listMember("dimensions", parts.dimensions);
    json.key("parts").beginArray();
    for (const MemoryPart& part : parts.parts) {
        json.beginObject();
        json.member("name", part.name);
        json.member("address", part.address);
        json.member("bytes", part.size);
        json.endObject();
    }
    json.endArray();
    json.member("placeInMemory", parts.memoryTells);
    if (!parts.notPlaced.empty()) json.member("notPlaced", parts.notPlaced);
    json.listMember("restsOn", parts.restsOn);
}

void writeRelations(JsonWriter& json, const Relations& relations) {
    json.listMember("folders", relations.folders);
    if (!relations.computedFrom.empty()) json.member("computedFrom", relations.computedFrom);
    json.listMember("dependents", relations.dependents);
}

}  // namespace lm::cli
