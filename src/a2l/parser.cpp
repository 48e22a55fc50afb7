#include "a2l/parser.h"

#include <array>
#include <cmath>
#include <string>
#include <utility>

#include "a2l/arguments.h"
#include "a2l/conversion_readers.h"
#include "a2l/if_data.h"

namespace lm::a2l {
namespace {

std::string_view textAt(const Block& block, std::size_t index) {
    return index < block.tokens().size() ? block.tokens()[index].text : std::string_view();
}

}  // namespace

Parser::Parser(std::size_t textSize)
    : textSize_(textSize),
      shared_(description_.store_->texts),
      modelStore_{description_.store_->texts, shared_, description_.store_->events} {}

Parser::Kind Parser::kindOf(std::string_view keyword) {
    static constexpr std::array<std::string_view, static_cast<std::size_t>(Kind::count)> kKeywords = {
        "MEASUREMENT",      "CHARACTERISTIC", "AXIS_PTS",   "COMPU_METHOD", "COMPU_TAB", "COMPU_VTAB",
        "COMPU_VTAB_RANGE", "RECORD_LAYOUT",  "MOD_COMMON", "MOD_PAR",      "IF_DATA"};
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
    if (kind_ != Kind::count) return Step::collect;
    // What a user would look for by its name; groups, functions and the like only put other objects in order.
    if (keyword == "INSTANCE" || keyword == "BLOB") leftOut_.add(keyword);
    return Step::skip;
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
    // The grammar of the interface data, which this program knows by itself.
    if (file.ends_with(".aml") || file.ends_with(".AML")) {
        description_.notes.push_back("/include '" + std::string(file) + "' (line " + std::to_string(line) +
                                     ") is not read, and not needed");
        return;
    }
    diagnostics_.skipped("/include", file, line, "included files are not read");
}

// The share of the text read so far tells how many records are to come; room for them in one piece spares
// moving them again and again. Memory that is never touched costs nothing.
void Parser::passed(std::size_t offset) {
    const auto reserve = [&](auto& records, Lines& lines) {
        const double share = static_cast<double>(textSize_) / static_cast<double>(offset);
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
        case Kind::modCommon:
            return readModCommon(block);
        case Kind::modPar:
            return readModPar(block);
        case Kind::ifData:
            if (isXcpInterfaceData(block)) readXcpInterface(block, d.xcp, diagnostics_);
            d.xcp.ccp = d.xcp.ccp || isCcpInterfaceData(block);
            return;
        case Kind::count:
            return;
    }
}

void Parser::readModCommon(const Block& block) {
    enum class Word : std::uint8_t { other, byteOrder };
    using Keyword = OptionalKeyword<Word>;
    static constexpr std::array kKeywords = {
        Keyword{"BYTE_ORDER", 1, Word::byteOrder},
        Keyword{"S_REC_LAYOUT", 1, Word::other},
        Keyword{"DEPOSIT", 1, Word::other},
    };
    forEachOptional<Word>(block, 0, kKeywords, [&](Word word, std::size_t value) {
        if (word != Word::byteOrder) return;
        const ByteOrder order = readByteOrder(block, value);
        if (!description_.byteOrder) description_.byteOrder = order;
    });
}

void Parser::readModPar(const Block& block) {
    const auto tokens = block.tokens();
    for (std::size_t i = 0; i < tokens.size(); ++i) {
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
    diagnostics_.odd(infiniteLimitLine_, firstInfiniteLimit_ + " (line " +
                                             std::to_string(infiniteLimitLine_) + ")" + more +
                                             ": a limit beyond the range of a 64-bit float counts as none");
}

void Parser::tellNamesInCommon() {
    const auto& measurements = description_.measurements;
    const auto& characteristics = description_.characteristics;
    std::size_t count = 0;
    std::size_t first = 0;
    const auto meet = [&](std::size_t characteristic) {
        if (count++ == 0) first = characteristic;
    };
    // The fewer names are looked up.
    if (characteristics.size() < measurements.size()) {
        for (std::size_t i = 0; i < characteristics.size(); ++i)
            if (description_.findMeasurement(characteristics[i].name) != nullptr) meet(i);
    } else {
        for (const Measurement& measurement : measurements) {
            const Characteristic* other = description_.findCharacteristic(measurement.name);
            if (other != nullptr) meet(static_cast<std::size_t>(other - characteristics.data()));
        }
    }
    if (count == 0) return;
    const std::uint32_t line = characteristicLines_[first];
    const std::string more = count == 1 ? "" : ", and " + std::to_string(count - 1) + " more name(s)";
    diagnostics_.odd(line, "'" + std::string(characteristics[first].name) +
                               "' names a MEASUREMENT and a CHARACTERISTIC (line " + std::to_string(line) +
                               ")" + more + ": the MEASUREMENT is used");
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
    tellInfiniteLimits();
    tellNamesInCommon();
    d.warnings = diagnostics_.take();
    if (std::string text = leftOut_.text(); !text.empty()) d.warnings.push_back(std::move(text));
    return std::move(d);
}

}  // namespace lm::a2l
