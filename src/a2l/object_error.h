// The one exception that leaves a2l: why a name of the A2L leads to no object.
//
// Threads: a value. Lifetime: owns its text.
#pragma once

#include <stdexcept>

namespace lm::a2l {

/// Why resolve() found nothing; what() is the whole message.
class ObjectError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace lm::a2l
