// The program's loop: waits for commands, for the next event of the ECU, and for signals.
//
// Threads: one. SIGINT and SIGTERM end run(); SIGUSR1 restarts the ECU; SIGUSR2 turns its silence on or off;
// SIGHUP writes the memory image; SIGRTMIN pulls the plug of the medium or puts it in. The signals must be
// blocked before any thread starts (run() blocks them).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "core/result.h"
#include "core/unique_fd.h"
#include "sim/ecu.h"
#include "sim/medium.h"

namespace lm::sim {

class Runner {
  public:
    Runner(const Options& options, Ecu& ecu, IMedium& medium)
        : options_(options), ecu_(ecu), medium_(medium) {}

    /// Runs until told to stop. Errors: those of the medium, of the signal descriptor and of the memory
    /// image.
    Result<void> run();

    /// The counters, one "name value" per line.
    std::string statistics() const;

    /// Blocks the signals above; call before announcing that the program is ready.
    static Result<UniqueFd> openSignals();

    /// Nanoseconds of the steady clock.
    static std::int64_t now();

  private:
    Result<void> round(int signals, std::int64_t quitNs);
    Result<void> handleSignals(int descriptor);
    Result<void> wait(int signals, std::int64_t untilNs);
    void handleCommand(std::span<const std::uint8_t> packet);
    void saveWritten();
    Result<void> saveMemory();

    const Options& options_;
    Ecu& ecu_;
    IMedium& medium_;
    Outbox out_;
    bool stop_ = false;
    std::uint64_t savedWrites_ = 0;
    std::optional<Error> failure_;  ///< of a write inside a command
};

}  // namespace lm::sim
