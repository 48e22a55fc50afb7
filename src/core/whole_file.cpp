#include "core/whole_file.h"

#include <cerrno>
#include <vector>

#include "core/stoppable_input.h"
#include "core/unique_fd.h"

namespace lm {

Result<std::string> readWholeFile(const std::filesystem::path& path, std::size_t maxSize,
                                  const StopToken& stop) {
    const UniqueFd file(openForReading(path));
    if (!file.valid()) return Error::fromErrno(errno, "cannot open " + path.string());
    std::string text;
    std::vector<char> block(std::size_t{256} << 10U);
    for (;;) {
        const ssize_t count = readUnlessStopped(file.get(), block.data(), block.size(), stop);
        if (count < 0 && errno == ECANCELED) return Error::stopped("cannot read " + path.string());
        if (count < 0) return Error::fromErrno(errno, "cannot read " + path.string());
        if (count == 0) return text;
        text.append(block.data(), static_cast<std::size_t>(count));
        if (text.size() > maxSize) {
            return Error{ErrorCode::invalidArgument,
                         path.string() + " is larger than " + std::to_string(maxSize >> 20U) + " MiB"};
        }
    }
}

}  // namespace lm
