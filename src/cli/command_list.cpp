#include "cli/command_list.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

#include "a2l/description.h"
#include "a2l/object.h"
#include "a2l/structure.h"
#include "cli/message_output.h"
#include "cli/offline_a2l.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "core/text.h"
#include "session/folder_filter.h"
#include "session/name_pattern.h"
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

/// What `list` shows of one object, of whatever kind.
struct Row {
    char letter = 'M';
    std::string_view kind;
    std::string_view name;
    std::string_view type = {};
    std::string_view unit = {};
    std::optional<std::uint32_t> address = {};
    bool isWritable = false;
    std::string_view mark = "\n";  ///< what is told of writing where it is not what one expects
    // For -l and JSON.
    std::string_view description = {};
    std::optional<std::pair<double, double>> limits = {};
    std::optional<ByteOrder> byteOrder = {};
    std::span<const std::uint16_t> events = {};
    std::uint32_t elementCount = 1;
    std::span<const a2l::AxisDescription> axes = {};
    std::span<const std::uint32_t> arrayOf = {};  ///< of an instance or one of its parts
    const a2l::Leaf* leaf = nullptr;              ///< of a part: what THIS stands for

    std::string reference(const a2l::AxisDescription& axis) const {
        return leaf == nullptr ? std::string(axis.reference) : a2l::resolveReference(*leaf, axis.reference);
    }
};

constexpr std::string_view kReadOnly = "  read-only\n";

/// The lengths in all directions, none for a scalar.
std::vector<std::uint32_t> dimensions(const a2l::Description& description, const Row& row) {
    if (!row.arrayOf.empty()) return {row.arrayOf.begin(), row.arrayOf.end()};
    std::vector<std::uint32_t> lengths;
    for (const a2l::AxisDescription& axis : row.axes)
        lengths.push_back(axis.maxAxisPoints);
    if (!lengths.empty() || row.elementCount <= 1) return lengths;
    const auto object = a2l::findObject(description, row.name);
    return object ? object.value().dimensions : std::vector{row.elementCount};
}

