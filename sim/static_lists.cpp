#include "sim/static_lists.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::sim {
namespace {

constexpr std::size_t kMostLists = 255;
constexpr std::uint64_t kMostOdts = 252;
constexpr std::uint64_t kMostEntries = 255;
constexpr std::size_t kLastPid = 0xFB;
constexpr std::size_t kLastPidBelowTopBit = 0x7B;

Error fail(const char* option, const std::string& text, const std::string& reason) {
    return Error{ErrorCode::invalidArgument, fmt::format("{} '{}': {}", option, text, reason)};
}

std::optional<std::uint8_t> number(const std::string& text, std::uint64_t least, std::uint64_t most) {
    const Result<std::uint64_t> value = parseUnsigned(text, NumberBase::automatic, most);
    if (!value.ok() || value.value() < least) return std::nullopt;
    return static_cast<std::uint8_t>(value.value());
}

/// Takes "@EVENT" off the end of the text.
Result<std::optional<std::uint8_t>> takeEvent(const char* option, std::string& text) {
    const std::size_t at = text.find('@');
    if (at == std::string::npos) return std::optional<std::uint8_t>{};
    const std::optional<std::uint8_t> event = number(text.substr(at + 1), 0, kEventCount - 1);
    if (!event) return fail(option, text, fmt::format("an event from 0 to {} expected", kEventCount - 1));
    text.resize(at);
    return event;
}

Result<StaticList> configurable(const std::string& typed) {
    constexpr const char* kOption = "--static-lists";
    std::string text = typed;
    const Result<std::optional<std::uint8_t>> event = takeEvent(kOption, text);
    if (!event.ok()) return event.error();
    const std::size_t cross = std::min(text.find('x'), text.size());
    const std::optional<std::uint8_t> odts = number(text.substr(0, cross), 1, kMostOdts);
    const std::string behind = text.substr(std::min(cross + 1, text.size()));
    const std::optional<std::uint8_t> entries = number(behind, 1, kMostEntries);
    if (!odts || !entries) return fail(kOption, typed, "ODTSxENTRIES[@EVENT] expected, for instance 10x7@1");
    StaticList list;
    list.maxOdts = *odts;
    list.maxEntries = *entries;
    list.event = event.value();
    return list;
}

/// Fills ODTs one after the other, none of them more than a DTO holds.
Result<StaticList> predefined(const std::string& typed, const Options& options, const Catalog& catalog) {
    constexpr const char* kOption = "--predefined";
    std::string text = typed;
    const Result<std::optional<std::uint8_t>> event = takeEvent(kOption, text);
    if (!event.ok()) return event.error();
    StaticList list;
    list.event = event.value();
    std::size_t room = 0;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(',', at), text.size());
        const std::string name = text.substr(at, end - at);
        at = end + 1;
        const Row* row = catalog.find(name);
        if (row == nullptr || row->place == Place::nowhere || row->place == Place::outside) {
            return fail(kOption, typed, "the ECU has no '" + name + "' in memory");
        }
        const std::size_t stamp = list.predefined.empty() ? options.timestampSize : 0U;
        if (list.predefined.empty() || room < row->size() || list.predefined.back().size() == kMostEntries) {
            list.predefined.emplace_back();
            room = options.maxDto - options.identificationSize() - stamp;
        }
        if (row->size() > std::min(room, options.maxOdtEntrySize()) ||
            row->size() % options.granularity != 0) {
            return fail(kOption, typed, fmt::format("{} ({} byte) makes no ODT entry", name, row->size()));
        }
        room -= row->size();
        list.predefined.back().push_back(
            {row->address, row->extension, static_cast<std::uint8_t>(row->size())});
        list.maxEntries = std::max(list.maxEntries, static_cast<std::uint8_t>(list.predefined.back().size()));
    }
    if (list.predefined.size() > kMostOdts) return fail(kOption, typed, "too many signals for one list");
    list.maxOdts = static_cast<std::uint8_t>(list.predefined.size());
    return list;
}

Result<void> numberOdts(std::vector<StaticList>& lists, const std::vector<std::string>& typed,
                        const Options& options) {
    constexpr const char* kOption = "--list-first-pid";
    const std::string all = fmt::format("{}", fmt::join(typed, ","));
    if (options.identification != 0) {
        if (typed.empty()) return {};
        return fail(kOption, all, "PIDs are there with --identification 0 alone");
    }
    if (!typed.empty() && typed.size() != lists.size()) {
        return fail(kOption, all, fmt::format("{} numbers expected, one for each list", lists.size()));
    }
    const std::size_t last = options.overload == OverloadIndication::topBit ? kLastPidBelowTopBit : kLastPid;
    std::size_t next = options.firstPid;
    for (std::size_t i = 0; i < lists.size(); ++i) {
        const std::optional<std::uint8_t> own = typed.empty() ? std::nullopt : number(typed[i], 0, last);
        if (!typed.empty() && !own)
            return fail(kOption, typed[i], fmt::format("a PID from 0 to {} expected", last));
        if (own) next = *own;
        if (next + lists[i].maxOdts > last + 1) {
            return fail(typed.empty() ? "--static-lists" : kOption, all,
                        fmt::format("list {} needs PIDs {} to {}, and they end at {}", i, next,
                                    next + lists[i].maxOdts - 1, last));
        }
        lists[i].firstPid = static_cast<std::uint8_t>(next);
        next += lists[i].maxOdts;
    }
    return {};
}

}  // namespace

Result<std::vector<StaticList>> makeStaticLists(const StaticListTexts& texts, const Options& options,
                                                const Catalog& catalog) {
    std::vector<StaticList> lists;
    for (const std::string& text : texts.predefined) {
        Result<StaticList> list = predefined(text, options, catalog);
        if (!list.ok()) return list.error();
        lists.push_back(std::move(list).value());
    }
    for (const std::string& text : texts.lists) {
        Result<StaticList> list = configurable(text);
        if (!list.ok()) return list.error();
        lists.push_back(std::move(list).value());
    }
    if (lists.size() > kMostLists) {
        return fail("--static-lists", "-", fmt::format("at most {} lists", kMostLists));
    }
    const Result<void> numbered = numberOdts(lists, texts.firstPids, options);
    if (!numbered.ok()) return numbered.error();
    return lists;
}

}  // namespace lm::sim
