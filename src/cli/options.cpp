#include "cli/options.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include "core/text.h"

namespace lm::cli {
namespace {

bool isDuration(double seconds) {
    return std::isfinite(seconds) && seconds >= 0;
}

Result<void> overrideId(const std::optional<std::string>& text, std::optional<std::uint32_t>& target) {
    if (!text) return {};
    auto id = parseUnsigned(*text, NumberBase::automatic, UINT32_MAX);
    if (!id) return id.error();
    target = static_cast<std::uint32_t>(id.value());
    return {};
}

Result<void> overrideUdp(const std::string& text, session::SessionConfig& config) {
    auto target = splitUdpTarget(text);
    if (!target) return target.error();
    config.can.interface.clear();
    config.udp.host = target.value().host;
    if (target.value().port) config.udp.port = target.value().port;
    return {};
}

Result<void> overrideSerial(const std::string& text, session::SessionConfig& config) {
    auto target = splitSerialTarget(text);
    if (!target) return target.error();
    config.can.interface.clear();
    config.udp.host.clear();
    config.serial.port = target.value().port;
    if (target.value().baudrate) config.serial.baudrate = target.value().baudrate;
    return {};
}

}  // namespace

void addProgramOptions(OptionSet& set, Options& options) {
    set.add("-c,--config", options.configFile, "Session configuration (JSON)");
    set.add("--ecu", options.ecu, "This one of the ECUs of the configuration, as if it were alone");
    set.add("--a2l", options.a2l, "A2L file (overrides the configuration)");
    set.add("-i,--interface", options.interface, "CAN interface, e.g. can1");
    set.add("--udp", options.udp, "XCP on UDP/IP: HOST[:PORT] (instead of a CAN interface)");
    set.add("--serial", options.serial, "XCP over a serial line: PORT[:BAUD] (instead of a CAN interface)");
    set.add("--reset-delay", options.resetDelayMs,
            "Serial: wait after opening the port in ms (default 2000, Arduino reset)");
    set.add("--cmd-id", options.cmdId, "CAN-ID master->ECU (A2L notation)");
    set.add("--res-id", options.resId, "CAN-ID ECU->master (A2L notation)");
    set.add("-b,--bitrate", options.bitrate, "CAN bitrate in bit/s (set by the tool)");
    set.addFlag("--no-short-upload", options.noShortUpload, "Do not use SHORT_UPLOAD (QTR, REQ-XCP-017)");
    set.add("--connect-timeout", options.connectTimeout,
            "Send CONNECT again and again until so many seconds have passed")
        .checkNumber(isDuration, "a number of seconds from 0");
    set.add("--reconnect", options.reconnect, "abort | retry | retry_forever");
    set.addFlag("--ignore-identity", options.ignoreIdentity,
                "Go on with an ECU whose EPK is not that of the A2L: write to it, too");
    set.addFlag("--direct", options.direct,
                "Go past the program that holds the ECU: its measurement may end");
    set.addFlag("--take-over", options.takeOver,
                "Go on though another user's program holds the ECU: what that does may end");
    set.addFlag("-v,--verbose", options.verbose, "Log details");
}

void addExact(OptionSet& command, bool& exact) {
    command.addFlag("--exact", exact, "Numbers with all their digits, whatever the display format");
}

void addFailOnIdentity(OptionSet& command, std::vector<std::string>& failOn) {
    command
        .add("--fail-on", failOn,
             "identity: exit code 3 when the ECU's EPK is not that of the A2L, or a write could not know")
        .oneEach(',')
        .oneOf({"identity"});
}

int withIdentity(int exitCode, const std::vector<std::string>& failOn, bool warned) {
    const bool fails = std::find(failOn.begin(), failOn.end(), "identity") != failOn.end();
    return exitCode == 0 && fails && warned ? 3 : exitCode;
}

value::NumberStyle numberStyle(const session::SessionConfig& config) {
    return config.display.exact ? value::NumberStyle::exact : value::NumberStyle::formatted;
}

void addDuration(OptionSet& command, double& seconds, const char* help) {
    command.add("-t,--duration", seconds, help)
        .checkNumber(isDuration, "a number of seconds from 0")
        .showDefault();
}

void addReadOnly(OptionSet& command, bool& readOnly) {
    command.addFlag("--read-only", readOnly, "Refuse what others would write through this program");
}

void addTimes(OptionSet& command, std::optional<std::string>& from, std::optional<std::string>& to,
              const char* helpTo) {
    command.add("--from", from, "Seconds from the start, or ISO 8601");
    command.add("--to", to, helpTo);
}

void addFolders(OptionSet& command, std::vector<std::string>& groups, std::vector<std::string>& functions) {
    command.add("--group", groups, "Patterns take only what lies in this GROUP of the A2L or below")
        .oneEach();
    command.add("--function", functions, "Likewise a FUNCTION").oneEach();
}

AddedOption addPatterns(OptionSet& command, std::vector<std::string>& signals, const char* help,
                        AddedOption directory) {
    const auto take = [&signals, directory](std::vector<std::string> words) {
        // The parser leaves the last word of all to the directory, but takes one before other options.
        if (!directory.given()) {
            const auto isDirectory = [](const std::string& word) {
                std::error_code unknown;
                return std::filesystem::is_directory(word, unknown);
            };
            const auto found = std::find_if(words.begin() + 1, words.end(), isDirectory);
            if (found != words.end()) {
                directory.give(*found);
                words.erase(found);
            }
        }
        signals = std::move(words);
    };
    return command.addWords("-s,--signal", take, help);
}

Result<UdpTarget> splitUdpTarget(std::string_view text) {
    const auto colon = text.rfind(':');
    const bool bracketed = text.starts_with('[');
    const bool hasPort =
        colon != std::string_view::npos && (bracketed ? text[colon - 1] == ']' : text.find(':') == colon);
    UdpTarget target;
    std::string_view host = text;
    if (hasPort) {
        auto port = parseUnsigned(text.substr(colon + 1), NumberBase::decimal, UINT16_MAX);
        if (!port) return port.error();
        target.port = static_cast<std::uint16_t>(port.value());
        host = text.substr(0, colon);
    }
    if (bracketed && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    target.host = host;
    return target;
}

Result<SerialTarget> splitSerialTarget(std::string_view text) {
    const auto colon = text.rfind(':');
    const auto digits = colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) {
        return SerialTarget{std::string(text), std::nullopt};
    }
    auto baudrate = parseUnsigned(digits, NumberBase::decimal, UINT32_MAX);
    if (!baudrate) return baudrate.error();
    return SerialTarget{std::string(text.substr(0, colon)), static_cast<std::uint32_t>(baudrate.value())};
}

Result<void> applyOverrides(const Options& options, session::SessionConfig& config) {
    if (options.a2l) config.a2l = *options.a2l;
    if (options.interface) config.can.interface = *options.interface;
    if (options.udp) {
        if (auto done = overrideUdp(*options.udp, config); !done) return done;
    }
    if (options.serial) {
        if (auto done = overrideSerial(*options.serial, config); !done) return done;
    }
    if (options.resetDelayMs >= 0) {
        config.serial.resetDelay = std::chrono::milliseconds(options.resetDelayMs);
    }
    if (auto done = overrideId(options.cmdId, config.can.cmdId); !done) return done;
    if (auto done = overrideId(options.resId, config.can.resId); !done) return done;
    if (options.bitrate != 0) config.can.bitrate = options.bitrate;
    if (options.connectTimeout) {
        constexpr double kMost = UINT32_MAX / 1000.0;  // as of the configuration
        config.xcp.connectTimeout =
            std::chrono::milliseconds(std::llround(std::min(*options.connectTimeout, kMost) * 1000));
    }
    if (options.noShortUpload) config.xcp.useShortUpload = false;
    if (options.reconnect) {
        auto policy = session::parseReconnectPolicy(*options.reconnect);
        if (!policy) {
            return Error{ErrorCode::invalidArgument, "unknown reconnect policy " + *options.reconnect};
        }
        config.reconnect.policy = policy.value();
    }
    return {};
}

std::string_view optionOfOneEcu(const Options& options) {
    const std::pair<std::string_view, bool> given[] = {
        {"--a2l", options.a2l.has_value()},           {"--interface", options.interface.has_value()},
        {"--udp", options.udp.has_value()},           {"--serial", options.serial.has_value()},
        {"--reset-delay", options.resetDelayMs >= 0}, {"--cmd-id", options.cmdId.has_value()},
        {"--res-id", options.resId.has_value()},      {"--bitrate", options.bitrate != 0}};
    const auto found = std::ranges::find_if(given, [](const auto& option) { return option.second; });
    return found == std::end(given) ? std::string_view() : found->first;
}

}  // namespace lm::cli
