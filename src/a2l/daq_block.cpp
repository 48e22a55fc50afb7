#include "a2l/daq_block.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "a2l/arguments.h"
#include "a2l/block_parts.h"

namespace lm::a2l {
namespace {

/// The value of the word behind a prefix: IDENTIFICATION_FIELD_TYPE_ + RELATIVE_BYTE.
struct Choice {
    std::string_view prefix;
    std::string_view word;
    std::uint8_t XcpDaq::*field;
    std::uint8_t value;
};

constexpr std::string_view kOptimisation = "OPTIMISATION_TYPE_";
constexpr std::string_view kExtension = "ADDRESS_EXTENSION_";
constexpr std::string_view kIdentification = "IDENTIFICATION_FIELD_TYPE_";
constexpr std::string_view kGranularity = "GRANULARITY_ODT_ENTRY_SIZE_DAQ_";

constexpr std::array kChoices = {
    Choice{kOptimisation, "DEFAULT", &XcpDaq::optimisation, 0},
    Choice{kOptimisation, "ODT_TYPE_16", &XcpDaq::optimisation, 1},
    Choice{kOptimisation, "ODT_TYPE_32", &XcpDaq::optimisation, 2},
    Choice{kOptimisation, "ODT_TYPE_64", &XcpDaq::optimisation, 3},
    Choice{kOptimisation, "ODT_TYPE_ALIGNMENT", &XcpDaq::optimisation, 4},
    Choice{kOptimisation, "MAX_ENTRY_SIZE", &XcpDaq::optimisation, 5},
    Choice{kExtension, "FREE", &XcpDaq::addressExtension, 0},
    Choice{kExtension, "ODT", &XcpDaq::addressExtension, 1},
    Choice{kExtension, "DAQ", &XcpDaq::addressExtension, 3},
    Choice{kIdentification, "ABSOLUTE", &XcpDaq::identification, 0},
    Choice{kIdentification, "RELATIVE_BYTE", &XcpDaq::identification, 1},
    Choice{kIdentification, "RELATIVE_WORD", &XcpDaq::identification, 2},
    Choice{kIdentification, "RELATIVE_WORD_ALIGNED", &XcpDaq::identification, 3},
    Choice{kGranularity, "BYTE", &XcpDaq::granularity, 1},
    Choice{kGranularity, "WORD", &XcpDaq::granularity, 2},
    Choice{kGranularity, "DWORD", &XcpDaq::granularity, 4},
    Choice{kGranularity, "DLONG", &XcpDaq::granularity, 8},
};

constexpr std::array<std::string_view, 13> kUnits = {
    "UNIT_1NS",  "UNIT_10NS",  "UNIT_100NS", "UNIT_1US", "UNIT_10US", "UNIT_100US", "UNIT_1MS",
    "UNIT_10MS", "UNIT_100MS", "UNIT_1S",    "UNIT_1PS", "UNIT_10PS", "UNIT_100PS"};

constexpr std::array<std::string_view, 4> kSizes = {"SIZE_BYTE", "SIZE_WORD", "", "SIZE_DWORD"};

/// What is odd in a block's first part: told once, however much of it is missing.
class Oddity {
  public:
    void add(std::string what) {
        if (first_.empty()) first_ = std::move(what);
    }
    /// A number that may be missing or wrong: 0 then.
    template <std::unsigned_integral T>
    T count(const Block& block, std::size_t index, std::string_view label) {
        try {
            return readCount<T>(block, index, label);
        } catch (const BlockError& error) {
            add(error.what());
            return 0;
        }
    }
    void tell(const Block& block, Diagnostics& diagnostics) const {
        if (!first_.empty()) tellOdd(block, first_, diagnostics);
    }

