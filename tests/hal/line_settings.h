// The speed of a terminal as the kernel holds it, read through the structure that the C library lacks.
#pragma once

#include <string>

namespace lm::test {

/// "standard INPUT OUTPUT" or "other INPUT OUTPUT" with the rates in bit/s, by the kind of the speed code.
std::string lineSpeed(int terminal);

}  // namespace lm::test
