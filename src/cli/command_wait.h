// The subcommand `wait`: measures the signals that a condition names until it holds, or has held so long.
//
// Threads: the main thread; records come on the receive thread. Lifetime: nothing is kept.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "cli/command.h"
#include "cli/test_report.h"
#include "cli/watch_options.h"
#include "watch/watcher.h"

namespace lm::cli {

/// Exit code 0 as soon as the condition held so long, 3 when it did not within the timeout, 4 when no one
/// answered, 1 for all else.
class WaitCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;
    bool takesSeveralEcus() const override { return true; }
    int unansweredCode() const override;
    void notConnected(const Error& error) override;
    int run(Workplace& place) override;

  private:
    using Seconds = std::chrono::duration<double>;

    /// How the waiting ended.
    struct Outcome {
        int exitCode = 1;
        std::string message;
    };

    int runOnSeveral(Workplace& place);
    int wait(Workplace& place);
    Outcome waitMeasuring(Workplace& place, watch::Watcher& watcher) const;
    Outcome waitPolling(Workplace& place, watch::Watcher& watcher) const;
    Outcome outcomeOf(bool held, Seconds waited, const watch::Watcher& watcher) const;
    Result<void> writeReport(const std::string& ecu, const Outcome& outcome, Seconds waited) const;

    std::string text_;
    std::optional<std::string> forText_;
    std::string timeoutText_ = "60s";
    std::optional<std::string> reportPath_;
    std::optional<WantedExpression> wanted_;
    std::chrono::nanoseconds for_{0};
    std::chrono::nanoseconds timeout_{0};  ///< 0: none
    std::optional<TestReport> report_;
};

}  // namespace lm::cli
