// What a session wrote into its ECU: for each object the bits that it set last. An ECU that was reset may get
// them once more.
//
// Threads: any. Lifetime: owns everything.
#pragma once

#include <mutex>
#include <vector>

#include "session/object_bytes.h"

namespace lm::session {

class SessionWrites {
  public:
    /// A write that was read back. Bits that others had set before belong to this one from now on.
    void add(ObjectBytes change);
    /// In the order in which they were written last.
    std::vector<ObjectBytes> all() const;

  private:
    mutable std::mutex mutex_;
    std::vector<ObjectBytes> objects_;
};

}  // namespace lm::session
