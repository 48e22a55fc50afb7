// The program from its arguments to its exit code.
//
// Threads: the main thread, once per process. Lifetime: nothing is kept.
#pragma once

namespace lm::cli {

/// 0 success, 1 any error or stopped by a signal, 2 a measurement whose session failed; parse errors have
/// the option library's codes.
int run(int argc, const char* const* argv);

}  // namespace lm::cli
