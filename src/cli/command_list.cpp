#include "cli/command_list.h"

#include <array>
#include <cstdint>
#include <string>

#include <spdlog/spdlog.h>

#include "cli/message_output.h"
#include "cli/stop_signal.h"

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
        text[9 - i] = "0123456789ABCDEF"[(value >> (4 * i)) & 0xFU];
    output.append({text.data(), text.size()});
}

void appendLine(Output& output, std::string_view kind, std::string_view name, std::string_view type,
                std::string_view unit, std::uint32_t address, std::string_view mark) {
    output.append(kind);
    output.appendPadded(name, 50);
    output.append(' ');
    output.appendPadded(type, 13);
    output.append(' ');
    output.appendPadded(unit, 8);
    output.append(' ');
    appendHex(output, address);
    output.append(mark);
}

}  // namespace

std::size_t printObjects(const a2l::Description& description, const Options& options, Output& output) {
    NameFilter filter(options.pattern);
    Units units(description);
    std::size_t count = 0;
    if (options.onlyMeasurements || !options.onlyParameters) {
        for (const a2l::Measurement& object : description.measurements) {
            if (!filter.matches(object.name)) continue;
            appendLine(output, "M  ", object.name, value::dataTypeName(object.dataType),
                       units.of(object.conversion), object.hasAddress ? object.ecuAddress : 0,
                       object.readWrite ? "  rw\n" : "\n");
            ++count;
        }
    }
    if (options.onlyParameters || !options.onlyMeasurements) {
        for (const a2l::Characteristic& object : description.characteristics) {
            if (!filter.matches(object.name)) continue;
            const bool scalar = object.type == a2l::CharacteristicType::value;
            appendLine(output, "P  ", object.name, scalar ? "VALUE" : "CURVE/MAP...",
                       units.of(object.conversion), object.address, object.readOnly ? "  read-only\n" : "\n");
            ++count;
        }
    }
    return count;
}

int runList(const Options& options, const session::SessionConfig& config, Output& output) {
    if (config.a2l.empty()) {
        printError("session", Error{ErrorCode::invalidArgument, "no A2L file configured"});
        return 1;
    }
    const auto description = a2l::load(config.a2l, stopDescriptor());
    if (!description) {
        printError("session", description.error());
        return 1;
    }
    for (const std::string& warning : description.value().warnings)
        spdlog::warn("A2L: {}", warning);
    if (stopRequested()) return 1;
    const std::size_t count = printObjects(description.value(), options, output);
    if (output.flush()) printMessage(std::to_string(count) + " object(s)\n");
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
