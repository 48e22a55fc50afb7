// What is made of an ECU that was connected again: whether it runs the same software, whether it holds the
// parameters that it held (calibration.onReset says what follows from that).
//
// Threads: any; look() on one at a time. Lifetime: everything given is borrowed.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "session/identity.h"
#include "session/parameter_watch.h"
#include "session/session_config.h"

namespace lm::session {

/// What is to be told of an ECU that came back.
struct EcuReturn {
    struct Note {
        std::string_view what;  ///< "software", "parameters", "writtenAgain"
        std::string text;
    };

    std::vector<Note> notes = {};
    std::string ending = {};  ///< why a measurement must not go on; empty: it may
};

class ReturnCheck {
  public:
    ReturnCheck(xcp::Master& master, const a2l::Description& description, const SessionConfig& config,
                bool ignoresIdentity, ParameterWatch& watch)
        : master_(master),
          description_(description),
          config_(config),
          ignoresIdentity_(ignoresIdentity),
          watch_(watch) {}

    /// The software as it was found last.
    Identity identity() const;
    void setIdentity(Identity identity);
    /// Whether look() told of another one.
    bool sawOtherSoftware() const;

    /// `ecuName` is that of the file of changes. Errors, after which another try may succeed: those of
    /// ParameterWatch::compare().
    Result<EcuReturn> look(const std::string& ecuName);

  private:
    void lookAtSoftware(EcuReturn& back);
    void reapply(const ParameterWatch::Comparison& found, const std::string& ecuName, EcuReturn& back);
    std::string whyNotAgain(const ParameterWatch::Comparison& found) const;

    xcp::Master& master_;
    const a2l::Description& description_;
    const SessionConfig& config_;
    const bool ignoresIdentity_;
    ParameterWatch& watch_;

    mutable std::mutex mutex_;
    Identity identity_;
    bool sawOther_ = false;
};

}  // namespace lm::session
