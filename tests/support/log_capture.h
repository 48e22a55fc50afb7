// What is logged in one scope.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

namespace lm::test {

/// Takes the place of the default logger; one line per message: level and text.
class LogCapture {
  public:
    LogCapture() : before_(spdlog::default_logger()) {
        auto logger = std::make_shared<spdlog::logger>(
            "test", std::make_shared<spdlog::sinks::ostream_sink_mt>(lines_, true));
        logger->set_pattern("%l %v");
        spdlog::set_default_logger(std::move(logger));
    }
    ~LogCapture() { spdlog::set_default_logger(before_); }

    std::string text() const { return lines_.str(); }

  private:
    std::ostringstream lines_;
    std::shared_ptr<spdlog::logger> before_;
};

}  // namespace lm::test
