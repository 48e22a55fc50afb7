// What is told beside results and errors: a line with a level, of which the program decides what its user
// sees and where. The library behind it takes seconds to compile in each file that includes it, so all others
// see this header alone.
//
// Threads: any. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/core.h>

namespace lm::log {

enum class Level : std::uint8_t { debug, info, warning, error };

/// Whether lines of this level are wanted, for those that take work to make.
bool isWanted(Level level);
/// Tells it when the level is wanted.
void tell(Level level, fmt::string_view format, fmt::format_args values);

/// What this thread tells is about one of several while it lives: "NAME: " stands before each line. Threads
/// that are started meanwhile (core/thread.h) take it over. Without a name nothing changes.
class Subject {
  public:
    explicit Subject(std::string name);
    ~Subject();
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    /// That of this thread, empty for none.
    static const std::string& current();

  private:
    std::string before_;
};

template <typename... Values>
void debug(fmt::format_string<Values...> format, Values&&... values) {
    tell(Level::debug, format, fmt::make_format_args(values...));
}
template <typename... Values>
void info(fmt::format_string<Values...> format, Values&&... values) {
    tell(Level::info, format, fmt::make_format_args(values...));
}
template <typename... Values>
void warn(fmt::format_string<Values...> format, Values&&... values) {
    tell(Level::warning, format, fmt::make_format_args(values...));
}
template <typename... Values>
void error(fmt::format_string<Values...> format, Values&&... values) {
    tell(Level::error, format, fmt::make_format_args(values...));
}

}  // namespace lm::log
