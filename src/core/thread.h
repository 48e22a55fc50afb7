// Starts threads as a value or an error: the system may have none left, or no memory for them.
//
// Threads: pure functions. Lifetime: the thread owns a copy of its function.
#pragma once

#include <cerrno>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "core/log.h"
#include "core/result.h"

namespace lm {

/// What it logs is about what its starter's lines are about. Error: by errno "CONTEXT: REASON", with the mend
/// where a limit was met.
template <typename Function>
Result<std::thread> startThread(std::string_view context, Function&& function) {
    try {
        return std::thread([about = log::Subject::current(),
                            run = std::decay_t<Function>(std::forward<Function>(function))]() mutable {
            const log::Subject subject(std::move(about));
            run();
        });
    } catch (const std::system_error& failure) {
        Error error = Error::fromErrno(failure.code().value(), context);
        if (error.sysErrno == EAGAIN) error.message += " (limits of threads and memory: `ulimit -a`)";
        return error;
    }
}

/// Memory that a thread needs from the start: got before it runs, where a lack of it can still be told.
/// Error: "CONTEXT: Cannot allocate memory".
template <typename T, typename... Arguments>
Result<std::unique_ptr<T>> allocateFor(std::string_view context, Arguments&&... arguments) {
    try {
        return std::make_unique<T>(std::forward<Arguments>(arguments)...);
    } catch (const std::bad_alloc&) {
        return Error::fromErrno(ENOMEM, context);
    }
}

}  // namespace lm
