// What a Parser does when the whole text is read: names to tables, and what only then can be told.

#include <algorithm>
#include <string>
#include <utility>

#include "a2l/parser.h"
#include "a2l/structure.h"
#include "a2l/structure_links.h"

namespace lm::a2l {
namespace {

/// The kind that a name counts as, in the order in which objects are looked up.
std::string_view firstKindOf(const Description& description, std::string_view name) {
    if (description.findMeasurement(name) != nullptr) return "MEASUREMENT";
    if (description.findCharacteristic(name) != nullptr) return "CHARACTERISTIC";
    if (description.findAxisPoints(name) != nullptr) return "AXIS_PTS";
    return description.findBlob(name) != nullptr ? "BLOB" : "INSTANCE";
}

/// Names that objects of two kinds have: the first of them and the count will do.
struct NamesInCommon {
    std::size_t count = 0;
    std::string_view name;
    std::string_view used;
    std::string_view other;
    std::uint32_t line = 0;

    void add(std::string_view usedKind, std::string_view otherKind, std::string_view itsName,
             std::uint32_t itsLine) {
        if (count++ > 0) return;
        name = itsName;
        used = usedKind;
        other = otherKind;
        line = itsLine;
    }
    std::string text(const Diagnostics& diagnostics) const {
        const std::string more = count == 1 ? "" : ", and " + std::to_string(count - 1) + " more name(s)";
        const auto withArticle = [](std::string_view kind) {
            const bool vowel = kind.starts_with('A') || kind.starts_with('I');
            return (vowel ? "an " : "a ") + std::string(kind);
        };
        return "'" + std::string(name) + "' names " + withArticle(used) + " and " + withArticle(other) +
               " (" + diagnostics.where(line) + ")" + more + ": the " + std::string(used) + " is used";
    }
};

/// Axes that an OVERWRITE of a value can name.
std::size_t axisCount(const TypeRecord& type) {
    if (const auto* const* found = std::get_if<const Characteristic*>(&type)) return (*found)->axes.size();
    return std::holds_alternative<const AxisPoints*>(type) ? 1 : 0;
}

/// Whether an OVERWRITE names a value, or an axis of one. True where the type is not known: that is told.
bool hasEffect(const Description& description, const Instance& instance, const Overwrite& overwrite) {
    TypeRecord type = findType(description, description.typeName(instance));
    std::string_view rest = overwrite.part == "THIS" ? std::string_view() : overwrite.part;
    while (!rest.empty() && !std::holds_alternative<std::monostate>(type)) {
        const auto* const* structure = std::get_if<const StructureType*>(&type);
        if (structure == nullptr) return false;
        const std::string_view name = rest.substr(0, rest.find('.'));
        rest.remove_prefix(std::min(name.size() + 1, rest.size()));
        const auto& parts = (*structure)->components;
        const auto part = std::find_if(parts.begin(), parts.end(),
                                       [&](const StructureComponent& one) { return one.name == name; });
        if (part == parts.end()) return false;
        type = findType(description, part->typeName);
    }
    if (std::holds_alternative<std::monostate>(type)) return true;
    return !std::holds_alternative<const StructureType*>(type) && overwrite.axis <= axisCount(type);
}

}  // namespace

template <typename Record>
void Parser::index(NameIndex& names, std::vector<Record>& records, Lines& lines, std::string_view kind) {
    const std::vector<std::uint32_t> repeated = names.build(records);
    if (repeated.empty()) return;
    auto next = repeated.begin();
    std::size_t kept = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (next != repeated.end() && *next == i) {
            diagnostics_.skipped(kind, records[i].name, lines[i], "the name is already used");
            ++next;
            continue;
        }
        if (kept != i) {
            records[kept] = std::move(records[i]);
            lines[kept] = lines[i];
        }
        ++kept;
    }
    records.erase(records.begin() + static_cast<std::ptrdiff_t>(kept), records.end());
    names.build(records);
}

