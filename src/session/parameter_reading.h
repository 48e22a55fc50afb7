// Parameters of the ECU as they are kept away from it: which ones a pattern takes, and what they hold.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: description and session are borrowed
// for the call; results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/object.h"
#include "a2l/object_content.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "params/parameter_set.h"
#include "session/folder_filter.h"
#include "session/joint_reading.h"

namespace lm::session {

struct UnreadParameter {
    std::string name;
    Error error;
};

struct ParameterChoice {
    std::vector<a2l::Object> objects;  ///< each once, by name
    /// Those that tools compute from others: they have no place in the ECU.
    std::vector<std::string> computed = {};
    /// What patterns take and the A2L does not describe so that it could be read.
    std::vector<UnreadParameter> leftOut = {};
    std::vector<UnreadParameter> unread = {};  ///< what was named and cannot be read, or is no parameter
};

/// Names and patterns of CHARACTERISTIC and AXIS_PTS, parts of instances included; all for no patterns.
/// Patterns take what lies in the folders alone. Errors: checkParts()'s, and Error::stopped.
Result<ParameterChoice> chooseParameters(const a2l::Description& description,
                                         const std::vector<std::string>& patterns,
                                         const FolderFilter& folders, const StopToken& stop);

/// What an object held. Numbers are those of ObjectContent::physicals(), of a 4-byte or 2-byte float the
/// shortest that gives the same bytes. `function` may be empty.
params::Parameter parameterOf(const a2l::ObjectContent& content, std::string_view function);

struct ParameterReading {
    params::ParameterSet set;  ///< sorted
    std::vector<UnreadParameter> unread = {};
};

/// Reads them all together. `origin`: of what; the A2L and the time are filled in. Errors: those of `read`.
Result<ParameterReading> readParameters(const a2l::Description& description, ParameterChoice choice,
                                        params::Origin origin, const ReadObjects& read);

/// Which parameters a FUNCTION defines (DEF_CHARACTERISTIC), by their names.
class DefiningFunctions {
  public:
    explicit DefiningFunctions(const a2l::Description& description);
    /// Empty for none.
    std::string_view of(std::string_view parameter) const;

  private:
    std::vector<std::pair<std::string_view, std::string_view>> sorted_;
};

}  // namespace lm::session
