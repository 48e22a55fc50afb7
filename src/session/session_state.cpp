#include "session/session_state.h"

namespace lm::session {

const char* sessionStateName(SessionState state) {
    switch (state) {
        case SessionState::disconnected:
            return "disconnected";
        case SessionState::connected:
            return "connected";
        case SessionState::measuring:
            return "measuring";
        case SessionState::reconnecting:
            return "reconnecting";
        case SessionState::failed:
            return "failed";
    }
    return "?";
}

}  // namespace lm::session
