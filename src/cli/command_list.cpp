#include "cli/command_list.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/App.hpp>
#include <fmt/format.h>

#include "a2l/description.h"
#include "cli/message_output.h"
#include "cli/offline_a2l.h"
#include "cli/stop_signal.h"
#include "core/text.h"
#include "storage/read/signal_selection.h"

namespace lm::cli {
namespace {

/// Ignores the case. A pattern with wildcards is the whole text, another one is a part of it.
class TextFilter {
  public:
    explicit TextFilter(std::string_view pattern)
        : hasWildcards_(pattern.find_first_of("*?") != std::string_view::npos) {
        lowerAsciiInto(pattern_, pattern);
    }

    bool matches(std::string_view text) {
        if (pattern_.empty()) return true;
        lowerAsciiInto(text_, text);
        if (hasWildcards_) return storage::matchesPattern(text_, pattern_);
        return text_.find(pattern_) != std::string::npos;
    }

  private:
    const bool hasWildcards_;
    std::string pattern_;
    std::string text_;  // its storage serves all texts
};

// Units by conversion method; neighbours in a file often share theirs.
class Units {
  public:
    explicit Units(const a2l::Description& description) : description_(description) {}

    std::string_view of(std::string_view method) {
        if (method != method_) {
            const a2l::CompuMethod* found = description_.findCompuMethod(method);
            unit_ = found == nullptr ? std::string_view() : found->unit;
            method_ = method;
        }
        return unit_;
    }

  private:
    const a2l::Description& description_;
    std::string_view method_;
    std::string_view unit_;
};

void appendHex(Output& output, std::uint32_t value) {
    std::array<char, 10> text = {'0', 'x'};
    for (std::size_t i = 0; i < 8; ++i)
        text[9 - i] = kHexDigits[(value >> (4 * i)) & 0xFU];
    output.append({text.data(), text.size()});
}

/// What `list` shows of one object, of either kind.
struct Row {
    bool isParameter;
    std::string_view name;
    std::string_view type;
    std::string_view unit;
    std::optional<std::uint32_t> address;
    bool isWritable;
    std::string_view mark;  ///< what is told of writing where it is not what one expects
    // For -l and JSON.
    std::string_view description;
    double lowerLimit;
    double upperLimit;
    ByteOrder byteOrder;
    std::span<const std::uint16_t> events;
    std::uint32_t elementCount;
    std::span<const a2l::AxisDescription> axes;
};

/// The lengths in all directions, none for a scalar.
std::vector<std::uint32_t> dimensions(const Row& row) {
    std::vector<std::uint32_t> lengths;
    for (const a2l::AxisDescription& axis : row.axes)
        lengths.push_back(axis.maxAxisPoints);
    if (lengths.empty() && row.elementCount > 1) lengths.push_back(row.elementCount);
    return lengths;
}

Row rowOf(const a2l::Description& description, const a2l::Measurement& object, Units& units) {
    return {false,
            object.name,
            value::dataTypeName(object.dataType),
            units.of(object.conversion),
            object.hasAddress ? std::optional(object.ecuAddress) : std::nullopt,
            object.readWrite,
            object.readWrite ? "  rw\n" : "\n",
            object.longIdentifier,
            object.lowerLimit,
            object.upperLimit,
            byteOrderOf(description, object.byteOrder),
            description.events(object),
            object.elementCount,
            {}};
}

Row rowOf(const a2l::Description& description, const a2l::Characteristic& object, Units& units) {
    return {true,
            object.name,
            typeName(object.type),
            units.of(object.conversion),
            object.address,
            !object.readOnly,
            object.readOnly ? "  read-only\n" : "\n",
            object.longIdentifier,
            object.lowerLimit,
            object.upperLimit,
            byteOrderOf(description, object.byteOrder),
            {},
            object.elementCount,
            object.axes};
}

/// Hands on the matching objects, measurements first, each kind in file order. Returns how many there are.
template <typename Taker>
std::size_t forEachMatch(const a2l::Description& description, const ListCommand::Options& options,
                         const Taker& take) {
    TextFilter filter(options.pattern);
    Units units(description);
    std::size_t count = 0;
    const auto takeMatches = [&](const auto& objects) {
        for (const auto& object : objects) {
            const bool matches = filter.matches(object.name) ||
                                 (options.inDescriptions && filter.matches(object.longIdentifier));
            if (!matches) continue;
            take(rowOf(description, object, units));
            ++count;
        }
    };
    if (options.onlyMeasurements || !options.onlyParameters) takeMatches(description.measurements);
    if (options.onlyParameters || !options.onlyMeasurements) takeMatches(description.characteristics);
    return count;
}

void appendLine(const Row& row, Output& output) {
    output.append(row.isParameter ? "P  " : "M  ");
    output.appendPadded(row.name, 50);
    output.append(' ');
    output.appendPadded(
        row.isParameter && row.type != typeName(a2l::CharacteristicType::value) ? "CURVE/MAP..." : row.type,
        13);
    output.append(' ');
    output.appendPadded(row.unit, 8);
    output.append(' ');
    appendHex(output, row.address.value_or(0));
    output.append(row.mark);
}

/// What -l tells of an object, in a second line: no name is too long for it.
void appendDetails(const Row& row, Output& output) {
    std::string text =
        fmt::format("     limits {} to {}", formatShortest(row.lowerLimit), formatShortest(row.upperLimit));
    if (!row.events.empty()) text += fmt::format(", event {}", fmt::join(row.events, " "));
    const auto lengths = dimensions(row);
    if (!lengths.empty()) text += fmt::format(", {} element(s)", fmt::join(lengths, " x "));
    text += fmt::format(", {}", byteOrderName(row.byteOrder));
    if (!row.description.empty()) text += fmt::format(", \"{}\"", row.description);
    output.appendPadded(text, 0);
    output.append('\n');
}

class ListReport final : public IReport {
  public:
    ListReport(const a2l::Description& description, const ListCommand::Options& options)
        : description_(description), options_(options) {}

