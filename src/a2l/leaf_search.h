// The leaves whose names begin in a known way, found without walking over the others: `i[5].` of a billion
// elements is one of them.
//
// Threads: pure functions over an immutable description. Lifetime: what is handed to `use` is as walkLeaves()
// has it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/structure.h"

namespace lm::a2l {

/// How the wanted names begin, whatever their case; an empty one lets all pass.
class NameBeginning {
  public:
    explicit NameBeginning(std::string_view text);

    /// Whether names that begin with `name` may begin so.
    bool allows(std::string_view name) const;
    /// Whether `name` is long enough to tell.
    bool isOver(std::string_view name) const { return name.size() >= text_.size(); }
    /// The indices that stand after the name of an array, as far as they are closed, no more than `most`.
    std::vector<std::uint32_t> indicesAfter(std::string_view array, std::size_t most) const;

  private:
    std::string text_;
};

/// How many leaves walkLeaves() would look at, without walking; saturated.
std::uint64_t leafCount(const Description& description, const Instance& instance,
                        const NameBeginning& beginning);

/// As walkLeaves() in structure.h, but that leaves which begin in another way are left out; not all of them.
void walkLeaves(const Description& description, const Instance& instance, const NameBeginning& beginning,
                const std::function<bool(Result<Leaf>)>& use);

}  // namespace lm::a2l
