// Patterns over all names of an A2L that stand for values, the parts of instances included.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/folder_filter.h"

namespace lm::session {

/// A text with * or ?, and no name of its own such as NAME[*].
bool isNamePattern(const a2l::Description& description, std::string_view text);

/// Parameters are all that is no measurement: axes and blobs, too.
enum class NameKind : std::uint8_t { all, measurements, parameters };

/// A pattern that is held against one name after the other.
class NamePattern {
  public:
    enum class Reading : std::uint8_t {
        exact,  ///< the whole name, as storage::matchesPattern
        search  ///< whatever the case; without * and ? a part of the name
    };

    NamePattern(std::string_view text, Reading reading);

    bool matches(std::string_view name);
    /// Of all names that match, as far as the pattern tells it.
    std::string_view beginning() const;
    bool hasWildcards() const { return hasWildcards_; }
    /// Whether parts of the instance may match: they begin with its name.
    bool mayMatchBelow(std::string_view instance) const;

  private:
    const Reading reading_;
    const bool hasWildcards_;
    std::string text_;
    std::string name_;  // its storage serves all names
};

/// Of one instance, whose parts are looked for by how their names begin. Error: as below.
Result<void> checkParts(const a2l::Description& description, const a2l::Instance& instance,
                        std::string_view beginning, std::string_view pattern, std::string_view purpose);

/// A pattern is held against each part in the folders: of a structure with too many of them no one would see
/// the end. `purpose` says what the names are for: "measured". Error (invalidArgument): "'PATTERN' reaches
/// into INSTANCE, which has N parts: name those to be measured".
Result<void> checkParts(const a2l::Description& description, std::string_view pattern,
                        std::string_view purpose, const FolderFilter& folders = {});

/// The measurements, parameters, axes, blobs and leaves in the folders that match (storage::matchesPattern),
/// each kind in the order of the file. Where only the end of the pattern is indices of an array that the rest
/// matches, the name bears them: NAME[1]. A stop ends the search with what was found.
std::vector<std::string> namesMatching(const a2l::Description& description, std::string_view pattern,
                                       NameKind kind = NameKind::all, const StopToken& stop = {},
                                       const FolderFilter& folders = {});

}  // namespace lm::session
