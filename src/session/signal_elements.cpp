#include "session/signal_elements.h"

#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "a2l/dependency.h"
#include "a2l/object_name.h"
#include "a2l/placed_object.h"
#include "a2l/structure.h"

namespace lm::session {
namespace {

Error unsupported(const std::string& name, const std::string& why) {
    return {ErrorCode::unsupported, name + ": " + why};
}

/// What no name was found for, with the most that can be said of it.
Error unknownName(const a2l::Description& description, std::string_view name) {
    if (a2l::belongsToInstance(description, name)) {
        Error error = a2l::findLeaf(description, name).error();
        if (error.message.find("is a structure") != std::string::npos)
            error.hint = fmt::format("'{}.*' stands for all parts of a structure", name);
        return error;
    }
    return a2l::findScalar(description, name).error();
}

/// Nothing samples what has no place; what it is computed from can be sampled.
Error withSources(const a2l::Description& description, std::string_view name, Error error) {
    const a2l::Dependency* const dependency = description.findDependency(name);
    if (dependency == nullptr || dependency->kind == a2l::DependencyKind::dependentCharacteristic)
        return error;
    error.hint = fmt::format("it is computed from {}: measure them instead",
                             fmt::join(description.sources(*dependency), ", "));
    return error;
}

Result<void> checkPoints(const std::string& name, const a2l::Axis& axis) {
    if (axis.difference)
        return unsupported(name, "its points are stored as steps from one to the next, which are no signals");
    return {};
}

/// How many there are, and how each is found.
struct Part {
    std::vector<std::uint32_t> dimensions;
    const a2l::PlacedAxis* axis = nullptr;  ///< none: the values
};

Result<Part> partOf(const a2l::ObjectName& name, const a2l::PlacedObject& placed) {
    const bool isAxisObject = placed.object().kind == a2l::ObjectKind::axisPoints;
    if (!name.axis) {
        if (isAxisObject) {
            if (auto able = checkPoints(name.text, placed.axes().front().about()); !able) return able.error();
        }
        return Part{placed.dimensions()};
    }
    if (*name.axis >= placed.axes().size())
        return unsupported(name.text, fmt::format("has {} {}", placed.axes().size(),
                                                  placed.axes().size() == 1 ? "axis" : "axes"));
    const a2l::PlacedAxis& axis = placed.axes()[*name.axis];
    if (axis.about().shared)
        return unsupported(name.text, "the points are those of " + axis.about().reference + ", measure that");
    if (!axis.isStored()) return unsupported(name.text, "the points are fixed in the A2L, not in the ECU");
    if (auto able = checkPoints(name.text, axis.about()); !able) return able.error();
    return Part{{axis.count()}, &axis};
}

Error tooMany(const std::string& name, std::uint64_t count, std::size_t most, const std::string& one) {
    return {
        ErrorCode::invalidArgument,
        fmt::format("{}: has {} elements, and {} more signals are all that fit into a measurement: choose "
                    "some of them, as in {}",
                    name, count, most, one)};
}

Result<std::vector<value::Element>> elementsOf(const a2l::ObjectName& name, const a2l::PlacedObject& placed,
                                               std::size_t most) {
    const auto part = partOf(name, placed);
    if (!part) return part.error();
    const std::vector<std::uint32_t>& dimensions = part.value().dimensions;
    std::uint64_t count = 1;
    for (std::size_t i = 0; i < dimensions.size(); ++i) {
        const bool isOpen = i >= name.indices.size() || !name.indices[i];
        count *= isOpen ? dimensions[i] : 1;  // at most 64 MiB, or it would not have been placed
    }
    if (count > most) {
        const std::string axis(name.axis ? a2l::axisSuffix(*name.axis) : "");
        return tooMany(name.text, count, most, name.object + axis + a2l::indexText(0, dimensions));
    }
    const auto numbers = a2l::selectElements(name, dimensions);
    if (!numbers) return numbers.error();
    std::vector<value::Element> elements;
    elements.reserve(numbers.value().size());
    for (const std::size_t number : numbers.value()) {
        const a2l::PlacedAxis* const axis = part.value().axis;
        elements.push_back(axis != nullptr ? axis->element(number) : placed.element(number));
    }
    return elements;
}

}  // namespace

Result<SignalElements> findSignalElements(const a2l::Description& description, std::string_view name,
                                          const a2l::ReadMemory& read, std::size_t most) {
    SignalElements found;
    if (auto scalar = a2l::findScalar(description, name, false)) {
        found.object = std::make_shared<const a2l::Object>(std::move(scalar).value());
        found.elements.push_back(found.object->element());
        return found;
    }
    const auto parsed = a2l::parseObjectName(description, name);
    if (!parsed) return unknownName(description, name);
    const a2l::ObjectName& full = parsed.value();
    auto object = a2l::findObject(description, full.object);
    if (!object) return withSources(description, full.object, object.error());
    found.object = std::make_shared<const a2l::Object>(std::move(object).value());
    const a2l::ReadMemory reader = [&](xcp::Address address,
                                       std::size_t size) -> Result<std::vector<std::uint8_t>> {
        if (!read) return unsupported(full.object, "its place depends on what the ECU's memory holds");
        auto bytes = read(address, size);
        if (bytes) found.placedBy.push_back({full.object, address, bytes.value()});
        return bytes;
    };
    const auto placed = a2l::place(*found.object, reader);
    if (!placed) return placed.error();
    auto elements = elementsOf(full, placed.value(), most);
    if (!elements) return elements.error();
    found.elements = std::move(elements).value();
    return found;
}

Result<void> checkPlaces(const std::vector<PlaceBytes>& placedBy, const a2l::ReadMemory& read) {
    for (const PlaceBytes& known : placedBy) {
        const auto bytes = read(known.address, known.bytes.size());
        if (!bytes) return bytes.error();
        if (bytes.value() == known.bytes) continue;
        Error moved{ErrorCode::protocolError,
                    "the ECU came back with another place or size of " + known.object};
        moved.hint =
            "start the measurement again: it goes on only when the ECU gets back what it held at its start";
        return moved;
    }
    return {};
}

}  // namespace lm::session
