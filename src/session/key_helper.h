// Keys of an ECU with seed & key, computed in another process: by a program that the configuration names, or
// by xcplumo-key with the library that it names.
//
// Threads: any. Lifetime: owns its copy of the configuration. Seeds and keys are kept and logged nowhere.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/session_config.h"
#include "xcp/packet.h"

namespace lm::session {

/// What a session knows of its keys and decides about them.
struct KeyUse {
    std::atomic<std::uint8_t> given{0};  ///< bits of xcp::Resource
    std::atomic<bool> ended{false};      ///< no more keys
};

class KeyHelper {
  public:
    KeyHelper(SessionConfig::Security config, StopToken stop, std::shared_ptr<KeyUse> use)
        : config_(std::move(config)), stop_(std::move(stop)), use_(std::move(use)) {}

    /// An xcp::KeySource. What the program says on standard error is logged. Errors: permissionDenied for
    /// files that others can have changed and after KeyUse::ended, those of vouchFor() and runChild(), and
    /// ioError "security.library PATH: ..." or "security.command PROGRAM: ..." for a crash, an exit code, no
    /// key within the time, and what is not a key.
    Result<std::vector<std::uint8_t>> operator()(xcp::Resource resource,
                                                 std::span<const std::uint8_t> seed) const;

  private:
    SessionConfig::Security config_;
    StopToken stop_;
    std::shared_ptr<KeyUse> use_;
};

}  // namespace lm::session
