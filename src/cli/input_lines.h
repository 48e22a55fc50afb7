// Cuts what comes from standard input into lines.
//
// Threads: one at a time. Lifetime: owns its text.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace lm::cli {

class InputLines {
  public:
    /// What is longer is no line but a file without line ends.
    static constexpr std::size_t kLongest = std::size_t{64} << 10U;

    /// Gets each line once; one that is too long as its first kLongest + some bytes. False: no more lines.
    using Take = std::function<bool(const std::string& line)>;

    explicit InputLines(Take take) : take_(std::move(take)) {}

    /// False once no more lines are wanted.
    bool add(std::string_view block);
    /// The last line, when it has no line end.
    void finish();

  private:
    bool handOn() { return take_(std::exchange(line_, {})); }

    const Take take_;
    std::string line_;
    bool skipping_ = false;  ///< to the end of a line that was too long
};

}  // namespace lm::cli
