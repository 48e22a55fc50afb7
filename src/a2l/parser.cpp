#include "a2l/parser.h"

#include <array>
#include <cmath>
#include <string>
#include <utility>

#include "a2l/arguments.h"
#include "a2l/conversion_readers.h"
#include "a2l/if_data.h"
#include "a2l/layout_readers.h"
#include "a2l/memory_segments.h"
#include "a2l/structure_links.h"
#include "a2l/structure_readers.h"

namespace lm::a2l {
namespace {

std::string_view textAt(const Block& block, std::size_t index) {
    return index < block.tokens().size() ? block.tokens()[index].text : std::string_view();
}

// Negative ones go down; addresses count modulo 2^32.
std::uint32_t readCalibrationOffset(const Block& block, std::size_t index) {
    const double offset = readNumber(block, index, "ECU_CALIBRATION_OFFSET");
    constexpr double kAddresses = 4294967296.0;
    if (!(std::fabs(offset) < kAddresses) || std::trunc(offset) != offset)
        throw BlockError("ECU_CALIBRATION_OFFSET must be a whole number of 32 bits");
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(offset));
}

}  // namespace

Parser::Parser(const SourceLines* lines)
    : shared_(description_.store_->texts),
      modelStore_{description_.store_->texts,         shared_,
                  description_.store_->events,        description_.store_->dimensions,
                  description_.store_->maps,          description_.store_->overwrites,
                  description_.store_->instanceTypes, description_.store_->instanceDetails},
      diagnostics_(lines) {}

Parser::Kind Parser::kindOf(std::string_view keyword) {
    static constexpr std::array<std::string_view, static_cast<std::size_t>(Kind::count)> kKeywords = {
        "MEASUREMENT",
        "CHARACTERISTIC",
        "AXIS_PTS",
        "COMPU_METHOD",
        "COMPU_TAB",
        "COMPU_VTAB",
        "COMPU_VTAB_RANGE",
        "RECORD_LAYOUT",
        "INSTANCE",
        "BLOB",
        "TYPEDEF_MEASUREMENT",
        "TYPEDEF_CHARACTERISTIC",
        "TYPEDEF_AXIS",
        "TYPEDEF_BLOB",
        "TYPEDEF_STRUCTURE",
        "GROUP",
        "FUNCTION",
        "MOD_COMMON",
        "MOD_PAR",
        "IF_DATA",
        "TRANSFORMER",
        "VARIANT_CODING"};
    std::size_t kind = 0;
    while (kind < kKeywords.size() && kKeywords[kind] != keyword)
        ++kind;
    return static_cast<Kind>(kind);
}

BlockVisitor::Step Parser::opened(std::string_view keyword, std::size_t depth) {
    constexpr std::size_t kInRoot = 0;
    constexpr std::size_t kInProject = 1;
    if (depth == kInRoot) {
        if (keyword != "PROJECT" || std::exchange(hasProject_, true)) return Step::skip;
        return Step::descend;
    }
    if (depth == kInProject) {
        if (keyword != "MODULE") return Step::skip;
        if (!std::exchange(hasModule_, true)) return Step::descend;
        leftOut_.add("further MODULE");
        return Step::skip;
    }
    kind_ = kindOf(keyword);
    return kind_ == Kind::count ? Step::skip : Step::collect;
}

void Parser::collected(const Block& block) {
    try {
        read(block);
        const bool isValueType = kind_ == Kind::measurementType || kind_ == Kind::characteristicType;
        if (kind_ <= Kind::axisPoints || isValueType) noteSideTables(block);
    } catch (const BlockError& error) {
        const bool named = kind_ < Kind::modCommon;
        diagnostics_.skipped(block.keyword, named ? textAt(block, 0) : std::string_view(), block.line,
                             error.what());
    }
}

void Parser::closed(const Block& block, std::size_t depth) {
    modelStore_.hasQuotes = block.hasQuotes;
    if (depth == 0 && block.keyword.empty()) {
        closeRoot(block);
    } else if (depth == 0) {
        description_.projectName = modelStore_.own(textAt(block, 0));
        description_.projectLongIdentifier = modelStore_.own(textAt(block, 1));
    } else {
        description_.moduleName = modelStore_.own(textAt(block, 0));
        description_.moduleLongIdentifier = modelStore_.own(textAt(block, 1));
    }
}