  private:
    std::string first_;
};

/// Whether the word chooses one of the values that stand by their names.
bool choose(XcpDaq& daq, std::string_view word, Oddity& oddity) {
    bool known = false;
    for (const Choice& choice : kChoices) {
        if (!word.starts_with(choice.prefix)) continue;
        known = true;
        if (word.substr(choice.prefix.size()) != choice.word) continue;
        daq.*choice.field = choice.value;
        daq.knowsIdentification = daq.knowsIdentification || choice.prefix == kIdentification;
        return true;
    }
    if (known) oddity.add("unknown word '" + std::string(word) + "'");
    return known;
}

/// Mode, three numbers, words, one number. Some files leave words out.
void readPositions(XcpDaq& daq, const Block& block, Diagnostics& diagnostics) {
    Oddity oddity;
    daq.dynamic = readIdentifier(block, 0, "mode") == "DYNAMIC";
    daq.maxDaq = oddity.count<std::uint16_t>(block, 1, "MAX_DAQ");
    daq.maxEventChannel = oddity.count<std::uint16_t>(block, 2, "MAX_EVENT_CHANNEL");
    daq.minDaq = oddity.count<std::uint8_t>(block, 3, "MIN_DAQ");
    std::size_t next = 4;
    const auto tokens = block.tokens();
    while (next < tokens.size() && choose(daq, tokens[next].text, oddity))
        ++next;
    daq.maxEntrySize = oddity.count<std::uint8_t>(block, next, "MAX_ODT_ENTRY_SIZE_DAQ");
    if (!daq.knowsIdentification) oddity.add("missing IDENTIFICATION_FIELD_TYPE");
    oddity.tell(block, diagnostics);
}

void readFlags(XcpDaq& daq, const Block& block) {
    enum class Word : std::uint8_t { pid, event, prescaler, resume, pidOff };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"OVERLOAD_INDICATION_PID", 0, Word::pid},
        OptionalKeyword<Word>{"OVERLOAD_INDICATION_EVENT", 0, Word::event},
        OptionalKeyword<Word>{"PRESCALER_SUPPORTED", 0, Word::prescaler},
        OptionalKeyword<Word>{"RESUME_SUPPORTED", 0, Word::resume},
        OptionalKeyword<Word>{"PID_OFF_SUPPORTED", 0, Word::pidOff},
    };
    forEachOptional<Word>(block, 1, kKeywords, [&daq](Word word, std::size_t) {
        if (word == Word::pid) daq.overloadInPid = true;
        if (word == Word::event) daq.overloadEvent = true;
        if (word == Word::prescaler) daq.prescaler = true;
        if (word == Word::resume) daq.resume = true;
        if (word == Word::pidOff) daq.pidOff = true;
    });
}

XcpTimestamp readTimestamp(const Block& block, Diagnostics& diagnostics) {
    Oddity oddity;
    XcpTimestamp timestamp;
    timestamp.ticks = oddity.count<std::uint16_t>(block, 0, "ticks");
    bool hasUnit = false;
    for (const Token& token : block.tokens()) {
        for (std::size_t i = 0; i < kSizes.size(); ++i) {
            if (token.is(kSizes[i])) timestamp.size = static_cast<std::uint8_t>(i + 1);
        }
        for (std::size_t i = 0; i < kUnits.size(); ++i) {
            if (!token.is(kUnits[i])) continue;
            timestamp.unit = static_cast<std::uint8_t>(i);
            hasUnit = true;
        }
        if (token.is("TIMESTAMP_FIXED")) timestamp.fixed = true;
    }
    if (timestamp.size != 0 && !hasUnit) {
        oddity.add("missing unit");
        timestamp.ticks = 0;
    }
    oddity.tell(block, diagnostics);
    return timestamp;
}

XcpEvent readEvent(const Block& block, Diagnostics&) {
    XcpEvent event;
    event.name = withPlainQuotes(readString(block, 0, "name"));
    event.shortName = withPlainQuotes(readString(block, 1, "short name"));
    event.channel = readCount<std::uint16_t>(block, 2, "channel");
    event.direction = readIdentifier(block, 3, "direction");
    event.maxDaqList = readCount<std::uint8_t>(block, 4, "max DAQ list");
    event.timeCycle = readCount<std::uint8_t>(block, 5, "time cycle");
    event.timeUnit = readCount<std::uint8_t>(block, 6, "time unit");
    event.priority = readCount<std::uint8_t>(block, 7, "priority");
    enum class Word : std::uint8_t { consistency };
    static constexpr std::array kKeywords = {OptionalKeyword<Word>{"CONSISTENCY", 1, Word::consistency}};
    forEachOptional<Word>(block, 8, kKeywords, [&](Word, std::size_t value) {
        event.consistency = readIdentifier(block, value, "CONSISTENCY");
    });
    return event;
}

