// Starts threads as a value or an error: the system may have none left.
//
// Threads: pure function. Lifetime: the thread owns a copy of its function.
#pragma once

#include <cerrno>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "core/result.h"

namespace lm {

/// Error: by errno "CONTEXT: REASON", with the mend where a limit was met.
template <typename Function>
Result<std::thread> startThread(std::string_view context, Function&& function) {
    try {
        return std::thread(std::forward<Function>(function));
    } catch (const std::system_error& failure) {
        Error error = Error::fromErrno(failure.code().value(), context);
        if (error.sysErrno == EAGAIN) error.message += " (limits of threads and memory: `ulimit -a`)";
        return error;
    }
}

}  // namespace lm
