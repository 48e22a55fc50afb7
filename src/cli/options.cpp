#include "cli/options.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "cli/output.h"
#include "core/text.h"

namespace lm::cli {
namespace {

constexpr const char* kExamples = R"(Examples:
  xcplumo-cli --a2l demo.a2l list speed
  xcplumo-cli --a2l demo.a2l --udp 127.0.0.1:5555 info
  xcplumo-cli --a2l ecu.a2l -i can0 -b 500000 info
  xcplumo-cli -c demo.json get engine_speed cal_gain
  xcplumo-cli -c demo.json set cal_gain=1.5 "cal_injector=test mode"
  xcplumo-cli -c demo.json measure -s engine_speed@1 -s wave@0 -t 10 -r recording
  xcplumo-cli --a2l demo.a2l --serial /dev/ttyACM0:115200 console
  xcplumo-cli -c demo.json --udp [fe80::1%eth0]:5555 save-config other.json
  xcplumo-cli recording info recording
  xcplumo-cli recording show recording -s engine_speed --from 2 --to 4
  xcplumo-cli export recording -o engine.mf4
  xcplumo-cli export recording -o engine.csv --merge -s "engine_*" --from 2 --to 4)";

void addGlobalOptions(CLI::App& app, Options& options) {
    app.add_option("-c,--config", options.configFile, "Session configuration (JSON)");
    app.add_option("--a2l", options.a2l, "A2L file (overrides the configuration)");
    app.add_option("-i,--interface", options.interface, "CAN interface, e.g. can1");
    app.add_option("--udp", options.udp, "XCP on UDP/IP: HOST[:PORT] (instead of a CAN interface)");
    app.add_option("--serial", options.serial,
                   "XCP over a serial line: PORT[:BAUD] (instead of a CAN interface)");
    app.add_option("--reset-delay", options.resetDelayMs,
                   "Serial: wait after opening the port in ms (default 2000, Arduino reset)");
    app.add_option("--cmd-id", options.cmdId, "CAN-ID master->ECU (A2L notation)");
    app.add_option("--res-id", options.resId, "CAN-ID ECU->master (A2L notation)");
    app.add_option("-b,--bitrate", options.bitrate, "CAN bitrate in bit/s (set by the tool)");
    app.add_flag("--no-short-upload", options.noShortUpload, "Do not use SHORT_UPLOAD (QTR, REQ-XCP-017)");
    app.add_option("--reconnect", options.reconnect, "abort | retry | retry_forever");
    app.add_flag("-v,--verbose", options.verbose, "Log details");
    app.set_version_flag("--version", std::string("xcplumo-cli ") + XCPLUMO_VERSION);
}

/// What is wrong with it, empty for nothing.
std::string checkDuration(const std::string& text) {
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds)) return "";  // the conversion tells it
    if (std::isfinite(seconds) && seconds >= 0) return "";
    return "'" + text + "' is not a number of seconds from 0";
}

void addExact(CLI::App& command, Options& options) {
    command.add_flag("--exact", options.exact, "Numbers with all their digits, whatever the display format");
}

CLI::App* addCommand(CLI::App& app, Options& options, Command command, const char* name, const char* help) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->callback([&options, command] { options.command = command; });
    return sub;
}

CLI::App* addAction(CLI::App& recording, RecordingOptions& options, RecordingAction action, const char* name,
                    const char* help) {
    CLI::App* sub = recording.add_subcommand(name, help);
    sub->callback([&options, action] { options.action = action; });
    sub->add_option("directory", options.directory, "Recording directory")->required();
    return sub;
}

void addRecordingCommand(CLI::App& app, Options& options) {
    CLI::App* recording = addCommand(app, options, Command::recording, "recording",
                                     "Look at, check or repair a recording (no connection)");
    recording->require_subcommand(1);
    RecordingOptions& own = options.recording;
    CLI::App* info = addAction(*recording, own, RecordingAction::info, "info",
                               "Outages, groups, signals, counts, rates, gaps, least and greatest values");
    addExact(*info, options);
    addAction(*recording, own, RecordingAction::check, "check",
              "Compare all files with each other; exit code 1 when something is wrong");
    addAction(*recording, own, RecordingAction::repair, "repair",
              "After a crash: cut a torn record, rebuild time index and summaries");
    CLI::App* show =
        addAction(*recording, own, RecordingAction::show, "show", "Plot signals in the terminal");
    show->add_option("-s,--signal", own.signals, "NAME, or a pattern with * and ?")
        ->allow_extra_args(false)  // or it would take the directory behind it
        ->required();
    show->add_option("--from", own.from, "Seconds from the start, or ISO 8601");
    show->add_option("--to", own.to, "Seconds from the start, or ISO 8601");
}

