// How long work in storage is ended early.
//
// Threads: asked on the thread that works. Lifetime: borrowed during the call it is given to.
#pragma once

#include <functional>

namespace lm::storage {

/// Asked now and then during long work; true ends it with Error "stopped" (ErrorCode::closed).
using StopQuestion = std::function<bool()>;

}  // namespace lm::storage
