// The file of --report: what was wanted of a run and what came of it, as JUnit XML, which CI servers show, or
// as JSON (docs/unattended.md).
//
// Threads: the main thread. Lifetime: owns everything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/result.h"

namespace lm::cli {

struct TestCase {
    /// failed: not as wanted; broken: the run itself went wrong.
    enum class Outcome : std::uint8_t { passed, failed, broken };

    std::string name;
    Outcome outcome = Outcome::passed;
    std::string message = {};  ///< one line
    std::string details = {};
    double seconds = 0;
};

/// What stands in a report until there is a result.
inline constexpr const char* kNoResult = "the program ended before its result was known";

class TestReport {
  public:
    /// What `path` is to hold is told by its ending, .xml or .json. Error: it has another one.
    static Result<TestReport> create(std::string path, std::string command);

    /// Replaces the file as a whole, flushed to the disk. Error: "cannot write PATH: REASON".
    Result<void> write(const std::string& ecu, double seconds, const std::vector<TestCase>& cases) const;

    const std::string& path() const { return path_; }

  private:
    TestReport() = default;
    std::string xml(const std::string& ecu, double seconds, const std::vector<TestCase>& cases) const;
    std::string json(const std::string& ecu, double seconds, const std::vector<TestCase>& cases) const;

    std::string path_;
    std::string command_;
    std::string started_;  ///< ISO 8601, UTC
    bool isXml_ = true;
};

}  // namespace lm::cli
