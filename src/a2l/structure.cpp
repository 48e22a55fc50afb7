#include "a2l/structure.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "a2l/largest_record.h"
#include "a2l/leaf_search.h"
#include "a2l/structure_links.h"

namespace lm::a2l {
namespace {

/// Names are far shorter; looking up all beginnings of a long text would take its square.
constexpr std::size_t kMaxName = 1024;

Error fault(std::string_view name, const std::string& what) {
    return {ErrorCode::notFound, std::string(name) + ": " + what};
}

std::size_t sizeOf(const Measurement& type) {
    const std::size_t each =
        isPointer(type.addressType) ? pointerSize(type.addressType) : value::dataTypeSize(type.dataType);
    return each * type.elementCount;
}

/// The place of an element in an array: X runs fastest, in COLUMN_DIR Y.
std::uint64_t placeOf(std::span<const std::uint32_t> indices, std::span<const std::uint32_t> dimensions,
                      bool columnDir) {
    std::uint64_t place = 0;
    for (std::size_t i = dimensions.size(); i-- > 0;) {
        const std::size_t axis = columnDir && dimensions.size() > 1 && i < 2 ? 1 - i : i;
        place = saturatedProduct(place, dimensions[axis]) + indices[axis];
    }
    return place;
}

std::string inOwner(const std::string& owner, std::string_view reference) {
    constexpr std::string_view kThis = "THIS.";
    if (!reference.starts_with(kThis)) return std::string(reference);
    return owner + "." + std::string(reference.substr(kThis.size()));
}

/// The way from an instance down to a leaf, as far as it has come.
struct Way {
    const Description* description;
    const Instance* instance;
    std::string name;
    std::string part;
    std::string owner;
    std::uint64_t address = 0;
    std::vector<PointerHop> hops;
    std::uint64_t behind = 0;                  ///< bytes after the last hop
    bool beyond = false;                       ///< of 32-bit addresses
    bool typeOnly = false;                     ///< where it leads to does not matter
    std::optional<std::uint64_t> stride = {};  ///< of the array that it has come to, once it is known
    Assumptions assumptions = {};

    Way(const Description& in, const Instance& of)
        : description(&in), instance(&of), name(of.name), owner(of.name), address(of.address) {}