XcpOdt readOdt(const Block& block, Diagnostics&) {
    XcpOdt odt;
    odt.number = readCount<std::uint8_t>(block, 0, "ODT number");
    enum class Word : std::uint8_t { entry };
    static constexpr std::array kKeywords = {OptionalKeyword<Word>{"ODT_ENTRY", 5, Word::entry}};
    forEachOptional<Word>(block, 1, kKeywords, [&](Word, std::size_t at) {
        XcpOdtEntry entry;
        entry.number = readCount<std::uint8_t>(block, at, "ODT_ENTRY number");
        entry.address.address = readCount<std::uint32_t>(block, at + 1, "ODT_ENTRY address");
        entry.address.extension = readCount<std::uint8_t>(block, at + 2, "ODT_ENTRY address extension");
        entry.size = readCount<std::uint8_t>(block, at + 3, "ODT_ENTRY size");
        entry.bitOffset = readCount<std::uint8_t>(block, at + 4, "ODT_ENTRY bit offset");
        odt.entries.push_back(entry);
    });
    return odt;
}

void readPredefined(XcpDaqList& list, const Block& block, Diagnostics& diagnostics) {
    list.predefined = true;
    for (const Block& child : block.children()) {
        if (child.keyword != "ODT") continue;
        if (auto odt = readPart(child, readOdt, diagnostics)) list.odts.push_back(std::move(*odt));
    }
}

XcpDaqList readList(const Block& block, Diagnostics& diagnostics) {
    enum class Word : std::uint8_t { type, maxOdt, maxEntries, firstPid, event };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"DAQ_LIST_TYPE", 1, Word::type},
        OptionalKeyword<Word>{"MAX_ODT", 1, Word::maxOdt},
        OptionalKeyword<Word>{"MAX_ODT_ENTRIES", 1, Word::maxEntries},
        OptionalKeyword<Word>{"FIRST_PID", 1, Word::firstPid},
        OptionalKeyword<Word>{"EVENT_FIXED", 1, Word::event},
    };
    XcpDaqList list;
    list.number = readCount<std::uint16_t>(block, 0, "list number");
    forEachOptional<Word>(block, 1, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::type) list.direction = readIdentifier(block, value, "DAQ_LIST_TYPE");
        if (word == Word::maxOdt) list.maxOdt = readCount<std::uint8_t>(block, value, "MAX_ODT");
        if (word == Word::maxEntries)
            list.maxEntries = readCount<std::uint8_t>(block, value, "MAX_ODT_ENTRIES");
        if (word == Word::firstPid) list.firstPid = readCount<std::uint8_t>(block, value, "FIRST_PID");
        if (word == Word::event) list.fixedEvent = readCount<std::uint16_t>(block, value, "EVENT_FIXED");
    });
    if (const Block* predefined = block.child("PREDEFINED")) readPredefined(list, *predefined, diagnostics);
    return list;
}

/// Of two lists of one number the first counts.
void addList(XcpDaq& daq, const Block& block, Diagnostics& diagnostics) {
    auto list = readPart(block, readList, diagnostics);
    if (!list) return;
    const auto place =
        std::lower_bound(daq.lists.begin(), daq.lists.end(), list->number,
                         [](const XcpDaqList& known, std::uint16_t number) { return known.number < number; });
    if (place != daq.lists.end() && place->number == list->number) {
        tellOdd(block, "DAQ list " + std::to_string(list->number) + " stands twice, the first counts",
                diagnostics);
        return;
    }
    daq.lists.insert(place, std::move(*list));
}

}  // namespace

XcpDaq readDaq(const Block& block, Diagnostics& diagnostics) {
    XcpDaq daq;
    readPositions(daq, block, diagnostics);
    readFlags(daq, block);
    for (const Block& child : block.children()) {
        if (child.keyword == "TIMESTAMP_SUPPORTED")
            readFirst(daq.timestamp, child, readTimestamp, diagnostics);
        if (child.keyword == "DAQ_LIST") addList(daq, child, diagnostics);
        if (child.keyword != "EVENT") continue;
        if (auto event = readPart(child, readEvent, diagnostics)) daq.events.push_back(std::move(*event));
    }
    // NO_TIME_STAMP, or a word that no one knows: DTOs carry none.
    if (daq.timestamp && daq.timestamp->size == 0) daq.timestamp.reset();
    return daq;
}

}  // namespace lm::a2l
