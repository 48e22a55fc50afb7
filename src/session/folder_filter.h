// Which objects lie in the groups and functions that a user names.
//
// Threads: immutable once made. Lifetime: borrows the names from the description, which must outlive it.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"

namespace lm::session {

class FolderFilter {
  public:
    /// Takes everything.
    FolderFilter() = default;

    /// Takes what lies in one of the groups and functions, or in a folder below them. Errors (notFound): "the
    /// A2L has no GROUP 'NAME'", "the A2L has no FUNCTION 'NAME'".
    static Result<FolderFilter> create(const a2l::Description& description,
                                       const std::vector<std::string>& groups,
                                       const std::vector<std::string>& functions);

    bool takesAll() const { return takesAll_; }
    /// A part of an instance is in the folders that have the instance, a structure in it, or the part.
    bool takes(std::string_view name) const;
    /// Whether it takes the instance or parts of it.
    bool reachesInto(std::string_view instance) const { return takes(instance) || takesPartsOf(instance); }
    /// Whether parts of the instance are named one by one.
    bool takesPartsOf(std::string_view instance) const { return owners_.contains(instance); }

  private:
    bool takesAll_ = true;
    std::unordered_set<std::string_view> names_;
    std::unordered_set<std::string_view> owners_;  ///< what the names are parts of
};

}  // namespace lm::session