    void advance(std::uint64_t bytes) {
        std::uint64_t& at = hops.empty() ? address : behind;
        beyond = beyond || __builtin_add_overflow(at, bytes, &at) ||
                 at > std::numeric_limits<std::uint32_t>::max();
    }
    void follow(std::uint8_t size, const Extent& extent) {
        if (size == 0) return;
        if (extent.count > 0) assumptions.add(Assumption::pointerToArray);
        if (!hops.empty()) hops.back().offset = static_cast<std::uint32_t>(behind);
        hops.push_back({size, 0});
        behind = 0;
    }
    /// To an element of the array that the name has come to.
    Result<void> choose(std::span<const std::uint32_t> indices, const Extent& extent,
                        const TypeRecord& type) {
        const auto dimensions = description->dimensions(extent);
        const std::uint64_t place = placeOf(indices, dimensions, extent.columnDir);
        if (dimensions.size() > 1) assumptions.add(Assumption::elementOrder);
        if (dimensions.size() > 2 && extent.columnDir) assumptions.add(Assumption::columnDirection);
        for (const std::uint32_t index : indices)
            name += "[" + std::to_string(index) + "]";
        if (place == 0 || typeOnly) return {};
        if (auto found = findStride(type); !found) return found;
        advance(saturatedProduct(place, *stride));
        return {};
    }
    Result<void> findStride(const TypeRecord& type);
    void descend(const StructureComponent& component) {
        owner = name;
        name += "." + std::string(component.name);
        part += (part.empty() ? "" : ".") + std::string(component.name);
        stride.reset();
        advance(component.offset);
    }
    Result<Leaf> leaf(const TypeRecord& type, std::span<const std::uint32_t> open, bool columnDir) const;
};

std::uint32_t pointsOf(const Description& description, const std::string& axis);

/// From one element of an array to the next.
Result<void> Way::findStride(const TypeRecord& type) {
    if (stride) return {};
    Result<std::uint64_t> size = fault(name, "has a type that is not known");
    if (const auto* structure = std::get_if<const StructureType*>(&type)) size = (*structure)->size;
    if (const auto* measurement = std::get_if<const Measurement*>(&type)) size = sizeOf(**measurement);
    if (const auto* blob = std::get_if<const Blob*>(&type)) size = (*blob)->size;
    if (const auto* points = std::get_if<const AxisPoints*>(&type))
        size = largestRecord(*description, **points);
    if (const auto* characteristic = std::get_if<const Characteristic*>(&type)) {
        size = largestRecord(*description, **characteristic, [this](std::string_view axis) {
            return pointsOf(*description, inOwner(owner, axis));
        });
    }
    if (!size) return fault(name, "the distance between its elements is not known: " + size.error().text());
    stride = size.value();
    return {};
}

/// One pointer for the whole part, whether the part or its type asks for it.
std::uint8_t pointerOf(const Extent& extent, const TypeRecord& type) {
    if (extent.pointerSize != 0) return extent.pointerSize;
    const auto* structure = std::get_if<const StructureType*>(&type);
    return structure == nullptr ? std::uint8_t{0} : (*structure)->pointerSize;
}

Result<Leaf> Way::leaf(const TypeRecord& type, std::span<const std::uint32_t> open, bool columnDir) const {
    if (beyond) return fault(name, "lies beyond the last address");
    Leaf leaf;
    leaf.name = name;
    leaf.instance = instance;
    leaf.address = {static_cast<std::uint32_t>(address), instance->addressExtension};
    leaf.hops = hops;
    if (!hops.empty()) leaf.hops.back().offset = static_cast<std::uint32_t>(behind);
    leaf.part = part;
    leaf.owner = owner;
    leaf.dimensions.assign(open.begin(), open.end());
    leaf.columnDir = columnDir;
    if (const auto* record = std::get_if<const Measurement*>(&type)) leaf.record = *record;
    if (const auto* record = std::get_if<const Characteristic*>(&type)) leaf.record = *record;
    if (const auto* record = std::get_if<const AxisPoints*>(&type)) leaf.record = *record;
    if (const auto* record = std::get_if<const Blob*>(&type)) leaf.record = *record;
    for (const Overwrite& overwrite : description->overwrites(*instance)) {
        if (overwrite.part == (part.empty() ? std::string_view("THIS") : std::string_view(part)))
            leaf.overwrites.push_back(&overwrite);
    }
    leaf.assumptions = assumptions;
    if (!leaf.overwrites.empty() && part.find('.') != std::string::npos)
        leaf.assumptions.add(Assumption::overwriteBelow);
    return leaf;
}

const StructureComponent* findComponent(const StructureType& type, std::string_view name) {
    const auto before = [&](std::uint32_t i, std::string_view n) { return type.components[i].name < n; };
    const auto found = std::lower_bound(type.byName.begin(), type.byName.end(), name, before);
    if (found == type.byName.end() || type.components[*found].name != name) return nullptr;
    return &type.components[*found];
}

/// "[3]" at the beginning of `rest`, which it is taken from.
std::optional<std::uint32_t> takeElementIndex(std::string_view& rest) {
    if (!rest.starts_with('[')) return {};
    std::uint32_t index = 0;
    const char* const end = rest.data() + rest.size();
    const auto [at, error] = std::from_chars(rest.data() + 1, end, index);
    if (error != std::errc() || at == end || *at != ']') return {};
    rest.remove_prefix(static_cast<std::size_t>(at + 1 - rest.data()));
    return index;
}

/// The component that `rest` begins with, whose name is taken from it; names may hold brackets.
const StructureComponent* takeComponent(const StructureType& type, std::string_view& rest) {
    std::string_view name = rest.substr(0, rest.find('.'));
    const StructureComponent* found = findComponent(type, name);
    if (found == nullptr) {
        name = name.substr(0, name.find('['));
        found = findComponent(type, name);
    }
    if (found != nullptr) rest.remove_prefix(name.size());
    return found;
}

/// The indices that the name has for a part; none for the whole of an array of plain values.
Result<std::vector<std::uint32_t>> takeIndices(const Way& way, std::string_view& rest, const Extent& extent,
                                               const TypeRecord& type) {
    const auto dimensions = way.description->dimensions(extent);
    if (isPlainValue(type) && rest.empty()) return std::vector<std::uint32_t>();
    std::vector<std::uint32_t> indices;
    for (const std::uint32_t dimension : dimensions) {
        const auto index = takeElementIndex(rest);
        if (!index) {
            std::string first = way.name;
            for (std::size_t i = 0; i < dimensions.size(); ++i)
                first += "[0]";
            return fault(way.name, "has " + std::to_string(dimensions.size()) +
                                       " dimension(s): each needs an index, as in " + first);
        }
        if (*index >= dimension) {
            return fault(way.name, "index " + std::to_string(*index) + " is above the largest, " +
                                       std::to_string(dimension - 1));
        }
        indices.push_back(*index);
    }
    return indices;
}

Result<Leaf> descend(Way way, std::string_view typeName, Extent extent, std::string_view rest) {
    for (;;) {
        const TypeRecord type = findType(*way.description, typeName);
        if (std::holds_alternative<std::monostate>(type))
            return fault(way.name, "type '" + std::string(typeName) + "' not found");
        way.follow(pointerOf(extent, type), extent);
        auto indices = takeIndices(way, rest, extent, type);
        if (!indices) return indices.error();
        const bool open = indices.value().empty() && extent.count > 0;
        if (!open) {
            if (auto chosen = way.choose(indices.value(), extent, type); !chosen) return chosen.error();
        }
        const auto* const* structure = std::get_if<const StructureType*>(&type);
        if (structure == nullptr) {
            if (!rest.empty()) return fault(way.name, "has no part '" + std::string(rest) + "'");
            return way.leaf(type,
                            open ? way.description->dimensions(extent) : std::span<const std::uint32_t>(),
                            extent.columnDir);
        }
        if (!(*structure)->usable)
            return fault(way.name, "its structure contains itself or is nested too deep");
        if (!rest.starts_with('.')) {
            return fault(way.name, rest.empty() ? "is a structure: name one of its parts"
                                                : "has no part '" + std::string(rest) + "'");
        }
        rest.remove_prefix(1);
        const StructureComponent* component = takeComponent(**structure, rest);
        if (component == nullptr)
            return fault(way.name,
                         "has no part '" + std::string(rest.substr(0, rest.find_first_of(".["))) + "'");
        way.descend(*component);
        typeName = component->typeName;
        extent = component->extent;
    }
}

/// The instance with the longest name that `name` begins with, which must end or go on with a part there.
const Instance* instanceOf(const Description& description, std::string_view name) {
    if (const Instance* whole = description.findInstance(name)) return whole;
    if (name.size() > kMaxName) return nullptr;
    for (std::size_t end = name.find_last_of(".["); end != std::string_view::npos && end > 0;
         end = name.find_last_of(".[", end - 1)) {
        if (const Instance* instance = description.findInstance(name.substr(0, end))) return instance;
    }
    return nullptr;
}

/// The most points of an AXIS_PTS or of a part that is one; 0 for none.
std::uint32_t pointsOf(const Description& description, const std::string& axis) {
    if (const AxisPoints* points = description.findAxisPoints(axis)) return points->maxAxisPoints;
    const Instance* instance = instanceOf(description, axis);
    if (instance == nullptr) return 0;
    Way way(description, *instance);
    way.typeOnly = true;
    const std::string_view rest = std::string_view(axis).substr(instance->name.size());
    const auto leaf =
        descend(std::move(way), description.typeName(*instance), description.details(*instance).extent, rest);
    const auto* points = leaf ? std::get_if<const AxisPoints*>(&leaf.value().record) : nullptr;
    return points == nullptr ? 0 : (*points)->maxAxisPoints;
}

class Walker {
  public:
    Walker(const NameBeginning& beginning, const std::function<bool(Result<Leaf>)>& use)
        : beginning_(beginning), use_(use) {}

