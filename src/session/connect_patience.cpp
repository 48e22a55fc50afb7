#include "session/connect_patience.h"

#include <algorithm>

#include "core/text.h"

namespace lm::session {
namespace {

Result<void> connectOnce(IMedium& medium, xcp::Master& master, std::optional<std::int32_t> attempts) {
    if (auto reopened = medium.reopenIfLost(); !reopened) return reopened;
    medium.reportTrouble();
    return master.connect(xcp::ConnectMode::normal, attempts);
}

}  // namespace

Result<void> connectPatiently(IMedium& medium, xcp::Master& master,
                              const std::optional<std::chrono::milliseconds>& within, const StopToken& stop) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{100};
    if (!within) return connectOnce(medium, master, std::nullopt);
    const auto end = Clock::now() + *within;
    for (;;) {
        auto connected = connectOnce(medium, master, 1);
        if (connected || connected.error().isStop()) return connected;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) {
            if (connected.error().code != ErrorCode::timeout) return connected;
            return Error{ErrorCode::timeout, "CONNECT: no response from slave within " +
                                                 formatGeneral(static_cast<double>(within->count()) / 1000) +
                                                 " s"};
        }
        // Who refuses at once would be asked without a pause.
        const bool waited = connected.error().code == ErrorCode::timeout;
        if (!waited && stop.waitFor(std::min(left, kPause))) return Error::stopped("CONNECT: stopped");
    }
}

}  // namespace lm::session
