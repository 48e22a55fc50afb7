// Reading a file that may be a pipe no one writes to: it is waited for, but a stop request ends the waiting.
//
// Threads: pure functions from any thread. Lifetime: descriptors are borrowed.
#pragma once

#include <cstddef>
#include <filesystem>
#include <sys/types.h>

#include "core/stop_token.h"
#include "core/unique_fd.h"

namespace lm {

/// For the function below; returns at once for a pipe without a writer too. None with errno.
UniqueFd openForReading(const std::filesystem::path& path);

/// As read() does, waiting for data where there is none yet. -1 with ECANCELED when a stop was requested
/// first.
ssize_t readUnlessStopped(int descriptor, void* into, std::size_t size, const StopToken& stop);

}  // namespace lm
