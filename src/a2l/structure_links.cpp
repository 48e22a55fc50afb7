#include "a2l/structure_links.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace lm::a2l {
namespace {

// Real structures nest some five levels; whoever walks over them may go down by calling itself.
constexpr std::uint32_t kMaxStructureDepth = 64;

/// Which structures are parts of which: none is counted before all of its parts are.
class Linker {
  public:
    explicit Linker(Description& description)
        : description_(description),
          types_(description.structureTypes),
          users_(types_.size()),
          open_(types_.size()),
          depth_(types_.size(), 1) {}

    void run() {
        for (std::size_t i = 0; i < types_.size(); ++i)
            enterParts(i);
        std::vector<std::size_t> ready;
        for (std::size_t i = 0; i < types_.size(); ++i) {
            if (open_[i] == 0) ready.push_back(i);
        }
        while (!ready.empty()) {
            const std::size_t part = ready.back();
            ready.pop_back();
            complete(types_[part], depth_[part]);
            for (const std::size_t user : users_[part]) {
                depth_[user] = std::max(depth_[user], depth_[part] + 1);
                if (--open_[user] == 0) ready.push_back(user);
            }
        }
    }

    bool inItself(std::size_t type) const { return open_[type] != 0; }

  private:
    void enterParts(std::size_t user) {
        for (const StructureComponent& component : types_[user].components) {
            const StructureType* part = description_.findStructureType(component.typeName);
            if (part == nullptr) continue;
            users_[static_cast<std::size_t>(part - types_.data())].push_back(user);
            ++open_[user];
        }
    }
    void complete(StructureType& type, std::uint32_t depth) {
        type.usable = depth <= kMaxStructureDepth;
        if (!type.usable) return;
        for (const StructureComponent& component : type.components) {
            const TypeRecord of = findType(description_, component.typeName);
            const std::uint64_t leaves = countLeaves(description_, of, component.extent);
            const std::uint64_t left = std::numeric_limits<std::uint64_t>::max() - type.leafCount;
            type.leafCount += std::min(leaves, left);
            type.computed = type.computed || isComputed(description_, component.typeName);
        }
    }

    Description& description_;
    std::vector<StructureType>& types_;
    std::vector<std::vector<std::size_t>> users_;  // by part
    std::vector<std::size_t> open_;                // parts that are not complete yet
    std::vector<std::uint32_t> depth_;
};

// Of two components with one name the first counts.
void sortNames(StructureType& type, std::uint32_t line, Diagnostics& diagnostics) {
    auto& components = type.components;
    auto& byName = type.byName;
    byName.resize(components.size());
    std::iota(byName.begin(), byName.end(), 0U);
    const auto name = [&](std::uint32_t i) { return components[i].name; };
    std::stable_sort(byName.begin(), byName.end(), [&](auto a, auto b) { return name(a) < name(b); });
    std::vector<bool> repeated(components.size());
    for (std::size_t i = 1; i < byName.size(); ++i)
        repeated[byName[i]] = name(byName[i]) == name(byName[i - 1]);
    if (std::find(repeated.begin(), repeated.end(), true) == repeated.end()) return;
    std::vector<StructureComponent> kept;
    for (std::size_t i = 0; i < components.size(); ++i) {
        if (!repeated[i]) {
            kept.push_back(components[i]);
            continue;
        }
        diagnostics.skipped("STRUCTURE_COMPONENT",
                            std::string(type.name) + "." + std::string(components[i].name), line,
                            "the name is already used");
    }
    components = std::move(kept);
    sortNames(type, line, diagnostics);
}

}  // namespace

TypeRecord findType(const Description& description, std::string_view name) {
    if (const auto* found = description.findStructureType(name)) return found;
    if (const auto* found = description.findMeasurementType(name)) return found;
    if (const auto* found = description.findCharacteristicType(name)) return found;
    if (const auto* found = description.findAxisType(name)) return found;
    if (const auto* found = description.findBlobType(name)) return found;
    return {};
}

bool isComputed(const Description& description, std::string_view type) {
    const StructureType* structure = description.findStructureType(type);
    return structure != nullptr ? structure->computed : description.findTypeDependency(type) != nullptr;
}

bool isPlainValue(const TypeRecord& type) {
    if (const auto* const* measurement = std::get_if<const Measurement*>(&type))
        return (*measurement)->elementCount == 1;
    const auto* const* characteristic = std::get_if<const Characteristic*>(&type);
    return characteristic != nullptr && (*characteristic)->type == CharacteristicType::value;
}

std::uint64_t saturatedProduct(std::uint64_t a, std::uint64_t b) {
    std::uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max() : product;
}

std::uint64_t elementCount(const Description& description, const Extent& extent) {
    std::uint64_t count = 1;
    for (const std::uint32_t dimension : description.dimensions(extent))
        count = saturatedProduct(count, dimension);
    return count;
}

std::uint64_t countLeaves(const Description& description, const TypeRecord& type, const Extent& extent) {
    if (std::holds_alternative<std::monostate>(type)) return 0;
    if (isPlainValue(type)) return 1;
    const auto* const* structure = std::get_if<const StructureType*>(&type);
    const std::uint64_t each = structure == nullptr ? 1 : (*structure)->leafCount;
    return saturatedProduct(elementCount(description, extent), each);
}

void linkStructures(Description& description, const std::vector<std::uint32_t>& lines,
                    Diagnostics& diagnostics) {
    auto& types = description.structureTypes;
    for (std::size_t i = 0; i < types.size(); ++i)
        sortNames(types[i], lines[i], diagnostics);
    Linker linker(description);
    linker.run();
    for (std::size_t i = 0; i < types.size(); ++i) {
        const StructureType& type = types[i];
        if (!type.usable) {
            diagnostics.skipped("TYPEDEF_STRUCTURE", type.name, lines[i],
                                linker.inItself(i) ? "it contains itself, or a structure that does"
                                                   : "it is nested too deep");
        }
        for (const StructureComponent& component : type.components) {
            if (!std::holds_alternative<std::monostate>(findType(description, component.typeName))) continue;
            diagnostics.skipped("STRUCTURE_COMPONENT",
                                std::string(type.name) + "." + std::string(component.name), lines[i],
                                "type '" + std::string(component.typeName) + "' not found");
        }
    }
}

}  // namespace lm::a2l
