// How objects, values and recordings read as JSON: the forms of the commands with --json, which the program
// hands in, so that there is one of each.
//
// Threads: called from the workers of the server and from the desk's thread at once. Lifetime: owned copies.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "session/named_objects.h"
#include "session/value_access.h"

namespace lm::serve {

struct Search {
    std::string pattern;
    std::string kind;  ///< "measurement", "parameter", "axis"; empty: all
    std::string group;
    std::string function;
    bool parts = false;         ///< of instances
    bool descriptions = false;  ///< searched, too
};

/// Each but `names` gives one JSON object or value as text.
struct Forms {
    std::function<Result<std::string>(const a2l::Description&, const Search&)> list;
    std::function<Result<std::string>(const a2l::Description&, const std::string& name)> describe;
    /// All objects in short, a line for each.
    std::function<std::string(const a2l::Description&)> names;
    /// {"name", "value" or "error"}
    std::function<std::string(std::string_view name, const Result<session::Reading>&)> reading;
    std::function<std::string(std::string_view name, const Result<session::ObjectReading>&)> object;
    std::function<std::string(std::string_view name, std::string_view typed, const session::WriteOutcome&)>
        write;
    std::function<std::string(const session::WriteWish&, const session::ObjectWriting&)> objectWrite;
    /// A value alone: of bytes, of a whole object.
    std::function<std::string(const value::Element&, const std::vector<std::uint8_t>&)> value;
    std::function<std::string(const a2l::ObjectContent&)> content;
    std::function<Result<std::string>(const std::filesystem::path&)> recordingInfo;
};

}  // namespace lm::serve
