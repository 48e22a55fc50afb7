#include "cli/progress_line.h"

#include <cstdio>
#include <string>
#include <unistd.h>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::cli {

ProgressLine::ProgressLine(bool shown, std::string_view doing)
    : isTerminal_(shown && ::isatty(STDERR_FILENO) == 1), doing_(doing) {}

ProgressLine::~ProgressLine() {
    if (shown_) std::fputs("\r\033[K", stderr);
}

void ProgressLine::show(std::uint64_t done, std::uint64_t total) {
    const auto now = Clock::now();
    if (!isTerminal_ || total == 0 || now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const std::string line = fmt::format("\r{} {:3} %  of {}  {}/s\033[K", doing_, done * 100 / total,
                                         formatSize(total), formatSize(static_cast<std::uint64_t>(rate)));
    std::fputs(line.c_str(), stderr);
    shown_ = true;
}

}  // namespace lm::cli
