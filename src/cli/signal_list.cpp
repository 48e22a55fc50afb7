#include "cli/signal_list.h"

#include <array>
#include <cerrno>
#include <string_view>

#include "core/stoppable_input.h"
#include "core/text.h"
#include "core/unique_fd.h"

namespace lm::cli {
namespace {

/// Far above any list; a device that never ends is not read for ever.
constexpr std::size_t kMaxSize = std::size_t{16} << 20U;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

Result<std::string> readWhole(const std::filesystem::path& path, const StopToken& stop) {
    const UniqueFd file(openForReading(path));
    if (!file.valid()) return Error::fromErrno(errno, "cannot open signal list " + path.string());
    std::string text;
    std::array<char, 16384> block;
    for (;;) {
        const ssize_t count = readUnlessStopped(file.get(), block.data(), block.size(), stop);
        if (count < 0 && errno == ECANCELED) return Error::stopped("signal list " + path.string());
        if (count < 0) return Error::fromErrno(errno, "cannot read signal list " + path.string());
        if (count == 0) return text;
        text.append(block.data(), static_cast<std::size_t>(count));
        if (text.size() <= kMaxSize) continue;
        return Error{ErrorCode::invalidArgument, "signal list " + path.string() + " is larger than 16 MiB"};
    }
}

}  // namespace

Result<std::vector<std::string>> readSignalList(const std::filesystem::path& path, const StopToken& stop) {
    auto text = readWhole(path, stop);
    if (!text) return text.error();
    std::string_view rest = text.value();
    if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
    std::vector<std::string> names;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const std::string_view line = trimmed(rest.substr(0, end));
        if (!line.empty() && !line.starts_with('#')) names.emplace_back(line);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    if (names.empty())
        return Error{ErrorCode::invalidArgument, "signal list " + path.string() + " names no signal"};
    return names;
}

}  // namespace lm::cli
