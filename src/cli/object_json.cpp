#include "cli/object_json.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "a2l/object_name.h"
#include "cli/object_table.h"
#include "cli/value_json.h"

namespace lm::cli {
namespace {

/// Calls `one` for the elements in their nested arrays, the first index outermost.
template <typename One>
void writeNested(JsonWriter& json, std::span<const std::uint32_t> dimensions, const One& one,
                 std::size_t number = 0, std::size_t stride = 1) {
    if (dimensions.empty()) return one(number);
    json.beginArray();
    for (std::size_t i = 0; i < dimensions.front(); ++i)
        writeNested(json, dimensions.subspan(1), one, number + i * stride, stride * dimensions.front());
    json.endArray();
}

/// Raw values of the elements, with all digits. Of points that lie in memory as steps, of the points.
std::vector<value::Value> rawValues(const a2l::ObjectContent& content) {
    const a2l::PlacedObject& placed = content.placed;
    const bool isAxis = placed.object().kind == a2l::ObjectKind::axisPoints;
    if (isAxis && placed.axes().front().about().difference) return content.points(0);
    std::vector<value::Value> values;
    for (std::size_t i = 0; i < placed.elementCount(); ++i)
        values.push_back(value::wholeRaw(placed.element(i), content.bytes(i)));
    return values;
}

/// Raw, physical, text.
void writeValues(JsonWriter& json, const a2l::ObjectContent& content, value::NumberStyle style) {
    const a2l::PlacedObject& placed = content.placed;
    const auto& dimensions = placed.dimensions();
    const std::vector<value::Value> raw = rawValues(content);
    writeNested(json.key("raw"), dimensions,
                [&](std::size_t number) { writeRaw(json, placed.element(number), raw[number]); });
    if (placed.object().isText()) {
        json.member("physical", content.text());
        return json.member("text", content.text());
    }
    writeNested(json.key("physical"), dimensions,
                [&](std::size_t number) { writePhysical(json, placed.element(number), raw[number]); });
    const std::vector<value::Value> physical = content.physicals(0, placed.elementCount());
    writeNested(json.key("text"), dimensions, [&](std::size_t number) {
        json.value(shownText(placed.element(number), physical[number], style));
    });
}

std::vector<value::Value> rawPoints(const a2l::ObjectContent& content, std::size_t number) {
    const a2l::PlacedAxis& axis = content.placed.axes()[number];
    std::vector<value::Value> points = content.points(number);
    if (!axis.isStored() || axis.hasPairs() || axis.about().difference) return points;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const value::Element element = axis.element(i);
        points[i] = value::wholeRaw(element, content.image.at(element.address, element.size()));
    }
    return points;
}

void writeAxis(JsonWriter& json, const a2l::ObjectContent& content, std::size_t number,
               value::NumberStyle style) {
    const a2l::PlacedAxis& placed = content.placed.axes()[number];
    const a2l::Axis& axis = placed.about();
    const std::vector<value::Value> points = rawPoints(content, number);
    json.beginObject();
    json.member("name", a2l::axisSuffix(number).substr(1));
    json.member("kind", a2l::axisKindName(axis.kind));
    json.member("inputQuantity", axis.inputQuantity);
    json.member("unit", axis.point.conversion->unit());
    json.member("shared", axis.reference);
    json.key("raw").beginArray();
    for (const value::Value& raw : points)
        writeRaw(json, axis.point, raw);
    json.endArray();
    json.key("physical").beginArray();
    for (const value::Value& raw : points)
        writePhysical(json, axis.point, raw);
    json.endArray();
    json.listMember("text", pointTexts(content, number, style));
    json.endObject();
}

}  // namespace

void writeObject(JsonWriter& json, const a2l::ObjectContent& content, value::NumberStyle style) {
    const a2l::Object& object = content.placed.object();
    json.beginObject();
    json.member("type", objectTypeName(object));
    json.listMember("dimensions", content.placed.dimensions());
    json.member("unit", object.first.conversion->unit());
    writeValues(json, content, style);
    json.key("axes").beginArray();
    // Of AXIS_PTS the points are the values.
    const std::size_t axes = object.kind == a2l::ObjectKind::axisPoints ? 0 : content.placed.axes().size();
    for (std::size_t i = 0; i < axes; ++i)
        writeAxis(json, content, i, style);
    json.endArray();
    json.endObject();
}

}  // namespace lm::cli
