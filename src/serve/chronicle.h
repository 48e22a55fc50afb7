// What happened to an ECU and who changed what in it, for those who ask later: the newest entries of each
// kind.
//
// Threads: any. Lifetime: owns everything.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace lm::serve {

/// "2026-11-23T14:05:06.123Z"
std::string utcText();
std::int64_t utcNs();

class Chronicle {
  public:
    /// Adds "number" (from 1, without gaps) and "time" to the object.
    void note(nlohmann::json entry);
    void note(const std::string& level, const std::string& text) { note({{"level", level}, {"text", text}}); }

    /// {"entries": those numbered above `after`, the oldest first, "last": the newest number}.
    nlohmann::json after(std::uint64_t after) const;
    std::uint64_t last() const;

  private:
    static constexpr std::size_t kMost = 2000;
    static constexpr std::size_t kMostBytes = std::size_t{4} << 20U;  ///< as text
    struct Entry {
        nlohmann::json json;
        std::size_t bytes;
    };

    mutable std::mutex mutex_;
    std::deque<Entry> entries_;
    std::size_t bytes_ = 0;
    std::uint64_t last_ = 0;
};

}  // namespace lm::serve
