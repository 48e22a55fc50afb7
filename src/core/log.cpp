#include "core/log.h"

#include <utility>

#include <spdlog/spdlog.h>

namespace lm::log {
namespace {

spdlog::level::level_enum levelOf(Level level) {
    switch (level) {
        case Level::debug:
            return spdlog::level::debug;
        case Level::info:
            return spdlog::level::info;
        case Level::warning:
            return spdlog::level::warn;
        case Level::error:
            break;
    }
    return spdlog::level::err;
}

thread_local std::string subject;

}  // namespace

Subject::Subject(std::string name) : before_(subject) {
    if (!name.empty()) subject = std::move(name);
}

Subject::~Subject() {
    subject = std::move(before_);
}

const std::string& Subject::current() {
    return subject;
}

bool isWanted(Level level) {
    return spdlog::should_log(levelOf(level));
}

void tell(Level level, fmt::string_view format, fmt::format_args values) {
    if (!isWanted(level)) return;
    const std::string before = subject.empty() ? "" : subject + ": ";
    spdlog::log(levelOf(level), before + fmt::vformat(format, values));
}

}  // namespace lm::log
