// The file of changes: every value that a command wrote into an ECU, a line of JSON each, in one file per ECU
// of the state folder.
//
// Threads: one at a time; any number of programs append to the same file. Lifetime: nothing is borrowed.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/unique_fd.h"
#include "params/parameter_diff.h"
#include "session/object_bytes.h"
#include "value/value.h"

namespace lm::session {

class ChangeLog {
  public:
    /// Told of each change too, with the values as texts.
    using Tell = std::function<void(std::string_view object, const std::string& before,
                                    const std::string& after, const std::string& by)>;

    ChangeLog(std::string_view ecu, std::string_view command, Tell tell = {})
        : ecu_(ecu), command_(command), tell_(std::move(tell)) {}

    /// A file that cannot be written is one warning: what was written to the ECU is written.
    void add(std::string_view object, const value::Value& before, const value::Value& after);
    /// A line for each number; of an object whose numbers tell no difference its bytes.
    void add(const params::Parameter& before, const params::Parameter& after, const ObjectBytes& bytes);
    /// What is known by its bytes alone; `isBack`: from the changed ones to those before.
    void add(const ObjectBytes& bytes, bool isBack);
    /// It holds neither for certain.
    void addUnknown(const ObjectBytes& bytes);
    /// Writes what was added, in whole lines.
    void flush();

  private:
    void addLine(std::string_view object, const std::string& before, const std::string& after);
    int append();

    const std::string ecu_;
    const std::string command_;
    const Tell tell_;
    std::string lines_;
    UniqueFd file_;
    std::optional<std::filesystem::path> path_ = {};
    bool failed_ = false;
};

}  // namespace lm::session
