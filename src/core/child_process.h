// Another program run to its end: started without a shell, given a text, heard out, ended when it takes too
// long or a stop comes. It sees the standard descriptors and those that are handed on, and gets default
// signal handling and a process group of its own, which is killed at the end with all that it started and
// that did not leave the group.
//
// Threads: any. Lifetime: nothing is kept; descriptors are borrowed for the call.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"

namespace lm {

struct ChildRun {
    /// The first one handed on is this descriptor of the child, the next ones follow.
    static constexpr int kFirstHandedOn = 3;

    std::filesystem::path program;
    std::vector<std::string> arguments;  ///< the first is the program's name
    std::vector<int> handedOn = {};
    std::string input = {};  ///< a page of memory at most
    std::chrono::milliseconds limit{5000};
    std::size_t mostOutput = 4096;  ///< of each stream; what is beyond is left out
};

struct ChildEnd {
    bool late = false;  ///< killed because the time was up; nothing else counts then
    int exitCode = 0;   ///< unless a signal ended it
    int signal = 0;
    std::string output = {};
    std::string errors = {};
};

/// Errors: by errno "cannot start PROGRAM: REASON", Error::stopped "stopped".
Result<ChildEnd> runChild(const ChildRun& run, const StopToken& stop);

}  // namespace lm
