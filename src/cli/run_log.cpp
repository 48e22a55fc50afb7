#include "cli/run_log.h"

#include <utility>

#include <fmt/format.h>

#include "cli/measurement_counts.h"
#include "cli/message_output.h"
#include "core/log.h"
#include "core/text.h"
#include "storage/write/disk_watch.h"

namespace lm::cli {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};
constexpr std::chrono::seconds kBetweenStatus{5};

}  // namespace

std::string clockText(double seconds) {
    const auto whole = static_cast<std::uint64_t>(seconds);
    return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

void RunLog::waitForEcu() {
    auto manager = ServiceManager::ofEnvironment();
    if (!manager) return log::warn("{}", manager.error().text());
    manager_ = std::move(manager).value();
    tell("STATUS=waiting for the ECU");
}

/// False when it was not taken.
bool RunLog::tell(const std::string& lines) {
    if (!manager_) return false;
    const auto told = manager_->tell(lines);
    if (!told && !std::exchange(failureTold_, true)) log::warn("{}", told.error().text());
    return told.ok();
}

std::string RunLog::text(const View& view, const session::MeasurementStats& stats) const {
    const std::string losses = lossesInWords(stats);
    std::string text = fmt::format("{} records, {}", stats.records, losses.empty() ? "no losses" : losses);
    if (view.state == session::SessionState::reconnecting) text = "connection lost, trying again; " + text;
    if (stats.recording) text += fmt::format(", recorded {}", stats.recorded);
    if (directory_.empty()) return text;
    const auto room = storage::freeDiskBytes(directory_);
    return text + (room ? fmt::format(", {} free on the disk", formatSize(*room)) : "");
}

/// Only while records come or someone watches over the ECU, and what comes is written: a manager takes what
/// gives none for dead.
void RunLog::giveSignOfLife(const session::MeasurementStats& stats, Clock::time_point now) {
    const bool supervised =
        stats.records != atSign_.records || stats.supervisionTurns != atSign_.supervisionTurns;
    const auto taken = [](const auto& of) { return of.recorded + of.recordedDropped; };
    const bool writes =
        !stats.recording || taken(stats) != taken(atSign_) || stats.records == atSign_.records;
    if (!supervised || !writes) return;
    if (!tell("WATCHDOG=1")) return;
    atSign_ = stats;
    nextSign_ = now + *manager_->watchdog() / 2;
}

void RunLog::look(const View& view) {
    const auto now = Clock::now();
    if (now < nextLook_ || (!manager_ && every_.count() == 0)) return;
    nextLook_ = now + kBetweenLooks;
    if (lineAfter_.count() == 0) lineAfter_ = every_;
    const std::chrono::duration<double> passed(view.seconds);
    const bool isLineDue = every_.count() != 0 && passed >= lineAfter_;
    if (!manager_ && !isLineDue) return;
    const session::MeasurementStats stats = view.stats();
    if (isLineDue) {
        printMessage(fmt::format("{} {} new of {}\n", clockText(view.seconds), stats.records - recordsAtLine_,
                                 text(view, stats)));
        recordsAtLine_ = stats.records;
        while (passed >= lineAfter_)
            lineAfter_ += every_;
    }
    if (!manager_ || (!isReady_ && stats.records == 0)) return;
    isReady_ = isReady_ || tell("READY=1");
    if (now >= nextStatus_) {
        tell("STATUS=" + clockText(view.seconds) + " " + text(view, stats));
        nextStatus_ = now + kBetweenStatus;
    }
    if (manager_->watchdog() && now >= nextSign_) giveSignOfLife(stats, now);
}

void RunLog::end() {
    tell("STOPPING=1\nSTATUS=closing the recording");
}

}  // namespace lm::cli
