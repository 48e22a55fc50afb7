// What a measurement tells while no one looks at it: a line every so often (--log-every), and how it is to
// the service manager that started it, with the sign of life that such a manager may want.
//
// Threads: the main thread. Lifetime: owns everything.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "core/result.h"
#include "core/service_manager.h"
#include "session/measurement_types.h"
#include "session/session_state.h"

namespace lm::cli {

class RunLog {
  public:
    /// `every` 0: no lines. Of `directory` the room on its disk is told; empty: nothing is recorded.
    RunLog(std::chrono::nanoseconds every, std::filesystem::path directory)
        : every_(every), directory_(std::move(directory)) {}

    /// Before the ECU is there. A manager that cannot be told anything is warned of, once.
    void waitForEcu();

    struct View {
        double seconds = 0;  ///< since the start
        session::SessionState state;
        std::function<session::MeasurementStats()> stats;
    };
    /// Often; it does something only when it is time.
    void look(const View& view);
    /// The measurement ends: what is still to be done takes its time.
    void end();

  private:
    using Clock = std::chrono::steady_clock;

    bool tell(const std::string& lines);
    void giveSignOfLife(const session::MeasurementStats& stats, Clock::time_point now);
    std::string text(const View& view, const session::MeasurementStats& stats) const;

    const std::chrono::nanoseconds every_;
    const std::filesystem::path directory_;
    std::optional<ServiceManager> manager_;
    bool failureTold_ = false;
    bool isReady_ = false;
    std::chrono::nanoseconds lineAfter_{0};  ///< so much of the measurement
    std::uint64_t recordsAtLine_ = 0;
    Clock::time_point nextLook_;
    Clock::time_point nextStatus_;
    Clock::time_point nextSign_;
    session::MeasurementStats atSign_;  ///< at the last sign of life
};

/// "0:12:34".
std::string clockText(double seconds);

}  // namespace lm::cli
