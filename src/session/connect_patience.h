// CONNECT for as long as the user waits: an ECU that is being started or flashed answers later.
//
// Threads: that of the session; a stop ends it from any. Lifetime: medium and master are borrowed for the
// call.
#pragma once

#include <chrono>
#include <optional>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/medium.h"
#include "xcp/master.h"

namespace lm::session {

/// Opens the transport, again when its device was lost, and connects: as often as the master's options say,
/// or until `within` has passed, at least once, whatever goes wrong meanwhile. Warns once of
/// what is waited for, after a second of silence, and of each other reason.
/// Errors: those of the transport and of CONNECT, the last one; timeout "CONNECT: no response from slave
/// within N s".
Result<void> connectPatiently(IMedium& medium, xcp::Master& master,
                              const std::optional<std::chrono::milliseconds>& within, const StopToken& stop);

}  // namespace lm::session