Row rowOf(const a2l::Description& description, const a2l::Measurement& object, Units& units) {
    Row row{.letter = 'M', .kind = "measurement", .name = object.name};
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

Row rowOf(const a2l::Description& description, const a2l::Characteristic& object, Units& units) {
    Row row{.letter = 'P', .kind = "parameter", .name = object.name};
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

Row rowOf(const a2l::Description& description, const a2l::AxisPoints& object, Units& units) {
    Row row{.letter = 'A', .kind = "axis", .name = object.name};
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

Row rowOf(const a2l::Description& /*description*/, const a2l::Blob& object, Units& /*units*/) {
    Row row{.letter = 'B', .kind = "blob", .name = object.name};
    row.type = "BLOB";
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = object.longIdentifier;
    row.elementCount = object.size;
    return row;
}

Row rowOf(const a2l::Description& description, const a2l::Instance& object, Units& /*units*/) {
    Row row{.letter = 'I', .kind = "instance", .name = object.name};
    row.type = description.typeName(object);
    row.address = object.address;
    row.isWritable = !object.readOnly;
    if (object.readOnly) row.mark = kReadOnly;
    row.description = description.details(object).longIdentifier;
    row.events = description.events(object);
    row.arrayOf = description.dimensions(description.details(object).extent);
    return row;
}

/// Of a part of an instance: what its type says, at its own place.
Row rowOf(const a2l::Description& description, const a2l::Leaf& leaf, Units& units) {
    const bool readOnly = leaf.instance->readOnly;
    Row row = std::visit([&](const auto* record) { return rowOf(description, *record, units); }, leaf.record);
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

/// Hands on the matching objects, kind by kind, each in file order.
template <typename Taker>
class Matcher {
  public:
    Matcher(const a2l::Description& description, const ListCommand::Options& options,
            const session::FolderFilter& folders, const Taker& take)
        : description_(description),
          options_(options),
          folders_(folders),
          take_(take),
          filter_(options.pattern),
          units_(description) {
        lowerAsciiInto(pattern_, options.pattern);
    }

    /// How many there are.
    std::size_t run() {
        const bool all = !options_.onlyMeasurements && !options_.onlyParameters && !options_.onlyAxes;
        if (all || options_.onlyMeasurements) takeMatches(description_.measurements);
        if (all || options_.onlyParameters) takeMatches(description_.characteristics);
        // Who names a folder wants all of it; there may be thousands of axes outside.
        if (options_.onlyAxes || (all && !folders_.takesAll())) takeMatches(description_.axisPoints);
        if (all) takeMatches(description_.blobs);
        for (const a2l::Instance& instance : description_.instances) {
            if (all) takeIfMatching(instance);
            const bool inFolder = !folders_.takes(instance.name) && folders_.takesPartsOf(instance.name);
            if (options_.leaves || inFolder || reachesBelow(instance.name)) takeLeaves(instance);
        }
        return count_;
    }

  private:
    void takeMatches(const auto& objects) {
        for (const auto& object : objects)
            takeIfMatching(object);
    }

    std::string_view descriptionOf(const auto& object) const { return object.longIdentifier; }
    std::string_view descriptionOf(const a2l::Instance& object) const {
        return description_.details(object).longIdentifier;
    }

    void takeIfMatching(const auto& object) {
        const bool matches = filter_.matches(object.name) ||
                             (options_.inDescriptions && filter_.matches(descriptionOf(object)));
        if (!matches || !folders_.takes(object.name)) return;
        take_(rowOf(description_, object, units_));
        ++count_;
    }

    /// The pattern begins with the instance and goes on with a part of it, or may match some by its
    /// wildcards.
    bool reachesBelow(std::string_view instance) {
        if (pattern_.find_first_of("*?") != std::string::npos &&
            pattern_.find_first_of(".[") != std::string::npos) {
            lowerAsciiInto(name_, instance);
            return session::mayMatchBelow(name_, pattern_);
        }
        if (pattern_.size() <= instance.size()) return false;
        const char next = pattern_[instance.size()];
        if (next != '.' && next != '[') return false;
        lowerAsciiInto(name_, instance);
        return pattern_.starts_with(name_);
    }

    bool isWanted(const Row& row) const {
        const bool all = !options_.onlyMeasurements && !options_.onlyParameters && !options_.onlyAxes;
        return all || (row.letter == 'M' && options_.onlyMeasurements) ||
               (row.letter == 'P' && options_.onlyParameters) || (row.letter == 'A' && options_.onlyAxes);
    }

    void takeLeaves(const a2l::Instance& instance) {
        a2l::walkLeaves(description_, instance, [this](const Result<a2l::Leaf>& found) {
            if (stopRequested()) return false;
            if (!found) return true;
            const a2l::Leaf& leaf = found.value();
            const bool matches = filter_.matches(leaf.name);
            if (!matches || !folders_.takes(leaf.name)) return true;
            const Row row = rowOf(description_, leaf, units_);
            if (!isWanted(row)) return true;
            take_(row);
            ++count_;
            return true;
        });
    }

    const a2l::Description& description_;
    const ListCommand::Options& options_;
    const session::FolderFilter& folders_;
    const Taker& take_;
    TextFilter filter_;
    Units units_;
    std::string pattern_;
    std::string name_;  // its storage serves all names
    std::size_t count_ = 0;
};

void appendLine(const Row& row, Output& output) {
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

/// "COM_AXIS speed_axis, FIX_AXIS over load": what each axis is and what it is about.
std::string axesText(const Row& row) {
    std::vector<std::string> texts;
    for (const a2l::AxisDescription& axis : row.axes) {
        std::string text(a2l::axisKindName(axis.kind));
        if (!axis.reference.empty()) text += fmt::format(" {}", row.reference(axis));
        if (axis.inputQuantity != "NO_INPUT_QUANTITY") text += fmt::format(" over {}", axis.inputQuantity);
        texts.push_back(std::move(text));
    }
    return fmt::format("{}", fmt::join(texts, ", "));
}

/// What -l tells of an object, in a second line: no name is too long for it.
void appendDetails(const a2l::Description& description, const Row& row, Output& output) {
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

void writeRow(const a2l::Description& description, const Row& row, JsonWriter& json) {
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

class ListReport final : public IReport {
  public:
    ListReport(const a2l::Description& description, const ListCommand::Options& options,
               const session::FolderFilter& folders)
        : description_(description), options_(options), folders_(folders) {}

    void print(Output& output) const override {
        const std::size_t count = forEachMatch([this, &output](const Row& row) {
            appendLine(row, output);
            if (options_.details) appendDetails(description_, row, output);
        });
        if (output.flush()) printMessage(std::to_string(count) + " object(s)\n");
    }

    void write(JsonWriter& json) const override {
        json.key("objects").beginArray();
        const std::size_t count =
            forEachMatch([this, &json](const Row& row) { writeRow(description_, row, json); });
        json.endArray();
        json.member("count", count);
    }

  private:
    template <typename Taker>
    std::size_t forEachMatch(const Taker& take) const {
        return Matcher(description_, options_, folders_, take).run();
    }

    const a2l::Description& description_;
    const ListCommand::Options& options_;
    const session::FolderFilter& folders_;
};

}  // namespace

void ListCommand::addOptions(OptionSet& options) {
    options.add("pattern", options_.pattern, "Part of the name (case-insensitive)");
    options.addFlag("-p,--parameters", options_.onlyParameters, "Only parameters");
    options.addFlag("-m,--measurements", options_.onlyMeasurements, "Only measurements");
    options.addFlag("--axes", options_.onlyAxes, "Only shared axes (AXIS_PTS)");
    options.addFlag("--leaves", options_.leaves, "Also the parts of instances of structures");
    addFolders(options, options_.groups, options_.functions);
    options.addFlag("-l,--long", options_.details,
                    "Also limits, events, dimensions, axes, byte order and description");
    options.addFlag("-d,--descriptions", options_.inDescriptions, "Also search in descriptions");
}

int ListCommand::run(Workplace& place) {
    const auto description = loadA2l(place);
    if (!description) return 1;
    const auto folders = session::FolderFilter::create(*description, options_.groups, options_.functions);
    if (!folders) {
        place.results.fail("list", folders.error());
        return 1;
    }
    place.results.show(ListReport(*description, options_, folders.value()));
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
