#include "core/stoppable_input.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace lm {

UniqueFd openForReading(const std::filesystem::path& path) {
    UniqueFd file;
    do {
        file = UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    } while (!file.valid() && errno == EINTR);
    return file;
}

ssize_t readUnlessStopped(int descriptor, void* into, std::size_t size, const StopToken& stop) {
    std::array<pollfd, 2> waits = {pollfd{descriptor, POLLIN, 0}, pollfd{stop.descriptor(), POLLIN, 0}};
    for (;;) {
        // First of all: a pipe without a writer reads as empty until this has seen one.
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (waits[1].revents != 0) {
            errno = ECANCELED;
            return -1;
        }
        const ssize_t count = ::read(descriptor, into, size);
        if (count >= 0 || (errno != EINTR && errno != EAGAIN)) return count;
    }
}

}  // namespace lm
