// What a command is: a row of the table in command_table.cpp, and an object that owns the command's options
// and does its work.
//
// Threads: the main thread. Lifetime: a command borrows its workplace during run() only.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "cli/results.h"
#include "session/ecu_group.h"
#include "session/session.h"

namespace lm::cli {

class Console;
class OptionSet;
class Sharing;
struct Options;

/// What is there when a command runs; each kind has all of those before it.
enum class Needs : std::uint8_t {
    nothing,        ///< it names its own files
    configuration,  ///< the configuration in force, which names the A2L
    session,        ///< the A2L and the way to the ECU, which is not opened
    connection,     ///< a connected ECU
};

/// What a command does about an ECU that another program of the user holds (docs/sharing.md).
enum class SharingRole : std::uint8_t {
    alone,     ///< it needs the ECU for itself: it is refused
    attaches,  ///< goes through that program
    holds,     ///< is such a program: it is refused, and lets others in otherwise
};

/// What the program gives a command.
struct Workplace {
    const Options& options;
    Results& results;
    session::SessionConfig config = {};  ///< Needs::configuration; a session has its own
    /// Of several ECUs, instead of `config`.
    std::vector<session::SessionConfig> ecuConfigs = {};
    // Needs::session and above; else null.
    session::Session* session = nullptr;
    Console* console = nullptr;
    Sharing* sharing = nullptr;
    /// Of several ECUs, instead of `session`; the command opens those that it needs.
    session::EcuGroup* ecus = nullptr;
    std::vector<std::unique_ptr<Sharing>>* ecuSharings = nullptr;  ///< instead of `sharing`, one for each
    session::IMeasured* measured = nullptr;  ///< the session, or what a command makes of several
};

class ICommand {
  public:
    virtual ~ICommand() = default;

    /// The command's own options, kept in the command.
    virtual void addOptions(OptionSet& /*options*/) {}
    /// Lays them over the configuration.
    virtual void overrule(session::SessionConfig& /*config*/) const {}
    /// Whether it works on several ECUs: else one of them must be chosen.
    virtual bool takesSeveralEcus() const { return false; }
    /// What can be found out before anything is opened. Error: why the command cannot run.
    virtual Result<void> prepare(Form /*form*/) { return {}; }
    /// What it needs under its options, of what its row says.
    virtual Needs needs(Needs most) const { return most; }
    virtual session::SessionOptions sessionOptions() const { return {}; }
    virtual SharingRole sharing() const { return SharingRole::alone; }
    /// The exit code when no ECU answers at the beginning.
    virtual int unansweredCode() const { return 1; }
    /// The ECU could not be connected to, which has been told; run() is not called.
    virtual void notConnected(const Error& /*error*/) {}
    /// Returns the exit code; errors have been told to the results.
    virtual int run(Workplace& place) = 0;
};

struct CommandRow {
    const char* name;
    const char* help;
    const char* examples;  ///< at the end of its help text: indented lines, then what a default depends on
    Needs needs;
    Form json;  ///< what --json makes of it; Form::text: it has no such option
    std::unique_ptr<ICommand> (*make)();
    std::span<const CommandRow> actions = {};  ///< commands behind its name; `make` null: one must be given
};

template <typename Command>
std::unique_ptr<ICommand> make() {
    return std::make_unique<Command>();
}

}  // namespace lm::cli
