#include "cli/list_row.h"

#include <array>
#include <variant>
#include <vector>

#include <fmt/format.h>

#include "a2l/object.h"
#include "cli/offline_a2l.h"
#include "core/text.h"

namespace lm::cli {
namespace {

void appendHex(Output& output, std::uint32_t value) {
    std::array<char, 10> text = {'0', 'x'};
    for (std::size_t i = 0; i < 8; ++i)
        text[9 - i] = kHexDigits[(value >> (4 * i)) & 0xFU];
    output.append({text.data(), text.size()});
}

constexpr std::string_view kReadOnly = "  read-only\n";

/// The lengths in all directions, none for a scalar.
std::vector<std::uint32_t> dimensions(const a2l::Description& description, const ListRow& row) {
    if (!row.arrayOf.empty()) return {row.arrayOf.begin(), row.arrayOf.end()};
    std::vector<std::uint32_t> lengths;
    for (const a2l::AxisDescription& axis : row.axes)
        lengths.push_back(axis.maxAxisPoints);
    if (!lengths.empty() || row.elementCount <= 1) return lengths;
    const auto object = a2l::findObject(description, row.name);
    return object ? object.value().dimensions : std::vector{row.elementCount};
}

/// "COM_AXIS speed_axis, FIX_AXIS over load": what each axis is and what it is about.
std::string axesText(const ListRow& row) {
    std::vector<std::string> texts;
    for (const a2l::AxisDescription& axis : row.axes) {
        std::string text(a2l::axisKindName(axis.kind));
        if (!axis.reference.empty()) text += fmt::format(" {}", row.reference(axis));
        if (axis.inputQuantity != "NO_INPUT_QUANTITY") text += fmt::format(" over {}", axis.inputQuantity);
        texts.push_back(std::move(text));
    }
    return fmt::format("{}", fmt::join(texts, ", "));
}

}  // namespace

ListRow rowOf(const a2l::Description& description, const a2l::Measurement& object, Units& units) {
    ListRow row{.letter = 'M', .kind = "measurement", .name = object.name};
    row.type = value::dataTypeName(object.dataType);
    row.unit = units.of(object.conversion);
    if (object.hasAddress) row.address = object.ecuAddress;
    row.isWritable = object.readWrite;
    if (object.readWrite) row.mark = "  rw\n";
    row.description = object.longIdentifier;
    row.limits = {object.lowerLimit, object.upperLimit};
    row.byteOrder = byteOrderOf(description, object.byteOrder);
    row.events = description.events(object);
    row.elementCount = object.elementCount;
    return row;
}

ListRow rowOf(const a2l::Description& description, const a2l::Characteristic& object, Units& units) {
    ListRow row{.letter = 'P', .kind = "parameter", .name = object.name};
    row.type = typeName(object.type);
    row.unit = units.of(object.conversion);
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = object.longIdentifier;
    row.limits = {object.lowerLimit, object.upperLimit};
    row.byteOrder = byteOrderOf(description, object.byteOrder);
    row.elementCount = object.elementCount;
    row.axes = object.axes;
    return row;
}

ListRow rowOf(const a2l::Description& description, const a2l::AxisPoints& object, Units& units) {
    ListRow row{.letter = 'A', .kind = "axis", .name = object.name};
    row.type = "AXIS_PTS";
    row.unit = units.of(object.conversion);
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = object.longIdentifier;
    row.limits = {object.lowerLimit, object.upperLimit};
    row.byteOrder = byteOrderOf(description, object.byteOrder);
    row.elementCount = object.maxAxisPoints;
    return row;
}

ListRow rowOf(const a2l::Description& /*description*/, const a2l::Blob& object, Units& /*units*/) {
    ListRow row{.letter = 'B', .kind = "blob", .name = object.name};
    row.type = "BLOB";
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = object.longIdentifier;
    row.elementCount = object.size;
    return row;
}

ListRow rowOf(const a2l::Description& description, const a2l::Instance& object, Units& /*units*/) {
    ListRow row{.letter = 'I', .kind = "instance", .name = object.name};
    row.type = description.typeName(object);
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = description.details(object).longIdentifier;
    row.events = description.events(object);
    row.arrayOf = description.dimensions(description.details(object).extent);
    return row;
}

ListRow rowOf(const a2l::Description& description, const a2l::Leaf& leaf, Units& units) {
    const bool readOnly = leaf.instance->readOnly;
    ListRow row =
        std::visit([&](const auto* record) { return rowOf(description, *record, units); }, leaf.record);
    row.name = leaf.name;
    row.address = leaf.address.address;
    if (row.letter == 'M') row.isWritable = row.isWritable || leaf.instance->readWrite;
    if (row.letter == 'M') row.mark = row.isWritable ? "  rw\n" : "\n";
    if (row.letter != 'M' && readOnly) row.mark = kReadOnly;
    row.isWritable = row.isWritable && !readOnly;
    if (row.description.empty()) row.description = description.details(*leaf.instance).longIdentifier;
    if (row.letter == 'M' && row.events.empty()) row.events = description.events(*leaf.instance);
    row.arrayOf = leaf.dimensions;
    row.leaf = &leaf;
    for (const a2l::Overwrite* overwrite : leaf.overwrites) {
        if (overwrite->axis != 0) continue;
        if (!overwrite->conversion.empty()) row.unit = units.of(overwrite->conversion);
        if (overwrite->physUnit) row.unit = *overwrite->physUnit;  // also when empty
        if (overwrite->limits) row.limits = overwrite->limits;
    }
    return row;
}

void appendLine(const ListRow& row, Output& output) {
    const std::array<char, 3> letter = {row.letter, ' ', ' '};
    output.append({letter.data(), letter.size()});
    output.appendPadded(row.name, 50);
    output.append(' ');
    output.appendPadded(
        row.letter == 'P' && row.type != typeName(a2l::CharacteristicType::value) ? "CURVE/MAP..." : row.type,
        13);
    output.append(' ');
    output.appendPadded(row.unit, 8);
    output.append(' ');
    appendHex(output, row.address.value_or(0));
    output.append(row.mark);
}

void appendDetails(const a2l::Description& description, const ListRow& row, Output& output) {
    std::vector<std::string> texts;
    if (row.limits) {
        texts.push_back(fmt::format("limits {} to {}", formatShortest(row.limits->first),
                                    formatShortest(row.limits->second)));
    }
    if (!row.events.empty()) texts.push_back(fmt::format("event {}", fmt::join(row.events, " ")));
    const auto lengths = dimensions(description, row);
    if (!lengths.empty()) texts.push_back(fmt::format("{} element(s)", fmt::join(lengths, " x ")));
    if (!row.axes.empty()) texts.push_back(axesText(row));
    if (row.byteOrder) texts.emplace_back(byteOrderName(*row.byteOrder));
    if (!row.description.empty()) texts.push_back(fmt::format("\"{}\"", row.description));
    output.appendPadded(fmt::format("     {}", fmt::join(texts, ", ")), 0);
    output.append('\n');
}

void writeRow(const a2l::Description& description, const ListRow& row, JsonWriter& json) {
    json.beginObject();
    json.member("name", row.name);
    json.member("kind", row.kind);
    json.member("type", row.type);
    json.member("unit", row.unit);
    json.key("address");
    row.address ? json.value(*row.address) : json.null();
    json.member("writable", row.isWritable);
    if (row.limits) json.listMember("limits", std::array{row.limits->first, row.limits->second});
    json.listMember("events", row.events);
    json.listMember("dimensions", dimensions(description, row));
    if (row.byteOrder) json.member("byteOrder", byteOrderName(*row.byteOrder));
    json.member("description", row.description);
    if (!row.axes.empty()) {
        json.key("axes").beginArray();
        for (const a2l::AxisDescription& axis : row.axes) {
            json.beginObject();
            json.member("attribute", a2l::axisKindName(axis.kind));
            json.member("inputQuantity", axis.inputQuantity);
            if (!axis.reference.empty()) json.member("axisPoints", row.reference(axis));
            json.endObject();
        }
        json.endArray();
    }
    json.endObject();
}

}  // namespace lm::cli
