#include "a2l/folder_builder.h"

#include <algorithm>
#include <array>

#include "a2l/arguments.h"

namespace lm::a2l {
namespace {

struct ListWord {
    std::string_view text;
    Role role;
};
constexpr std::array kGroupLists = {
    ListWord{"REF_MEASUREMENT", Role::measurement},
    ListWord{"REF_CHARACTERISTIC", Role::parameter},
    ListWord{"SUB_GROUP", Role::subFolder},
    ListWord{"FUNCTION_LIST", Role::functionOfGroup},
};
constexpr std::array kFunctionLists = {
    ListWord{"DEF_CHARACTERISTIC", Role::defined}, ListWord{"REF_CHARACTERISTIC", Role::parameter},
    ListWord{"IN_MEASUREMENT", Role::input},       ListWord{"OUT_MEASUREMENT", Role::output},
    ListWord{"LOC_MEASUREMENT", Role::local},      ListWord{"SUB_FUNCTION", Role::subFolder},
};

std::span<const ListWord> listWords(FolderKind kind) {
    if (kind == FolderKind::group) return kGroupLists;
    return kFunctionLists;
}

/// Not a number that a name gets.
constexpr NameNumber kOpen = 0xFFFFFFFF;

/// Each text once, in the order of the first ones. For each of those before: where its text stands now.
std::vector<std::uint32_t> keepOnce(std::vector<OtherName>& names, NameIndex& index, ModelStore& store) {
    const std::vector<std::uint32_t> repeated = index.build(names);
    std::vector<std::uint32_t> places(names.size());
    auto next = repeated.begin();
    std::uint32_t kept = 0;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const bool isFirst = next == repeated.end() || *next != i;
        if (isFirst) {
            places[i] = kept++;
            continue;
        }
        ++next;
        places[i] = places[static_cast<std::size_t>(index.lookUp(names, names[i].name) - names.data())];
    }
    next = repeated.begin();
    std::size_t number = 0;
    std::erase_if(names, [&](const OtherName&) {
        const bool isRepeated = next != repeated.end() && *next == number;
        ++number;
        if (isRepeated) ++next;
        return isRepeated;
    });
    for (OtherName& other : names)
        other.name = store.texts.keep(other.name);
    if (!repeated.empty()) index.build(names);
    return places;
}

}  // namespace

Folder FolderBuilder::read(const Block& block, ModelStore& store) {
    Folder folder;
    folder.kind = block.keyword == "GROUP" ? FolderKind::group : FolderKind::function;
    const std::string_view name = readIdentifier(block, 0, "name");
    folder.longIdentifier = store.own(readString(block, 1, "long identifier"));
    for (std::size_t i = 2; i < block.tokens().size(); ++i) {
        if (block.tokens()[i].is("ROOT")) folder.root = true;
        if (block.tokens()[i].is("FUNCTION_VERSION"))
            folder.version = store.own(readString(block, i + 1, "FUNCTION_VERSION"));
    }
    folder.firstList = static_cast<std::uint32_t>(lists_.size());
    for (const Block& child : block.children()) {
        for (const ListWord& word : listWords(folder.kind)) {
            if (word.text != child.keyword) continue;
            const auto first = static_cast<std::uint32_t>(names_.size());
            for (const Token& token : child.tokens())
                if (token.kind != TokenKind::string) names_.push_back(token.text);
            lists_.push_back({word.role, first, static_cast<std::uint32_t>(names_.size()) - first});
            ++folder.listCount;
        }
    }
    folder.name = store.own(name);
    return folder;
}

void FolderBuilder::link(const Block& list, std::string_view object) {
    for (const Token& token : list.tokens())
        if (token.kind != TokenKind::string) links_.emplace_back(token.text, object);
}

void FolderBuilder::finish(Description& description, ModelStore& store, const Pools& pools) {
    std::stable_sort(links_.begin(), links_.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (std::size_t i = 0; i < links_.size(); ++i) {
        const std::string_view name = links_[i].first;
        if ((i > 0 && links_[i - 1].first == name) || description.findFunction(name) != nullptr) continue;
        Folder function;
        function.name = store.texts.keep(name);
        function.kind = FolderKind::function;
        description.functions.push_back(function);
    }
    const auto enter = [&](std::string_view name) {
        pools.numbers.push_back(description.numberOf(name).value_or(kOpen));
        // Names that have no number yet, in the order of kOpen.
        if (pools.numbers.back() == kOpen) pools.otherNames.push_back({name});
    };
    for (auto* folders : {&description.groups, &description.functions}) {
        for (Folder& folder : *folders)
            enterLists(folder, pools, enter);
    }
    *this = FolderBuilder();  // a name may stand there a million times: room for the tables
    const std::vector<std::uint32_t> places = keepOnce(pools.otherNames, pools.otherIndex, store);
    auto next = places.begin();
    for (NameNumber& number : pools.numbers) {
        if (number == kOpen) number = *description.numberOf(pools.otherNames[*next++].name);
    }
}

void FolderBuilder::enterLists(Folder& folder, const Pools& pools,
                               const std::function<void(std::string_view)>& enter) const {
    const auto own = std::span(lists_).subspan(folder.firstList, folder.listCount);
    folder.firstList = static_cast<std::uint32_t>(pools.lists.size());
    for (const FolderList& list : own) {
        pools.lists.push_back({list.role, static_cast<std::uint32_t>(pools.numbers.size()), list.count});
        for (const std::string_view name : std::span(names_).subspan(list.first, list.count))
            enter(name);
    }
    if (folder.kind == FolderKind::group) return;
    const auto [first, last] =
        std::equal_range(links_.begin(), links_.end(), std::pair(folder.name, std::string_view()),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
    if (first == last) return;
    pools.lists.push_back({Role::linked, static_cast<std::uint32_t>(pools.numbers.size()),
                           static_cast<std::uint32_t>(last - first)});
    ++folder.listCount;
    for (auto link = first; link != last; ++link)
        enter(link->second);
}

}  // namespace lm::a2l
