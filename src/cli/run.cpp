#include "cli/run.h"

#include <algorithm>
#include <fcntl.h>
#include <optional>
#include <unistd.h>
#include <utility>
#include <variant>

#include "cli/command_line.h"
#include "cli/console_printer.h"
#include "cli/message_output.h"
#include "cli/output.h"
#include "cli/results.h"
#include "cli/sharing.h"
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

/// The configuration in force; an error has been told.
std::optional<session::SessionConfig> effectiveConfig(const CommandLine& line, Results& results) {
    session::SessionConfig config;
    const Options& options = line.options;
    if (options.configFile) {
        auto loaded = session::loadSessionConfig(*options.configFile, stopToken());
        if (!loaded) {
            results.fail("configuration", loaded.error(), *options.configFile);
            return std::nullopt;
        }
        config = std::move(loaded).value();
    }
    if (auto done = applyOverrides(options, config); !done) {
        results.fail("", done.error());
        return std::nullopt;
    }
    line.command->overrule(config);
    return config;
}

int runInSession(const CommandLine& line, Workplace& place) {
    if (line.row->needs == Needs::connection) {
        if (auto opened = place.session->open(); !opened) {
            place.results.fail("connect", opened.error());
            line.command->notConnected(opened.error());
            return opened.error().code == ErrorCode::timeout ? line.command->unansweredCode() : 1;
        }
    }
    return line.command->run(place);
}

int runSession(const CommandLine& line, Workplace& place) {
    Console console(STDOUT_FILENO);  // outlives the session that calls it
    session::SessionOptions sessionOptions = line.command->sessionOptions();
    sessionOptions.ignoresIdentity = line.options.ignoreIdentity;
    Sharing sharing(line.command->sharing(), line.options);  // outlives the session that goes through it
    sessionOptions.adoptMedium = [&](auto medium, const auto& config, const auto& stop) {
        return sharing.adopt(std::move(medium), config, stop);
    };
    auto created = session::Session::create(
        std::move(place.config), {}, session::ChannelPool::ofThisMachine(), stopToken(), sessionOptions);
    if (!created) {
        place.results.fail("session", created.error());
        return 1;
    }
    session::Session& session = *created.value();
    session.setListener(&console);
    int exitCode = 1;
    {
        StopWatcher stop;
        if (auto watching = stop.start(); !watching) {
            place.results.fail("session", watching.error());
        } else {
            place.session = &session;
            place.console = &console;
            place.sharing = &sharing;
            exitCode = runInSession(line, place);
            place.session = nullptr;
            place.console = nullptr;
            place.sharing = nullptr;
        }
    }
    sharing.stop();
    if (auto closed = session.close(); !closed) {
        place.results.fail("close", closed.error());
        exitCode = std::max(exitCode, 1);
    }
    return exitCode;
}

int runConfigured(const CommandLine& line, Workplace& place) {
    MessageOutput messages(STDERR_FILENO);  // outlives all that prints
    if (auto started = messages.start(); !started) {
        place.results.fail("session", started.error());
        return place.results.finish(1);
    }
    if (auto prepared = line.command->prepare(line.form); !prepared) {
        place.results.failOrStopped(line.name, prepared.error());
        return place.results.finish(1);
    }
    auto config = effectiveConfig(line, place.results);
    if (!config) return place.results.finish(1);
    place.config = std::move(*config);
    const bool hasSession = line.command->needs(line.row->needs) >= Needs::session;
    return place.results.finish(hasSession ? runSession(line, place) : line.command->run(place));
}

}  // namespace

int run(int argc, const char* const* argv) {
    occupyStandardDescriptors();
    if (auto installed = installStopHandlers(); !installed) {
        printError("signals", installed.error());
        return 1;
    }
    auto parsed = parseCommandLine(argc, argv);
    if (const int* exitCode = std::get_if<int>(&parsed)) return *exitCode;
    const CommandLine& line = std::get<CommandLine>(parsed);
    setUpLogging(line.options.verbose);
    Output output(STDOUT_FILENO);
    Results results(output, line.name, line.form);
    Workplace place{line.options, results};
    if (line.row->needs == Needs::nothing) return results.finish(line.command->run(place));
    const int exitCode = runConfigured(line, place);
    if (argc == 1 && exitCode != 0) printMessage("\n" + helpText());
    return exitCode;
}

}  // namespace lm::cli
