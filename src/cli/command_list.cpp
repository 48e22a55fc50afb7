#include "cli/command_list.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <CLI/App.hpp>
#include <spdlog/spdlog.h>

#include "a2l/description.h"
#include "cli/message_output.h"
#include "cli/stop_signal.h"
#include "core/text.h"

namespace lm::cli {
namespace {

constexpr std::array<char, 256> kLower = [] {
    std::array<char, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<char>(i >= 'A' && i <= 'Z' ? i + ('a' - 'A') : i);
    }
    return table;
}();

void lowerInto(std::string& lowered, std::string_view text) {
    lowered.resize(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        lowered[i] = kLower[static_cast<unsigned char>(text[i])];
}

class NameFilter {
  public:
    explicit NameFilter(std::string_view pattern) { lowerInto(pattern_, pattern); }

    bool matches(std::string_view name) {
        if (pattern_.empty()) return true;
        lowerInto(name_, name);
        return name_.find(pattern_) != std::string::npos;
    }

  private:
    std::string pattern_;
    std::string name_;  // its storage serves all names
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

constexpr std::string_view kScalar = "VALUE";

/// In the words of an A2L.
std::string_view typeName(a2l::CharacteristicType type) {
    static constexpr std::array<std::string_view, 8> kNames = {kScalar,  "CURVE",  "MAP",     "CUBOID",
                                                               "CUBE_4", "CUBE_5", "VAL_BLK", "ASCII"};
    return kNames.at(static_cast<std::size_t>(type));
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
};

/// Hands on the matching objects, measurements first, each kind in file order. Returns how many there are.
template <typename Taker>
std::size_t forEachMatch(const a2l::Description& description, const ListCommand::Options& options,
                         const Taker& take) {
    NameFilter filter(options.pattern);
    Units units(description);
    std::size_t count = 0;
    if (options.onlyMeasurements || !options.onlyParameters) {
        for (const a2l::Measurement& object : description.measurements) {
            if (!filter.matches(object.name)) continue;
            take(Row{false, object.name, value::dataTypeName(object.dataType), units.of(object.conversion),
                     object.hasAddress ? std::optional(object.ecuAddress) : std::nullopt, object.readWrite,
                     object.readWrite ? "  rw\n" : "\n"});
            ++count;
        }
    }
    if (options.onlyParameters || !options.onlyMeasurements) {
        for (const a2l::Characteristic& object : description.characteristics) {
            if (!filter.matches(object.name)) continue;
            take(Row{true, object.name, typeName(object.type), units.of(object.conversion), object.address,
                     !object.readOnly, object.readOnly ? "  read-only\n" : "\n"});
            ++count;
        }
    }
    return count;
}

void appendLine(const Row& row, Output& output) {
    output.append(row.isParameter ? "P  " : "M  ");
    output.appendPadded(row.name, 50);
    output.append(' ');
    output.appendPadded(row.isParameter && row.type != kScalar ? "CURVE/MAP..." : row.type, 13);
    output.append(' ');
    output.appendPadded(row.unit, 8);
    output.append(' ');
    appendHex(output, row.address.value_or(0));
    output.append(row.mark);
}

class ListReport final : public IReport {
  public:
    ListReport(const a2l::Description& description, const ListCommand::Options& options)
        : description_(description), options_(options) {}

    void print(Output& output) const override {
        const std::size_t count =
            forEachMatch(description_, options_, [&output](const Row& row) { appendLine(row, output); });
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
}

int ListCommand::run(Workplace& place) {
    const std::filesystem::path& file = place.config.a2l;
    if (file.empty()) {
        place.results.fail("session", Error{ErrorCode::invalidArgument, "no A2L file configured"});
        return 1;
    }
    const auto description = a2l::load(file, stopToken());
    if (!description) {
        place.results.fail("session", description.error(), file.string());
        return 1;
    }
    for (const std::string& warning : description.value().warnings)
        spdlog::warn("A2L: {}", warning);
    if (stopRequested()) return 1;
    place.results.show(ListReport(description.value(), options_));
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
