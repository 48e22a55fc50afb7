// GROUP and FUNCTION: the trees in which an A2L file sets out its objects.
//
// Threads: pure functions over an immutable description. Lifetime: names and pointers live as long as the
// description.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace lm::a2l {

class Description;

enum class FolderKind : std::uint8_t { group, function };

/// As what a folder lists a name.
enum class Role : std::uint8_t {
    measurement,      ///< REF_MEASUREMENT of a group
    parameter,        ///< REF_CHARACTERISTIC of a group, of a function: used by it
    defined,          ///< DEF_CHARACTERISTIC of a function
    input,            ///< IN_MEASUREMENT
    output,           ///< OUT_MEASUREMENT
    local,            ///< LOC_MEASUREMENT
    linked,           ///< by a FUNCTION_LIST in the object
    subFolder,        ///< SUB_GROUP, SUB_FUNCTION
    functionOfGroup,  ///< FUNCTION_LIST of a group
};

/// GROUP or FUNCTION.
struct Folder {
    std::string_view name;
    std::string_view longIdentifier;
    std::string_view version;     ///< FUNCTION_VERSION
    std::uint32_t firstList = 0;  ///< in the description's pool
    std::uint32_t listCount = 0;
    FolderKind kind = FolderKind::group;
    bool root = false;  ///< ROOT: the top of a tree
};

/// What one folder lists in one role.
struct FolderList {
    Role role = Role::measurement;
    std::uint32_t first = 0;  ///< in the description's pool
    std::uint32_t count = 0;
};

/// A name in four bytes: which object of which kind has it, or which OtherName.
using NameNumber = std::uint32_t;

/// A name in a group or function that no object has: of a leaf, of another folder, or of nothing.
struct OtherName {
    std::string_view name;
};

/// The names that a folder lists in one role, in file order.
std::vector<std::string_view> namesIn(const Description& description, const Folder& folder, Role role);

/// The objects of a folder and of all folders below it, each once, in the order of the tree. Folders in
/// themselves are harmless.
std::vector<std::string_view> objectsIn(const Description& description, const Folder& folder);

struct Membership {
    const Folder* folder = nullptr;
    Role role = Role::measurement;
};
/// Where a name stands: groups, then functions, in file order.
std::vector<Membership> foldersOf(const Description& description, std::string_view name);

}  // namespace lm::a2l
