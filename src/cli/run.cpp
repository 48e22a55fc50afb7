#include "cli/run.h"

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <unistd.h>
#include <utility>
#include <variant>
#include <vector>

#include "cli/command_line.h"
#include "cli/console_printer.h"
#include "cli/message_output.h"
#include "cli/output.h"
#include "cli/results.h"
#include "cli/several_ecus.h"
#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "session/ecu_group.h"
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
std::optional<session::ConfigDocument> effectiveConfig(const CommandLine& line, Results& results) {
    session::ConfigDocument document;
    const Options& options = line.options;
    if (options.configFile) {
        auto loaded = session::loadConfigDocument(*options.configFile, stopToken());
        if (!loaded) {
            results.fail("configuration", loaded.error(), *options.configFile);
            return std::nullopt;
        }
        document = std::move(loaded).value();
    }
    if (auto chosen = chooseEcu(options, document); !chosen) {
        results.failOrStopped("", chosen.error());
        return std::nullopt;
    }
    if (document.isOfSeveral() && !line.command->takesSeveralEcus()) {
        results.fail("", needsOneEcu(line.name, document.ecus));
        return std::nullopt;
    }
    auto& ecus = document.ecus;
    std::vector<session::SessionConfig*> configs{&document.one};
    for (session::SessionConfig& ecu : ecus)
        configs.push_back(&ecu);
    for (session::SessionConfig* const config : configs) {
        if (auto done = applyOverrides(options, *config); !done) {
            results.fail("", done.error());
            return std::nullopt;
        }
        line.command->overrule(*config);
    }
    return document;
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

/// While its signals are watched, which end what `work` waits for.
template <typename Work>
int runWatchingSignals(Results& results, const Work& work) {
    StopWatcher stop;
    if (auto watching = stop.start(); !watching) {
        results.fail("session", watching.error());
        return 1;
    }
    return work();
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
    place.session = &session;
    place.measured = &session;
    place.console = &console;
    place.sharing = &sharing;
    int exitCode = runWatchingSignals(place.results, [&] { return runInSession(line, place); });
    place.session = nullptr;
    place.measured = nullptr;
    place.console = nullptr;
    place.sharing = nullptr;
    sharing.stop();
    if (auto closed = session.close(); !closed) {
        place.results.fail("close", closed.error());
        exitCode = std::max(exitCode, 1);
    }
    return exitCode;
}

int runOnSeveral(const CommandLine& line, Workplace& place) {
    Console console(STDOUT_FILENO);  // outlives the sessions that call it
    session::SessionOptions sessionOptions = line.command->sessionOptions();
    sessionOptions.ignoresIdentity = line.options.ignoreIdentity;
    std::vector<std::unique_ptr<Sharing>> sharings;  // outlive the sessions that go through them
    sessionOptions.adoptMedium = [&](auto medium, const auto& config, const auto& stop) {
        sharings.push_back(std::make_unique<Sharing>(line.command->sharing(), line.options));
        return sharings.back()->adopt(std::move(medium), config, stop);
    };
    auto group = session::EcuGroup::create(std::move(place.ecuConfigs), session::ChannelPool::ofThisMachine(),
                                           stopToken(), sessionOptions);
    if (!group) {
        place.results.failOrStopped("session", group.error());
        return 1;
    }
    place.ecus = group.value().get();
    place.ecuSharings = &sharings;
    place.console = &console;
    int exitCode = runWatchingSignals(place.results, [&] { return line.command->run(place); });
    place.ecus = nullptr;
    place.ecuSharings = nullptr;
    place.console = nullptr;
    for (const auto& sharing : sharings)
        sharing->stop();
    if (auto closed = group.value()->close(); !closed) {
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
    place.config = std::move(config->one);
    place.ecuConfigs = std::move(config->ecus);
    if (line.command->needs(line.row->needs) < Needs::session)
        return place.results.finish(line.command->run(place));
    return place.results.finish(place.ecuConfigs.empty() ? runSession(line, place)
                                                         : runOnSeveral(line, place));
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
