#include "core/log.h"

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

}  // namespace

bool isWanted(Level level) {
    return spdlog::should_log(levelOf(level));
}

void tell(Level level, fmt::string_view format, fmt::format_args values) {
    if (isWanted(level)) spdlog::log(levelOf(level), fmt::vformat(format, values));
}

}  // namespace lm::log
