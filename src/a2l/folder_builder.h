// Collects groups and functions while a text is read, and turns their names into numbers when all objects are
// known: files list every object in some group and function, so a name must not cost more than four bytes.
//
// Threads: one at a time. Lifetime: names are views into the text until finish(), which must come before the
// text goes.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "a2l/block.h"
#include "a2l/description.h"
#include "a2l/folders.h"
#include "a2l/name_index.h"
#include "a2l/object_readers.h"

namespace lm::a2l {

class FolderBuilder {
  public:
    /// GROUP or FUNCTION. Throws BlockError.
    Folder read(const Block& block, ModelStore& store);

    /// FUNCTION_LIST of an object.
    void link(const Block& list, std::string_view object);

    /// Where the lists go.
    struct Pools {
        std::vector<FolderList>& lists;
        std::vector<NameNumber>& numbers;
        std::vector<OtherName>& otherNames;
        NameIndex& otherIndex;
    };

    /// Once all objects, groups and functions can be found by their names. A function that only objects name
    /// is added to the description's.
    void finish(Description& description, ModelStore& store, const Pools& pools);

  private:
    /// Of one folder, `enter` for each name.
    void enterLists(Folder& folder, const Pools& pools,
                    const std::function<void(std::string_view)>& enter) const;

    std::vector<FolderList> lists_;  ///< with ranges of names_
    std::vector<std::string_view> names_;
    std::vector<std::pair<std::string_view, std::string_view>> links_;  ///< function, object
};

}  // namespace lm::a2l