void Parser::closeRoot(const Block& block) {
    const auto tokens = block.tokens();
    for (std::size_t i = 0; i + 2 < tokens.size(); ++i) {
        if (!tokens[i].is("ASAP2_VERSION")) continue;
        if (tokens[i + 1].kind != TokenKind::number || tokens[i + 2].kind != TokenKind::number) continue;
        description_.asap2Version.emplace(tokens[i + 1].value, tokens[i + 2].value);
        return;
    }
}

void Parser::included(std::string_view file, std::uint32_t line) {
    // The grammar of the interface data, which this program knows by itself.
    if (file.ends_with(".aml") || file.ends_with(".AML")) {
        description_.notes.push_back("/include '" + std::string(file) + "' (" + diagnostics_.where(line) +
                                     ") is not read, and not needed");
        return;
    }
    diagnostics_.skipped("/include", file, line, "included files are not read");
}

// The share of the text read so far tells how many records are to come; room for them in one piece spares
// moving them again and again. Memory that is never touched costs nothing.
void Parser::passed(std::size_t offset, std::size_t size) {
    const auto reserve = [&](auto& records, Lines& lines) {
        const double share = static_cast<double>(size) / static_cast<double>(offset);
        const auto estimate = static_cast<std::size_t>(1.1 * share * static_cast<double>(records.size()));
        if (estimate < 2 * records.capacity()) return;
        records.reserve(estimate);
        lines.reserve(estimate);
    };
    reserve(description_.measurements, measurementLines_);
    reserve(description_.characteristics, characteristicLines_);
    reserve(description_.instances, instanceLines_);
}

template <typename Record>
void Parser::add(std::vector<Record>& records, Lines& lines, Record&& record, const Block& block) {
    records.push_back(std::forward<Record>(record));
    lines.push_back(block.line);
}

template <typename Record>
void Parser::addObject(std::vector<Record>& records, Lines& lines, Record&& record, const Block& block) {
    const bool finite = std::isfinite(record.lowerLimit) && std::isfinite(record.upperLimit);
    if (!finite && infiniteLimits_++ == 0) {
        infiniteLimitLine_ = block.line;
        firstInfiniteLimit_ = std::string(block.keyword) + " '" + std::string(record.name) + "'";
    }
    add(records, lines, std::forward<Record>(record), block);
}

void Parser::read(const Block& block) {
    Description& d = description_;
    modelStore_.hasQuotes = block.hasQuotes;
    switch (kind_) {
        case Kind::measurement:
            return addObject(d.measurements, measurementLines_, readMeasurement(block, modelStore_), block);
        case Kind::characteristic:
            return addObject(d.characteristics, characteristicLines_, readCharacteristic(block, modelStore_),
                             block);
        case Kind::axisPoints:
            return add(d.axisPoints, axisPointsLines_, readAxisPoints(block, modelStore_), block);
        case Kind::compuMethod:
            return add(d.compuMethods, methodLines_, readCompuMethod(block, modelStore_), block);
        case Kind::compuTab:
            return add(d.compuTabs, tabLines_, readCompuTab(block, modelStore_), block);
        case Kind::compuVtab:
            return add(d.compuVtabs, vtabLines_, readCompuVtab(block, modelStore_), block);
        case Kind::compuVtabRange:
            return add(d.compuVtabs, vtabLines_, readCompuVtabRange(block, modelStore_), block);
        case Kind::recordLayout:
            return add(d.recordLayouts, layoutLines_, readRecordLayout(block, modelStore_), block);
        case Kind::instance:
            return add(d.instances, instanceLines_, readInstance(block, modelStore_), block);
        case Kind::blob:
            return add(d.blobs, blobLines_, readBlob(block, modelStore_), block);
        case Kind::measurementType:
            return addObject(d.measurementTypes, measurementTypeLines_, readMeasurement(block, modelStore_),
                             block);
        case Kind::characteristicType:
            return addObject(d.characteristicTypes, characteristicTypeLines_,
                             readCharacteristic(block, modelStore_, Placed::no), block);
        case Kind::axisType:
            return add(d.axisTypes, axisTypeLines_, readAxisPoints(block, modelStore_, Placed::no), block);
        case Kind::blobType:
            return add(d.blobTypes, blobTypeLines_, readBlobType(block, modelStore_), block);
        case Kind::structureType:
            return add(d.structureTypes, structureTypeLines_, readStructureType(block, modelStore_), block);
        case Kind::group:
            return add(d.groups, groupLines_, folders_.read(block, modelStore_), block);
        case Kind::function:
            return add(d.functions, functionLines_, folders_.read(block, modelStore_), block);
        case Kind::modCommon:
            return readModCommon(block);
        case Kind::modPar:
            return readModPar(block);
        case Kind::ifData:
            if (isXcpInterfaceData(block)) readXcpInterface(block, d.xcp, diagnostics_);
            d.xcp.ccp = d.xcp.ccp || isCcpInterfaceData(block);
            return;
        case Kind::transformer:
        case Kind::variantCoding:
            leftOut_.add(block.keyword);
            return tellLeftOut(block);
        case Kind::count:
            return;
    }
}