// When all objects can be found by their names.
void Parser::indexSideTables() {
    Description& d = description_;
    Description::Store& store = *d.store_;
    index(store.groups, d.groups, groupLines_, "GROUP");
    index(store.functions, d.functions, functionLines_, "FUNCTION");
    folders_.finish(d, modelStore_, {store.lists, store.numbers, store.others, store.otherNames});
    store.functions.build(d.functions);
    // Of an object that was left out for its name, what it is computed from goes too.
    std::vector<bool> repeated(d.dependencies.size());
    for (const std::uint32_t number : store.dependencies.build(d.dependencies))
        repeated[number] = true;
    std::size_t number = 0;
    std::erase_if(d.dependencies, [&](const Dependency&) { return repeated[number++]; });
    store.dependencies.build(d.dependencies);
}

// What a type says of its values becomes a dependency of each leaf, so that leaves are found like objects.
void Parser::addLeafDependencies() {
    Description& d = description_;
    constexpr std::size_t kMost = 100000;  // far above real files; structures can stand for more than fits
    std::size_t walked = 0;
    const auto add = [&](const Leaf& leaf) {
        const auto nameOf = [](const auto* record) { return record->name; };
        const Dependency* type = d.findTypeDependency(std::visit(nameOf, leaf.record));
        if (type == nullptr) return;
        auto& sources = d.store_->sources;
        Dependency dependency = *type;
        dependency.name = modelStore_.texts.keep(leaf.name);
        dependency.firstSource = static_cast<std::uint32_t>(sources.size());
        for (std::uint32_t i = 0; i < type->sourceCount; ++i)
            sources.push_back(modelStore_.common(resolveReference(leaf, sources[type->firstSource + i])));
        d.dependencies.push_back(dependency);
    };
    modelStore_.hasQuotes = false;
    for (std::size_t i = 0; i < d.instances.size(); ++i) {
        const Instance& instance = d.instances[i];
        if (!isComputed(d, d.typeName(instance))) continue;
        walkLeaves(d, instance, [&](const Result<Leaf>& leaf) {
            if (leaf) add(leaf.value());
            return ++walked < kMost;
        });
        if (walked < kMost) continue;
        diagnostics_.skipped("INSTANCE", instance.name, instanceLines_[i],
                             "it has too many parts to tell which of them are computed");
        return;
    }
}

// Files come with thousands of such objects, whoever made them: one of them and the count will do.
void Parser::tellInfiniteLimits() {
    if (infiniteLimits_ == 0) return;
    const std::string more =
        infiniteLimits_ == 1 ? "" : " and " + std::to_string(infiniteLimits_ - 1) + " more object(s)";
    diagnostics_.odd(infiniteLimitLine_, firstInfiniteLimit_ + " (" + diagnostics_.where(infiniteLimitLine_) +
                                             ")" + more +
                                             ": a limit beyond the range of a 64-bit float counts as none");
}

// Of equal names of two kinds the one that is looked up first is used; the fewer names of measurements and
// characteristics are gone through, and all of the other kinds.
void Parser::tellNamesInCommon() {
    const auto& measurements = description_.measurements;
    const auto& characteristics = description_.characteristics;
    NamesInCommon common;
    const auto meet = [&](std::size_t i) {
        common.add("MEASUREMENT", "CHARACTERISTIC", characteristics[i].name, characteristicLines_[i]);
    };
    if (characteristics.size() < measurements.size()) {
        for (std::size_t i = 0; i < characteristics.size(); ++i)
            if (description_.findMeasurement(characteristics[i].name) != nullptr) meet(i);
    } else {
        for (const Measurement& measurement : measurements) {
            const Characteristic* other = description_.findCharacteristic(measurement.name);
            if (other != nullptr) meet(static_cast<std::size_t>(other - characteristics.data()));
        }
    }
    const auto among = [&](const auto& records, const Lines& lines, std::string_view kind) {
        for (std::size_t i = 0; i < records.size(); ++i) {
            const std::string_view first = firstKindOf(description_, records[i].name);
            if (first != kind) common.add(first, kind, records[i].name, lines[i]);
        }
    };
    among(description_.axisPoints, axisPointsLines_, "AXIS_PTS");
    among(description_.blobs, blobLines_, "BLOB");
    among(description_.instances, instanceLines_, "INSTANCE");
    if (common.count > 0) diagnostics_.odd(common.line, common.text(diagnostics_));
}

