#include "cli/run.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <unistd.h>
#include <utility>
#include <variant>

#include <spdlog/spdlog.h>

#include "cli/command_console.h"
#include "cli/command_export.h"
#include "cli/command_info.h"
#include "cli/command_list.h"
#include "cli/command_measure.h"
#include "cli/command_recording.h"
#include "cli/command_values.h"
#include "cli/console_printer.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/stop_signal.h"
#include "session/session.h"

namespace lm::cli {
namespace {

// A standard descriptor that is closed would be given to the next socket or file, and results would be
// written there. Opened for reading only, it refuses what is written instead.
void occupyStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", O_RDONLY) != descriptor) return;
    }
}

Result<session::SessionConfig> effectiveConfig(const Options& options, const char*& errorPrefix) {
    session::SessionConfig config;
    errorPrefix = "configuration";
    if (options.configFile) {
        auto loaded = session::loadSessionConfig(*options.configFile, stopDescriptor());
        if (!loaded) return loaded.error();
        config = std::move(loaded).value();
    }
    errorPrefix = "";
    if (auto done = applyOverrides(options, config); !done) return done.error();
    return config;
}

int runSaveConfig(const std::string& file, const session::SessionConfig& config, Output& output) {
    if (auto saved = session::saveSessionConfig(file, config); !saved) {
        printError("save", saved.error());
        return 1;
    }
    std::error_code ignored;
    const auto directory = std::filesystem::path(file).parent_path();
    if (config.a2l.is_relative() && !config.a2l.empty() && std::filesystem::is_regular_file(file, ignored) &&
        !std::filesystem::exists(directory / config.a2l, ignored)) {
        spdlog::warn("{}: the A2L file {} is not found from there", file, config.a2l.string());
    }
    output.append(file + " written\n");
    return 0;
}

int runConsole(const Options& options, session::Session& session, Output& output) {
    if (!session.medium().hasText()) {
        printMessage("console: needs a serial line (--serial)\n");
        return 1;
    }
    return cmdConsole(session, options.durationSeconds, output);
}

int runConnected(const Options& options, session::Session& session, Console& console, StopWatcher& stop,
                 Output& output) {
    if (auto opened = session.open(); !opened) {
        printError("connect", opened.error());
        return 1;
    }
    int exitCode = 0;
    switch (options.command) {
        case Command::info:
            exitCode = runInfo(session, output);
            break;
        case Command::get:
            exitCode = runGet(session, options.names, output);
            break;
        case Command::set:
            exitCode = runSet(session, options.assignments, options.allowMeasurements, output);
            break;
        case Command::measure:
            return runMeasure(options, session, console, stop);
        default:
            break;
    }
    return stopRequested() ? 1 : exitCode;
}

int runSession(const Options& options, session::SessionConfig config, Output& output) {
    Console console(STDOUT_FILENO);  // outlives the session that calls it
    const bool isRecorded = options.command == Command::measure && !options.recordDirectory.empty();
    auto created = session::Session::create(std::move(config), {}, session::ChannelPool::ofThisMachine(),
                                            stopDescriptor(), isRecorded);
    if (!created) {
        printError("session", created.error());
        return 1;
    }
    session::Session& session = *created.value();
    session.setListener(&console);
    int exitCode = 1;
    {
        StopWatcher stop([&session] { session.requestStop(); });
        if (auto watching = stop.start(); !watching) {
            printError("session", watching.error());
        } else if (options.command == Command::console) {
            exitCode = runConsole(options, session, output);
        } else {
            exitCode = runConnected(options, session, console, stop, output);
        }
    }
    if (auto closed = session.close(); !closed) {
        printError("close", closed.error());
        exitCode = std::max(exitCode, 1);
    }
    return exitCode;
}

/// How `recording info` shows numbers: of a configuration that is given, this alone counts.
Result<value::NumberStyle> recordingStyle(const Options& options) {
    bool exact = options.exact;
    if (options.configFile && options.recording.action == RecordingAction::info) {
        auto config = session::loadSessionConfig(*options.configFile, stopDescriptor());
        if (!config) return config.error();
        exact = exact || config.value().display.exact;
    }
    return exact ? value::NumberStyle::exact : value::NumberStyle::formatted;
}

int runRecordingCommand(const Options& options, Output& output) {
    const auto style = recordingStyle(options);
    if (!style) {
        printError("configuration", style.error());
        return 1;
    }
    return runRecording(options.recording, style.value(), output);
}

/// The commands that work on recordings alone. None for the others.
std::optional<int> runOffline(const Options& options, Output& output) {
    switch (options.command) {
        case Command::recording:
            return runRecordingCommand(options, output);
        case Command::exportRecording:
            return runExport(options.exportRequest, output);
        default:
            return std::nullopt;
    }
}

int runCommand(const Options& options, session::SessionConfig config, Output& output) {
    switch (options.command) {
        case Command::saveConfig:
            return runSaveConfig(options.outputFile, config, output);
        case Command::list:
            return runList(options, config, output);
        default:
            return runSession(options, std::move(config), output);
    }
}

}  // namespace

int run(int argc, const char* const* argv) {
    occupyStandardDescriptors();
    if (auto installed = installStopHandlers(); !installed) {
        printError("signals", installed.error());
        return 1;
    }
    auto parsed = parseOptions(argc, argv);
    if (const int* exitCode = std::get_if<int>(&parsed)) return *exitCode;
    const Options& options = std::get<Options>(parsed);
    setUpLogging(options.verbose);
    Output output(STDOUT_FILENO);
    if (const auto exitCode = runOffline(options, output)) return output.finish(*exitCode);
    MessageOutput messages(STDERR_FILENO);  // outlives all that prints
    if (auto started = messages.start(); !started) {
        printError("session", started.error());
        return 1;
    }
    const char* prefix = "";
    auto config = effectiveConfig(options, prefix);
    if (!config) {
        printError(prefix, config.error());
        return 1;
    }
    const int exitCode = runCommand(options, std::move(config).value(), output);
    return output.finish(exitCode);
}

}  // namespace lm::cli