void addExportCommand(CLI::App& app, Options& options) {
    CLI::App* command = addCommand(app, options, Command::exportRecording, "export",
                                   "Convert a recording to MDF 4.1 or CSV (no connection)");
    ExportRequest& own = options.exportRequest;
    command->add_option("directory", own.directory, "Recording directory")->required();
    command->add_option("-o,--output", own.options.output, "Output file, NAME.mf4 or NAME.csv")->required();
    command->add_option("--format", own.format, "mf4 | csv (default: as the output's name ends)");
    command->add_flag("--force", own.options.force, "Overwrite existing files");
    command->add_option("-s,--signal", own.options.signals, "NAME, or a pattern with * and ? (default: all)")
        ->allow_extra_args(false);  // or it would take the directory behind it
    command->add_option("--from", own.options.from, "Seconds from the start, or ISO 8601");
    command->add_option("--to", own.options.to, "Seconds from the start, or ISO 8601; records before it");
    command->add_option("--every", own.options.every, "Only every n-th record of each group");
    command->add_flag("--no-compress", own.noCompress, "MF4: copy the records as they lie");
    command->add_flag("--merge", own.options.merge, "CSV: all groups in one file, on one time axis");
    command->add_flag("--raw", own.options.raw, "CSV: raw values");
    command->add_flag("--absolute", own.options.absolute, "CSV: ISO 8601 times in UTC");
    command->add_flag("--a2l-format", own.options.a2lFormat, "CSV: decimals as the A2L says");
    command->add_flag("--gaps", own.options.gaps, "CSV: list outages and gaps in NAME_gaps.csv");
}

void addCommands(CLI::App& app, Options& options) {
    addCommand(app, options, Command::info, "info", "Connect and show ECU and DAQ information");

    CLI::App* list = addCommand(app, options, Command::list, "list",
                                "Search measurements/parameters in the A2L (no connection)");
    list->add_option("pattern", options.pattern, "Part of the name (case-insensitive)");
    list->add_flag("-p,--parameters", options.onlyParameters, "Only parameters");
    list->add_flag("-m,--measurements", options.onlyMeasurements, "Only measurements");

    CLI::App* get = addCommand(app, options, Command::get, "get", "Read values by name");
    get->add_option("names", options.names, "MEASUREMENT or CHARACTERISTIC names")->required();
    addExact(*get, options);

    CLI::App* set =
        addCommand(app, options, Command::set, "set", "Write parameters: NAME=VALUE (number or verbal text)");
    set->add_option("assignments", options.assignments, "NAME=VALUE")->required();
    set->add_flag("-m,--measurements", options.allowMeasurements,
                  "Also overwrite measurements (without READ_WRITE in the A2L)");
    addExact(*set, options);

    CLI::App* measure =
        addCommand(app, options, Command::measure, "measure", "DAQ measurement with optional recording");
    measure->add_option("-s,--signal", options.signals, "NAME or NAME@EVENT (default: configuration)");
    measure->add_option("-t,--duration", options.durationSeconds, "Seconds (0 = until Ctrl-C)")
        ->check(checkDuration, "");
    measure->add_option("-r,--record", options.recordDirectory, "Recording directory");
    measure->add_option("-p,--print-every", options.printEvery,
                        "Print every n-th record per DAQ list (0 = none)");
    addExact(*measure, options);
    measure
        ->add_option("--fail-on", options.failOn,
                     "losses,outage,empty: exit code 3 when samples were lost, the connection was lost, or a "
                     "DAQ list gave no record")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"losses", "outage", "empty"}));

    CLI::App* console = addCommand(app, options, Command::console, "console",
                                   "Serial line: show the text output of the ECU, send lines from stdin");
    console
        ->add_option("-t,--duration", options.durationSeconds, "Seconds (0 = until Ctrl-C or end of input)")
        ->check(checkDuration, "");

    CLI::App* save = addCommand(app, options, Command::saveConfig, "save-config",
                                "Write the effective configuration to a file");
    save->add_option("file", options.outputFile, "Output file")->required();

    addRecordingCommand(app, options);
    addExportCommand(app, options);
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

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
    Options options;
    CLI::App app("xcplumo-cli - XCP on CAN measurement and calibration", "xcplumo-cli");
    app.fallthrough();
    app.require_subcommand(0, 1);
    addGlobalOptions(app, options);
    addCommands(app, options);
    app.footer(kExamples);  // after the subcommands, which would inherit it
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        std::ostringstream text;
        const int exitCode = app.exit(e, text, std::cerr);
        Output output(STDOUT_FILENO);
        output.append(text.str());
        return output.finish(exitCode);
    }
    return options;
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
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
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
    if (options.noShortUpload) config.xcp.useShortUpload = false;
    if (options.exact) config.display.exact = true;
    if (options.reconnect) {
        auto policy = session::parseReconnectPolicy(*options.reconnect);
        if (!policy) {
            return Error{ErrorCode::invalidArgument, "unknown reconnect policy " + *options.reconnect};
        }
        config.reconnect.policy = policy.value();
    }
    return {};
}

}  // namespace lm::cli
