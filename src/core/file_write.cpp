#include "core/file_write.h"

#include <cerrno>
#include <sys/types.h>
#include <unistd.h>

namespace lm {
namespace {

/// `write` is given the bytes done so far.
template <typename Write>
Written writeOn(int descriptor, std::uint64_t size, const Write& write, AnswerRefusal answer) {
    Written written;
    while (written.bytes < size && written.systemError == 0) {
        const ssize_t count = write(written.bytes);
        if (count > 0) {
            written.bytes += static_cast<std::uint64_t>(count);
        } else {
            written.systemError = count == 0 ? ENOSPC : answer(descriptor, errno);
        }
    }
    return written;
}

}  // namespace

int onlyInterrupted(int /*descriptor*/, int systemError) {
    return systemError == EINTR ? 0 : systemError;
}

Written writeAt(int descriptor, std::uint64_t offset, const void* data, std::uint64_t size) {
    const auto write = [&](std::uint64_t done) {
        return ::pwrite(descriptor, static_cast<const char*>(data) + done, size - done,
                        static_cast<off_t>(offset + done));
    };
    return writeOn(descriptor, size, write, &onlyInterrupted);
}

int writeAll(int descriptor, std::string_view text, AnswerRefusal answer) {
    const auto write = [&](std::uint64_t done) {
        return ::write(descriptor, text.data() + done, text.size() - done);
    };
    return writeOn(descriptor, text.size(), write, answer).systemError;
}

}  // namespace lm
