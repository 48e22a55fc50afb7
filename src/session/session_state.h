// The state of one ECU session as its user sees it, and who is told of its changes.
//
// Threads: onStateChanged is called by whatever thread changes the state (main, supervisor). Lifetime: the
// listener is borrowed and must outlive the session or be replaced by nullptr first.
#pragma once

#include <cstdint>
#include <string>

namespace lm::storage {
struct ParameterWrite;
}

namespace lm::session {

enum class SessionState : std::uint8_t {
    disconnected = 0,
    connected = 1,
    measuring = 2,
    reconnecting = 3,
    failed = 4,
};

/// The name used in messages, "?" for a value outside the enumeration.
const char* sessionStateName(SessionState state);

class ISessionListener {
  public:
    virtual ~ISessionListener() = default;

    /// `message` may be empty; `hint` is, but for a lost connection. Both are valid during the call.
    virtual void onStateChanged(SessionState state, const std::string& message, const std::string& hint) = 0;
    /// The same of one of several ECUs.
    virtual void onEcuStateChanged(const std::string& ecu, SessionState state, const std::string& message,
                                   const std::string& hint) {
        onStateChanged(state, message.empty() ? message : ecu + ": " + message, hint);
    }

    /// Session::noteParameter() was called, on the thread of that; the time is not set.
    virtual void onParameterWritten(const storage::ParameterWrite& /*write*/) {}
};

}  // namespace lm::session