void Parser::tellLeftOut(const Block& block) {
    std::string name(textAt(block, 0));
    if (!name.empty()) name = " '" + name + "'";
    description_.notes.push_back("left out: " + std::string(block.keyword) + name + " (" +
                                 diagnostics_.where(block.line) + ")");
}

void Parser::readModCommon(const Block& block) {
    enum class Word : std::uint8_t { byteOrder, layout, deposit };
    using Keyword = OptionalKeyword<Word>;
    static constexpr std::array kKeywords = {
        Keyword{"BYTE_ORDER", 1, Word::byteOrder},
        Keyword{"S_REC_LAYOUT", 1, Word::layout},
        Keyword{"DEPOSIT", 1, Word::deposit},
    };
    Description& d = description_;
    forEachOptional<Word>(block, 0, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::layout) {
            d.defaults.layout = modelStore_.common(readIdentifier(block, value, "S_REC_LAYOUT"));
        } else if (word == Word::deposit) {
            d.defaults.deposit = readDeposit(block, value);
        } else if (isWordSwapped(block, value)) {
            d.defaults.wordSwapped = true;
        } else if (const ByteOrder order = readByteOrder(block, value); !d.byteOrder) {
            d.byteOrder = order;
        }
    });
    for (std::size_t i = 0; i < block.tokens().size(); ++i) {
        if (block.tokens()[i].kind == TokenKind::identifier) readAlignment(block, i, d.defaults.alignments);
    }
}

void Parser::readModPar(const Block& block) {
    readModuleParameters(block, description_.parameters, diagnostics_);
    const auto tokens = block.tokens();
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        if (tokens[i].is("ECU_CALIBRATION_OFFSET"))
            description_.defaults.calibrationOffset = readCalibrationOffset(block, i + 1);
        if (!tokens[i].is("SYSTEM_CONSTANT")) continue;
        const std::string_view name = readString(block, i + 1, "SYSTEM_CONSTANT");
        const std::string_view value = readString(block, i + 2, "SYSTEM_CONSTANT");
        if (description_.systemConstants.contains(name)) {
            diagnostics_.skipped("SYSTEM_CONSTANT", name, tokens[i].line, "the name is already used");
            continue;
        }
        description_.systemConstants.emplace(modelStore_.own(name), modelStore_.own(value));
    }
}

// What few of the objects have, and what then is no reason to leave the object out.
void Parser::noteSideTables(const Block& block) {
    for (const Block& child : block.children()) {
        try {
            if (child.keyword == "FUNCTION_LIST" && kind_ <= Kind::axisPoints)
                folders_.link(child, textAt(block, 0));
            if (child.keyword == "DEPENDENT_CHARACTERISTIC")
                noteDependency(block, child, DependencyKind::dependentCharacteristic);
            if (child.keyword == "VIRTUAL_CHARACTERISTIC")
                noteDependency(block, child, DependencyKind::virtualCharacteristic);
            if (child.keyword == "VIRTUAL") noteDependency(block, child, DependencyKind::virtualMeasurement);
        } catch (const BlockError& error) {
            diagnostics_.skipped(child.keyword, textAt(block, 0), child.line, error.what());
        }
    }
}

void Parser::noteDependency(const Block& object, const Block& block, DependencyKind kind) {
    const bool hasFormula = kind != DependencyKind::virtualMeasurement;
    auto& sources = description_.store_->sources;
    Dependency dependency;
    if (hasFormula) dependency.formula = modelStore_.own(readString(block, 0, "formula"));
    dependency.kind = kind;
    dependency.firstSource = static_cast<std::uint32_t>(sources.size());
    for (std::size_t i = hasFormula ? 1 : 0; i < block.tokens().size(); ++i)
        sources.push_back(modelStore_.common(readIdentifier(block, i, "source")));
    dependency.sourceCount = static_cast<std::uint32_t>(sources.size()) - dependency.firstSource;
    dependency.name = modelStore_.common(textAt(object, 0));
    const bool isType = kind_ > Kind::axisPoints;
    (isType ? description_.typeDependencies : description_.dependencies).push_back(dependency);
}

}  // namespace lm::a2l