void Parser::tellOverwritesOfNothing() {
    std::size_t count = 0;
    std::uint32_t line = 0;
    std::string first;
    for (std::size_t i = 0; i < description_.instances.size(); ++i) {
        const Instance& instance = description_.instances[i];
        for (const Overwrite& overwrite : description_.overwrites(instance)) {
            if (hasEffect(description_, instance, overwrite) || count++ > 0) continue;
            line = instanceLines_[i];
            first = "OVERWRITE '" + std::string(overwrite.part) + "' " + std::to_string(overwrite.axis) +
                    " of INSTANCE '" + std::string(instance.name) + "' (" + diagnostics_.where(line) + ")";
        }
    }
    if (count == 0) return;
    const std::string more = count == 1 ? "" : " and " + std::to_string(count - 1) + " more";
    diagnostics_.odd(line, first + more + ": no value or axis is called so, it changes nothing");
}

void Parser::tellInstancesWithoutType() {
    const auto& instances = description_.instances;
    for (std::size_t i = 0; i < instances.size(); ++i) {
        if (!std::holds_alternative<std::monostate>(
                findType(description_, description_.typeName(instances[i]))))
            continue;
        diagnostics_.skipped("INSTANCE", instances[i].name, instanceLines_[i],
                             "type '" + std::string(description_.typeName(instances[i])) + "' not found");
    }
}

Result<Description> Parser::finish() {
    if (!hasProject_) return Error{ErrorCode::invalidArgument, "A2L: no PROJECT block"};
    if (!hasModule_) return Error{ErrorCode::invalidArgument, "A2L: no MODULE block"};
    Description& d = description_;
    Description::Store& store = *d.store_;
    index(store.measurements, d.measurements, measurementLines_, "MEASUREMENT");
    index(store.characteristics, d.characteristics, characteristicLines_, "CHARACTERISTIC");
    index(store.axisPoints, d.axisPoints, axisPointsLines_, "AXIS_PTS");
    index(store.compuMethods, d.compuMethods, methodLines_, "COMPU_METHOD");
    index(store.compuTabs, d.compuTabs, tabLines_, "COMPU_TAB");
    index(store.compuVtabs, d.compuVtabs, vtabLines_, "COMPU_VTAB");
    index(store.recordLayouts, d.recordLayouts, layoutLines_, "RECORD_LAYOUT");
    index(store.instances, d.instances, instanceLines_, "INSTANCE");
    index(store.blobs, d.blobs, blobLines_, "BLOB");
    index(store.measurementTypes, d.measurementTypes, measurementTypeLines_, "TYPEDEF_MEASUREMENT");
    index(store.characteristicTypes, d.characteristicTypes, characteristicTypeLines_,
          "TYPEDEF_CHARACTERISTIC");
    index(store.axisTypes, d.axisTypes, axisTypeLines_, "TYPEDEF_AXIS");
    index(store.blobTypes, d.blobTypes, blobTypeLines_, "TYPEDEF_BLOB");
    index(store.structureTypes, d.structureTypes, structureTypeLines_, "TYPEDEF_STRUCTURE");
    store.typeDependencies.build(d.typeDependencies);
    linkStructures(d, structureTypeLines_, diagnostics_);
    addLeafDependencies();
    indexSideTables();
    tellInfiniteLimits();
    tellNamesInCommon();
    tellInstancesWithoutType();
    tellOverwritesOfNothing();
    d.warnings = diagnostics_.take();
    if (std::string text = leftOut_.text(); !text.empty()) d.warnings.push_back(std::move(text));
    return std::move(d);
}

}  // namespace lm::a2l
