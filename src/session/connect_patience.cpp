#include "session/connect_patience.h"

#include <algorithm>
#include <string>

#include "core/log.h"
#include "core/text.h"

namespace lm::session {
namespace {

using std::chrono::milliseconds;

Result<void> connectOnce(IMedium& medium, xcp::Master& master, std::optional<std::int32_t> attempts,
                         std::optional<milliseconds> longest) {
    if (auto reopened = medium.reopenIfLost(); !reopened) return reopened;
    medium.reportTrouble();
    return master.connect(xcp::ConnectMode::normal, attempts, longest);
}

std::string seconds(milliseconds time) {
    return formatGeneral(static_cast<double>(time.count()) / 1000) + " s";
}

/// Tells what is waited for: silence after a second, a reason at once and when it becomes another.
class Waiting {
  public:
    Waiting(const IMedium& medium, milliseconds within) : medium_(medium), within_(within) {}

    void tell(const Error& error, milliseconds passed) {
        const bool silent = error.code == ErrorCode::timeout;
        const std::string reason = silent ? "no answer so far" : error.text();
        if (reason == told_ || (silent && passed < kSilence)) return;
        told_ = reason;
        log::warn("waiting up to {} for {}: {}", seconds(within_), medium_.texts().name, reason);
    }

  private:
    static constexpr milliseconds kSilence{1000};

    const IMedium& medium_;
    milliseconds within_;
    std::string told_;
};

}  // namespace

Result<void> connectPatiently(IMedium& medium, xcp::Master& master, const std::optional<milliseconds>& within,
                              const StopToken& stop) {
    using Clock = std::chrono::steady_clock;
    constexpr milliseconds kPause{100};
    if (!within) return connectOnce(medium, master, std::nullopt, std::nullopt);
    const auto end = Clock::now() + *within;
    const auto remaining = [end] {
        return std::max(std::chrono::ceil<milliseconds>(end - Clock::now()), milliseconds::zero());
    };
    Waiting waiting(medium, *within);
    for (auto left = *within;;) {
        auto connected = connectOnce(medium, master, 1, left);
        if (connected || connected.error().isStop()) return connected;
        const bool waited = connected.error().code == ErrorCode::timeout;
        left = remaining();
        if (left.count() == 0 && !waited) return connected;
        if (left.count() == 0)
            return Error{ErrorCode::timeout, "CONNECT: no response from slave within " + seconds(*within)};
        waiting.tell(connected.error(), *within - left);
        // Who refuses at once would be asked without a pause.
        if (!waited && stop.waitFor(std::min(left, kPause))) return Error::stopped("CONNECT: stopped");
        left = std::max(remaining(), milliseconds(1));
    }
}

}  // namespace lm::session