    /// False: to go no further.
    bool walk(Way way, std::string_view typeName, const Extent& extent) {
        const Description& description = *way.description;
        const TypeRecord type = findType(description, typeName);
        if (countLeaves(description, type, extent) == 0 || !beginning_.allows(way.name)) return true;
        const auto dimensions = description.dimensions(extent);
        way.follow(pointerOf(extent, type), extent);
        if (isPlainValue(type)) return use_(way.leaf(type, dimensions, extent.columnDir));
        std::vector<std::uint32_t> indices = beginning_.indicesAfter(way.name, dimensions.size());
        const std::size_t given = indices.size();
        for (std::size_t i = 0; i < given; ++i)
            if (indices[i] >= dimensions[i]) return true;
        indices.resize(dimensions.size());
        // Once for all elements; an error comes again with each of them.
        if (!dimensions.empty()) static_cast<void>(way.findStride(type));
        do {
            Way element = way;
            if (auto chosen = element.choose(indices, extent, type); !chosen) {
                if (!use_(chosen.error())) return false;
            } else if (beginning_.allows(element.name) && !walkElement(element, type)) {
                return false;
            }
        } while (next(indices, dimensions, given));
        return true;
    }

  private:
    bool walkElement(const Way& element, const TypeRecord& type) {
        const auto* const* structure = std::get_if<const StructureType*>(&type);
        if (structure == nullptr) return use_(element.leaf(type, {}, false));
        for (const StructureComponent& component : (*structure)->components) {
            Way part = element;
            part.descend(component);
            if (!walk(std::move(part), component.typeName, component.extent)) return false;
        }
        return true;
    }
    /// The next element, the last index fastest; the first `given` ones stay.
    static bool next(std::vector<std::uint32_t>& indices, std::span<const std::uint32_t> dimensions,
                     std::size_t given) {
        for (std::size_t i = indices.size(); i-- > given;) {
            if (++indices[i] < dimensions[i]) return true;
            indices[i] = 0;
        }
        return false;
    }

