// Keys of an ECU with seed & key, computed in another process: by a program that the configuration names, or
// by xcplumo-key with the library that it names.
//
// Threads: any. Lifetime: owns its copy of the configuration. Seeds and keys are kept and logged nowhere.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/session_config.h"
#include "xcp/packet.h"

namespace lm::session {

class KeyHelper {
  public:
    KeyHelper(SessionConfig::Security config, StopToken stop)
        : config_(std::move(config)), stop_(std::move(stop)) {}

    /// An xcp::KeySource. What the program says on standard error is logged. Errors: permissionDenied for
    /// files that others can have changed, those of vouchFor() and runChild(), and ioError
    /// "security.library PATH: ..." or "security.command PROGRAM: ..." for a crash, an exit code, no key
    /// within the time, and what is not a key.
    Result<std::vector<std::uint8_t>> operator()(xcp::Resource resource,
                                                 std::span<const std::uint8_t> seed) const;

  private:
    SessionConfig::Security config_;
    StopToken stop_;
};

}  // namespace lm::session
