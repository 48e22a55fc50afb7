#include "cli/measurement_lines.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cli/json_writer.h"
#include "core/text.h"
#include "xcp/text_lines.h"

namespace lm::cli {
namespace {

using session::MeasurementPlan;
using session::PlannedSignal;
using Record = std::span<const std::uint8_t>;

/// Where a signal lies in its records, and what stands before and behind its value.
struct Column {
    std::string before;
    std::size_t offset = 0;
    value::RawCoding coding;
    value::Conversion conversion;
    std::string behind;

    bool isInside(Record record) const { return offset + coding.size() <= record.size(); }
};
using Columns = std::vector<Column>;

/// With verbal texts that do not steer the terminal.
value::Conversion printable(const value::Conversion& conversion) {
    const auto* verbal = std::get_if<value::Conversion::VerbalTable>(&conversion.kind());
    if (verbal == nullptr) return conversion;
    value::Conversion::VerbalTable table = *verbal;
    table.defaultText = xcp::printableText(table.defaultText);
    for (auto& range : table.ranges)
        range.text = xcp::printableText(range.text);
    return {std::move(table), conversion.formatText(), conversion.unit()};
}

class TextLines final : public IMeasurementLines {
  public:
    TextLines(const MeasurementPlan& plan, value::NumberStyle style)
        : style_(style), lists_(plan.daq.lists.size()) {
        for (const PlannedSignal& signal : plan.planned) {
            const a2l::ResolvedObject& object = signal.object;
            const std::string& unit = object.conversion.unit();
            const bool showUnit = !unit.empty() && !object.conversion.isVerbal();
            lists_.at(signal.listIndex)
                .push_back({"  " + xcp::printableText(object.name) + "=", signal.recordOffset, object.coding,
                            printable(object.conversion), showUnit ? " " + xcp::printableText(unit) : ""});
        }
    }

    std::string start() const override { return ""; }
    std::string state(session::SessionState /*state*/, const std::string& /*message*/) const override {
        return "";
    }

    void appendRecord(std::string& text, std::size_t list, std::int64_t sinceFirstNs,
                      Record record) const override {
        const std::string seconds = formatFixed(static_cast<double>(sinceFirstNs) / 1e9, 3);
        if (seconds.size() < 10) text.append(10 - seconds.size(), ' ');
        text += seconds;
        for (const Column& column : lists_[list]) {
            text += column.before;
            text += column.isInside(record) ? value::valueText(record.data() + column.offset, column.coding,
                                                               column.conversion, style_)
                                            : "?";
            text += column.behind;
        }
        text += '\n';
    }

  private:
    const value::NumberStyle style_;
    std::vector<Columns> lists_;
};

/// "raw" and "physical": integers stay integers where the conversion changes nothing.
void writeNumbers(JsonWriter& json, const std::uint8_t* bytes, const value::RawCoding& coding,
                  const value::Conversion& conversion) {
    const auto write = [&json](const auto& raw, const auto& physical) {
        json.member("raw", raw);
        json.member("physical", physical);
    };
    const bool isSame = conversion.binaryExponent() == 0;
    if (value::isFloat(coding.dataType)) {
        const double raw = value::decodeRaw(bytes, coding);
        return write(raw, conversion.toPhysical(raw));
    }
    const std::uint64_t raw = value::decodeInteger(bytes, coding);
    const auto number = static_cast<std::int64_t>(raw);
    if (number < 0 && !value::hasSign(coding)) {
        return isSame ? write(raw, raw) : write(raw, conversion.toPhysical(static_cast<double>(raw)));
    }
    return isSame ? write(number, number) : write(number, conversion.toPhysical(static_cast<double>(number)));
}

class JsonLines final : public IMeasurementLines {
  public:
    JsonLines(const MeasurementPlan& plan, value::NumberStyle style, const std::string& lineStart,
              const std::string& startMembers)
        : style_(style),
          lineStart_(lineStart),
          start_(startLine(plan, startMembers)),
          lists_(plan.daq.lists.size()) {
        std::set<std::pair<std::size_t, std::string>> known;  // a key stands in an object once
        for (const PlannedSignal& signal : plan.planned) {
            const a2l::ResolvedObject& object = signal.object;
            if (!known.emplace(signal.listIndex, object.name).second) continue;
            Column column{"", signal.recordOffset, object.coding, object.conversion, ""};
            JsonWriter(column.before).key(object.name);
            JsonWriter unit(column.behind);
            unit.beginObject();
            unit.member("unit", object.conversion.unit());
            column.behind.front() = ',';
            lists_.at(signal.listIndex).push_back(std::move(column));
        }
    }

    std::string start() const override { return start_; }

    std::string state(session::SessionState state, const std::string& message) const override {
        std::string text = lineStart_;
        JsonWriter json(text);
        json.member("type", "state");
        json.member("state", session::sessionStateName(state));
        json.member("message", message);
        return text + "}\n";
    }

    void appendRecord(std::string& text, std::size_t list, std::int64_t sinceFirstNs,
                      Record record) const override {
        text += lineStart_;
        JsonWriter json(text);
        json.member("type", "record");
        json.member("group", list);
        json.key("t");
        appendSeconds(text, sinceFirstNs);
        json.member("tNs", sinceFirstNs);
        json.key("values").beginObject();
        for (const Column& column : lists_[list])
            appendValue(text, json, column, record);
        text += "}}\n";
    }

  private:
    static void appendSeconds(std::string& text, std::int64_t timeNs) {
        constexpr std::int64_t kNsPerSecond = 1'000'000'000;
        const std::lldiv_t parts = std::lldiv(timeNs, kNsPerSecond);
        if (timeNs < 0) text += '-';
        fmt::format_to(std::back_inserter(text), "{}.{:09}", std::llabs(parts.quot), std::llabs(parts.rem));
    }

    void appendValue(std::string& text, JsonWriter& json, const Column& column, Record record) const {
        if (text.back() != '{') text += ',';
        text += column.before;
        if (!column.isInside(record)) return json.null();
        json.beginObject();
        const std::uint8_t* bytes = record.data() + column.offset;
        writeNumbers(json, bytes, column.coding, column.conversion);
        text += column.behind;
        json.member("text", value::valueText(bytes, column.coding, column.conversion, style_));
        json.endObject();
    }

    std::string startLine(const MeasurementPlan& plan, const std::string& startMembers) const {
        std::string text = lineStart_;
        JsonWriter json(text);
        json.member("type", "start");
        text += startMembers;
        json.key("signals").beginArray();
        for (const PlannedSignal& signal : plan.planned) {
            json.beginObject();
            json.member("name", signal.object.name);
            json.member("type", value::dataTypeName(signal.object.coding.dataType));
            json.member("unit", signal.object.conversion.unit());
            json.member("event", signal.event);
            json.member("group", signal.listIndex);
            json.endObject();
        }
        return text + "]}\n";
    }

    const value::NumberStyle style_;
    const std::string lineStart_;
    const std::string start_;
    std::vector<Columns> lists_;
};

}  // namespace

std::unique_ptr<IMeasurementLines> textLines(const MeasurementPlan& plan, value::NumberStyle style) {
    return std::make_unique<TextLines>(plan, style);
}

std::unique_ptr<IMeasurementLines> jsonLines(const MeasurementPlan& plan, value::NumberStyle style,
                                             const std::string& lineStart, const std::string& startMembers) {
    return std::make_unique<JsonLines>(plan, style, lineStart, startMembers);
}

}  // namespace lm::cli
