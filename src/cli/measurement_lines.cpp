#include "cli/measurement_lines.h"

#include <cstdlib>
#include <set>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cli/json_writer.h"
#include "cli/value_json.h"
#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

using session::MeasurementPlan;
using session::PlannedSignal;
using Record = std::span<const std::uint8_t>;

/// Where a signal lies in its records, and what stands before and behind its value.
struct Column {
    std::string before;
    std::size_t offset = 0;
    value::Element element;
    std::string behind;

    bool isInside(Record record) const { return offset + element.size() <= record.size(); }
};
using Columns = std::vector<Column>;

class TextLines final : public IMeasurementLines {
  public:
    TextLines(const MeasurementPlan& plan, value::NumberStyle style)
        : style_(style), lists_(plan.daq.lists.size()) {
        for (const PlannedSignal& signal : plan.planned) {
            const value::Element& element = signal.element;
            const std::string& unit = element.conversion->unit();
            const bool showUnit = !unit.empty() && !element.conversion->isVerbal();
            lists_.at(signal.listIndex)
                .push_back({"  " + printableText(element.name) + "=", signal.recordOffset, printable(element),
                            showUnit ? " " + printableText(unit) : ""});
        }
    }

    std::string start() const override { return ""; }
    std::string state(const std::string& /*ecu*/, session::SessionState /*state*/,
                      const std::string& /*message*/, const std::string& /*hint*/) const override {
        return "";
    }

    void appendRecord(std::string& text, std::size_t list, std::int64_t sinceFirstNs,
                      Record record) const override {
        const std::string seconds = formatFixed(static_cast<double>(sinceFirstNs) / 1e9, 3);
        if (seconds.size() < 10) text.append(10 - seconds.size(), ' ');
        text += seconds;
        for (const Column& column : lists_[list]) {
            text += column.before;
            text += column.isInside(record)
                        ? value::valueText(column.element, record.data() + column.offset, style_)
                        : "?";
            text += column.behind;
        }
        text += '\n';
    }

  private:
    const value::NumberStyle style_;
    std::vector<Columns> lists_;
};

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
            const value::Element& element = signal.element;
            if (!known.emplace(signal.listIndex, element.name).second) continue;
            Column column{"", signal.recordOffset, element, ""};
            JsonWriter(column.before).key(element.name);
            JsonWriter unit(column.behind);
            unit.beginObject();
            unit.member("unit", element.conversion->unit());
            column.behind.front() = ',';
            lists_.at(signal.listIndex).push_back(std::move(column));
        }
    }

    std::string start() const override { return start_; }

    std::string state(const std::string& ecu, session::SessionState state, const std::string& message,
                      const std::string& hint) const override {
        std::string text = lineStart_;
        JsonWriter json(text);
        json.member("type", "state");
        if (!ecu.empty()) json.member("ecu", ecu);
        json.member("state", session::sessionStateName(state));
        json.member("message", message);
        if (!hint.empty()) json.member("hint", hint);
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
        writeNumbers(json, column.element, bytes);
        text += column.behind;
        json.member("text", value::valueText(column.element, bytes, style_));
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
            json.member("name", signal.element.name);
            json.member("type", value::dataTypeName(signal.element.coding.dataType));
            json.member("unit", signal.element.conversion->unit());
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

value::Element printable(value::Element element) {
    const auto* verbal = std::get_if<value::Conversion::VerbalTable>(&element.conversion->kind());
    if (verbal == nullptr) return element;
    value::Conversion::VerbalTable table = *verbal;
    table.defaultText = printableText(table.defaultText);
    for (auto& range : table.ranges)
        range.text = printableText(range.text);
    element.conversion = std::make_shared<const value::Conversion>(
        std::move(table), element.conversion->formatText(), element.conversion->unit());
    return element;
}

std::unique_ptr<IMeasurementLines> textLines(const MeasurementPlan& plan, value::NumberStyle style) {
    return std::make_unique<TextLines>(plan, style);
}

std::unique_ptr<IMeasurementLines> jsonLines(const MeasurementPlan& plan, value::NumberStyle style,
                                             const std::string& lineStart, const std::string& startMembers) {
    return std::make_unique<JsonLines>(plan, style, lineStart, startMembers);
}

}  // namespace lm::cli
