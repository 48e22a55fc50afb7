#include "a2l/folders.h"

#include <algorithm>
#include <unordered_set>

#include "a2l/description.h"

namespace lm::a2l {
namespace {

constexpr bool isObject(Role role) {
    return role != Role::subFolder && role != Role::functionOfGroup;
}

const Folder* findFolder(const Description& description, FolderKind kind, std::string_view name) {
    return kind == FolderKind::group ? description.findGroup(name) : description.findFunction(name);
}

}  // namespace

std::vector<std::string_view> namesIn(const Description& description, const Folder& folder, Role role) {
    std::vector<std::string_view> names;
    for (const FolderList& list : description.lists(folder)) {
        if (list.role != role) continue;
        for (const NameNumber number : description.numbers(list))
            names.push_back(description.nameOf(number));
    }
    return names;
}

std::vector<std::string_view> objectsIn(const Description& description, const Folder& folder) {
    std::vector<std::string_view> names;
    std::unordered_set<NameNumber> taken;
    std::unordered_set<const Folder*> seen = {&folder};
    std::vector<const Folder*> open = {&folder};  // a tree of any depth, the next one last
    while (!open.empty()) {
        const Folder& next = *open.back();
        open.pop_back();
        const auto firstBelow = static_cast<std::ptrdiff_t>(open.size());
        for (const FolderList& list : description.lists(next)) {
            for (const NameNumber number : description.numbers(list)) {
                if (isObject(list.role) && taken.insert(number).second)
                    names.push_back(description.nameOf(number));
                if (list.role != Role::subFolder) continue;
                const Folder* below = findFolder(description, folder.kind, description.nameOf(number));
                if (below != nullptr && seen.insert(below).second) open.push_back(below);
            }
        }
        std::reverse(open.begin() + firstBelow, open.end());
    }
    return names;
}

std::vector<Membership> foldersOf(const Description& description, std::string_view name) {
    std::vector<Membership> found;
    const auto number = description.numberOf(name);
    if (!number) return found;
    for (const auto* folders : {&description.groups, &description.functions}) {
        for (const Folder& folder : *folders) {
            for (const FolderList& list : description.lists(folder)) {
                const auto numbers = description.numbers(list);
                if (isObject(list.role) &&
                    std::find(numbers.begin(), numbers.end(), *number) != numbers.end())
                    found.push_back({&folder, list.role});
            }
        }
    }
    return found;
}

}  // namespace lm::a2l
