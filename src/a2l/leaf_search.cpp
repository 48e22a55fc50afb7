#include "a2l/leaf_search.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "a2l/structure_links.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

/// Of the part of an instance with that name.
std::uint64_t countIn(const Description& description, std::string name, std::string_view typeName,
                      const Extent& extent, const NameBeginning& beginning) {
    const TypeRecord type = findType(description, typeName);
    const std::uint64_t all = countLeaves(description, type, extent);
    if (all == 0 || !beginning.allows(name)) return 0;
    if (beginning.isOver(name) || isPlainValue(type)) return all;
    const auto dimensions = description.dimensions(extent);
    const auto given = beginning.indicesAfter(name, dimensions.size());
    std::uint64_t elements = 1;
    for (std::size_t i = 0; i < dimensions.size(); ++i) {
        if (i >= given.size()) elements = saturatedProduct(elements, dimensions[i]);
        if (i < given.size() && given[i] >= dimensions[i]) return 0;
        if (i < given.size()) name += "[" + std::to_string(given[i]) + "]";
    }
    // Where an index is open the beginning tells no more.
    if (given.size() < dimensions.size())
        return saturatedProduct(elements, countLeaves(description, type, Extent()));
    const auto* const* structure = std::get_if<const StructureType*>(&type);
    if (structure == nullptr) return 1;
    std::uint64_t count = 0;
    for (const StructureComponent& component : (*structure)->components) {
        const std::uint64_t more = countIn(description, name + "." + std::string(component.name),
                                           component.typeName, component.extent, beginning);
        count += std::min(more, std::numeric_limits<std::uint64_t>::max() - count);
    }
    return count;
}

}  // namespace

NameBeginning::NameBeginning(std::string_view text) {
    lowerAsciiInto(text_, text);
}

bool NameBeginning::allows(std::string_view name) const {
    std::string small;
    lowerAsciiInto(small, name.substr(0, text_.size()));
    return std::string_view(text_).starts_with(small);
}

std::vector<std::uint32_t> NameBeginning::indicesAfter(std::string_view array, std::size_t most) const {
    std::vector<std::uint32_t> indices;
    if (isOver(array) || !allows(array)) return indices;
    const char* at = text_.data() + array.size();
    const char* const end = text_.data() + text_.size();
    while (indices.size() < most && at != end && *at == '[') {
        std::uint32_t index = 0;
        const auto [after, error] = std::from_chars(at + 1, end, index);
        if (error != std::errc() || after == end || *after != ']') break;
        indices.push_back(index);
        at = after + 1;
    }
    return indices;
}

std::uint64_t leafCount(const Description& description, const Instance& instance,
                        const NameBeginning& beginning) {
    return countIn(description, std::string(instance.name), description.typeName(instance),
                   description.details(instance).extent, beginning);
}

}  // namespace lm::a2l