    void print(Output& output) const override {
        const std::size_t count = forEachMatch(description_, options_, [this, &output](const Row& row) {
            appendLine(row, output);
            if (options_.details) appendDetails(row, output);
        });
        if (output.flush()) printMessage(std::to_string(count) + " object(s)\n");
    }

    void write(JsonWriter& json) const override {
        json.key("objects").beginArray();
        const std::size_t count = forEachMatch(description_, options_, [&json](const Row& row) {
            json.beginObject();
            json.member("name", row.name);
            json.member("kind", row.isParameter ? "parameter" : "measurement");
            json.member("type", row.type);
            json.member("unit", row.unit);
            json.key("address");
            row.address ? json.value(*row.address) : json.null();
            json.member("writable", row.isWritable);
            json.listMember("limits", std::array{row.lowerLimit, row.upperLimit});
            json.listMember("events", row.events);
            json.listMember("dimensions", dimensions(row));
            json.member("byteOrder", byteOrderName(row.byteOrder));
            json.member("description", row.description);
            json.endObject();
        });
        json.endArray();
        json.member("count", count);
    }

  private:
    const a2l::Description& description_;
    const ListCommand::Options& options_;
};

}  // namespace

void ListCommand::addOptions(CLI::App& app) {
    app.add_option("pattern", options_.pattern, "Part of the name (case-insensitive)");
    app.add_flag("-p,--parameters", options_.onlyParameters, "Only parameters");
    app.add_flag("-m,--measurements", options_.onlyMeasurements, "Only measurements");
    app.add_flag("-l,--long", options_.details,
                 "Also limits, events, dimensions, byte order and description");
    app.add_flag("-d,--descriptions", options_.inDescriptions, "Also search in descriptions");
}

int ListCommand::run(Workplace& place) {
    const auto description = loadA2l(place);
    if (!description) return 1;
    place.results.show(ListReport(*description, options_));
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