    const NameBeginning& beginning_;
    const std::function<bool(Result<Leaf>)>& use_;
};

}  // namespace

bool belongsToInstance(const Description& description, std::string_view name) {
    return instanceOf(description, name) != nullptr;
}

Result<Leaf> findLeaf(const Description& description, std::string_view name) {
    const Instance* instance = instanceOf(description, name);
    if (instance == nullptr)
        return Error{ErrorCode::notFound, "'" + std::string(name) + "' is not part of an INSTANCE"};
    return descend(Way(description, *instance), description.typeName(*instance),
                   description.details(*instance).extent, name.substr(instance->name.size()));
}

std::uint64_t leafCount(const Description& description, const Instance& instance) {
    return countLeaves(description, findType(description, description.typeName(instance)),
                       description.details(instance).extent);
}

void walkLeaves(const Description& description, const Instance& instance,
                const std::function<bool(Result<Leaf>)>& use) {
    walkLeaves(description, instance, NameBeginning(""), use);
}

void walkLeaves(const Description& description, const Instance& instance, const NameBeginning& beginning,
                const std::function<bool(Result<Leaf>)>& use) {
    Walker(beginning, use)
        .walk(Way(description, instance), description.typeName(instance),
              description.details(instance).extent);
}

std::string resolveReference(const Leaf& leaf, std::string_view reference) {
    return inOwner(leaf.owner, reference);
}

}  // namespace lm::a2l
