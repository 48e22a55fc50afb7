#include "a2l/parser.h"

#include <array>
#include <cmath>
#include <string>
#include <utility>

#include "a2l/arguments.h"
#include "a2l/conversion_readers.h"
#include "a2l/if_data.h"
#include "a2l/layout_readers.h"
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

}  // namespace

Parser::Parser(const SourceLines* lines)
    : shared_(description_.store_->texts),
      modelStore_{description_.store_->texts,  shared_,
                  description_.store_->events, description_.store_->dimensions,
                  description_.store_->maps,   description_.store_->overwrites},
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
        "MOD_COMMON",
        "MOD_PAR",
        "IF_DATA"};
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
        if (keyword != "MODULE" || std::exchange(hasModule_, true)) return Step::skip;
        return Step::descend;
    }
    kind_ = kindOf(keyword);
    return kind_ == Kind::count ? Step::skip : Step::collect;
}

void Parser::collected(const Block& block) {
    try {
        read(block);
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
        case Kind::modCommon:
            return readModCommon(block);
        case Kind::modPar:
            return readModPar(block);
        case Kind::ifData:
            if (isXcpInterfaceData(block)) readXcpInterface(block, d.xcp, diagnostics_);
            return;
        case Kind::count:
            return;
    }
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

void Parser::tellInstancesWithoutType() {
    const auto& instances = description_.instances;
    for (std::size_t i = 0; i < instances.size(); ++i) {
        if (!std::holds_alternative<std::monostate>(findType(description_, instances[i].typeName))) continue;
        diagnostics_.skipped("INSTANCE", instances[i].name, instanceLines_[i],
                             "type '" + std::string(instances[i].typeName) + "' not found");
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
    linkStructures(d, structureTypeLines_, diagnostics_);
    tellInfiniteLimits();
    tellNamesInCommon();
    tellInstancesWithoutType();
    d.warnings = diagnostics_.take();
    return std::move(d);
}

}  // namespace lm::a2l
