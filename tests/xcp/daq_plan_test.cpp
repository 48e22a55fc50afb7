#include "xcp/daq_plan.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/fmt/fmt.h>

namespace lm::xcp {
namespace {

DaqCapabilities slave() {
    return {.dynamicConfiguration = true, .maxEventChannel = 10};
}

DaqSignal signal(std::uint32_t address, std::uint32_t size, std::uint16_t event = 0,
                 std::uint8_t prescaler = 1) {
    return {{address, 0}, size, event, prescaler};
}

TEST(DaqPlan, PacksLargestFirstIntoTheFirstRoom) {
    const DaqSignal signals[] = {signal(1, 1, 2, 3), signal(2, 4, 2), signal(3, 2, 1, 0),
                                 signal(4, 4, 2),    signal(2, 4, 2), signal(2, 2, 2)};
    const DaqPlan plan = planDaq(signals, slave(), {.maxDto = 8}).value();
    std::string places;
    for (const SignalPlace& place : plan.signals)
        places += fmt::format("{}@{} ", place.list, place.offset);
    EXPECT_EQ(places, "1@6 1@0 0@0 1@7 1@0 1@4 ");
    EXPECT_EQ(plan.lists[0].prescaler * 10 + plan.lists[1].prescaler, 13);
    EXPECT_EQ(plan.lists[1].odts[1].pid, 2) << "counted over the lists";
    std::vector<DaqSignal> bytes(300, signal(0, 1));
    for (std::uint32_t i = 0; i < bytes.size(); ++i)
        bytes[i].address.address = i;
    EXPECT_EQ(planDaq(bytes, slave(), {.maxDto = 1000}).value().lists[0].odts[0].entries.size(), 255U);
}

TEST(DaqPlan, RefusesWhatDoesNotFit) {
    using enum DaqIdentification;
    const auto with = [](auto change) {
        DaqCapabilities changed = slave();
        change(changed);
        return changed;
    };
    const auto stamped = with([](auto& c) {
        c.identification = relativeByte;
        c.timestampSize = 2;
        c.timestampFixed = true;
    });
    const auto coarse = with([](auto& c) { c.entryGranularity = 2, c.maxEntrySize = 4; });
    const auto listed = with([](auto& c) { c.events = {{.number = 0}, {.number = 3}}; });
    const auto overload = with([](auto& c) { c.overloadInPid = true; });
    const auto relative = with([](auto& c) { c.identification = relativeWord; });
    const auto crowded = with([](auto& c) { c.identification = relativeByte, c.minDaq = 254; });
    const auto overfull = with([](auto& c) { c.identification = relativeByte, c.minDaq = 255; });
    const struct {
        DaqCapabilities capabilities;
        std::uint16_t maxDto;
        std::uint8_t granularity;
        DaqSignal signal;
        const char* message;
        std::uint32_t count = 1;  ///< of such signals, by turns at its event channel and the next
    } rows[] = {
        {{.maxEventChannel = 1},
         8,
         1,
         signal(0, 1),
         "the ECU has static DAQ lists and tells nothing about them"},
        {stamped, 4, 1, signal(0, 1), "MAX_DTO too small for identification field and timestamp"},
        {stamped, 5, 1, signal(0, 1), ""},
        {stamped, 8, 1, signal(0, 5, 4),
         "first ODT of event 4 is empty (signals too large next to the timestamp)"},
        {slave(), 8, 1, signal(0, 0), "signal of 0 bytes does not fit into an ODT entry (max 7)"},
        {slave(), 8, 1, signal(0, 8), "signal of 8 bytes does not fit into an ODT entry (max 7)"},
        {slave(), 999, 1, signal(0, 256), "signal of 256 bytes does not fit into an ODT entry (max 998)"},
        {slave(), 999, 4, signal(0, 256), ""},
        {slave(), 8, 2, signal(0, 3), "signal of 3 bytes does not fit into an ODT entry (max 7)"},
        {coarse, 8, 1, signal(0, 3), "signal of 3 bytes does not fit into an ODT entry (max 4)"},
        {coarse, 8, 1, signal(0, 6), "signal of 6 bytes does not fit into an ODT entry (max 4)"},
        {slave(), 8, 1, signal(0, 1, 10), "event channel 10 does not exist"},
        {listed, 8, 1, signal(0, 1, 1), "event channel 1 does not exist"},
        {listed, 8, 1, signal(0, 1, 3), ""},
        {slave(), 8, 1, signal(0, 4), "", 252},
        {slave(), 8, 1, signal(0, 4), "253 ODTs exceed the 252 available PIDs", 253},
        {overload, 8, 1, signal(0, 4), "", 124},
        {overload, 8, 1, signal(0, 4), "125 ODTs exceed the 124 available PIDs", 125},
        {relative, 8, 1, signal(0, 4), "", 504},
        {relative, 8, 1, signal(0, 4), "253 ODTs exceed the 252 available PIDs", 505},
        {crowded, 8, 1, signal(0, 4), "", 2},
        {overfull, 8, 1, signal(0, 4),
         "DAQ list 256 exceeds 255, the largest number in the identification field", 2},
    };
    for (const auto& row : rows) {
        std::vector<DaqSignal> signals(row.count, row.signal);
        for (std::uint32_t i = 0; i < row.count; ++i) {
            signals[i].address.address = i;
            signals[i].eventChannel = static_cast<std::uint16_t>(row.signal.eventChannel + i % 2);
        }
        const auto plan =
            planDaq(signals, row.capabilities, {.maxDto = row.maxDto, .addressGranularity = row.granularity});
        EXPECT_EQ(plan ? "" : plan.error().message, row.message);
    }
    const DaqSignal one[] = {signal(0, 1)};
    EXPECT_EQ(planDaq(one, stamped, {.useTimestamps = false}).value().timestampSize, 2);
}

DaqListInfo writable(std::uint16_t number, std::uint8_t odts, std::uint8_t entries,
                     std::optional<std::uint16_t> event = {}) {
    return {.number = number, .maxOdt = odts, .maxEntries = entries, .fixedEvent = event};
}

DaqListInfo predefined(std::uint16_t number, std::optional<std::uint16_t> event, std::vector<Odt> odts) {
    return {.number = number, .predefined = true, .maxOdt = 9, .fixedEvent = event, .odts = std::move(odts)};
}

std::vector<DaqSignal> bytesAt(std::uint16_t event, std::size_t count, std::uint32_t size = 1) {
    std::vector<DaqSignal> signals;
    for (std::uint32_t i = 0; i < count; ++i)
        signals.push_back(signal(event * 0x1000U + i * size, size, event));
    return signals;
}

/// "EVENT:LIST/PID+bytes of each ODT ..." of each list.
std::string text(const Result<DaqPlan>& planned) {
    if (!planned) return planned.error().message;
    std::string text;
    for (const DaqList& list : planned.value().lists) {
        text += fmt::format("{}{}:{}/{}", text.empty() ? "" : " ", list.eventChannel, list.number,
                            list.odts.front().pid);
        for (const Odt& odt : list.odts)
            text += fmt::format("+{}", odt.payloadSize);
    }
    return text;
}

TEST(DaqPlan, ChoosesStaticListsThatFit) {
    const auto join = [](std::vector<DaqSignal> first, const std::vector<DaqSignal>& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    };
    const Odt temps{.entries = {{{0x1000, 0}, 1, 0, true}, {{0x1000, 0}, 1, 0}, {{0x2000, 0}, 4, 0}}};
    DaqListInfo taker = writable(2, 9, 9);
    taker.offersDaq = false;
    DaqListInfo told = writable(5, 2, 7);
    told.firstPid = 0x40;
    const auto three = std::vector{writable(0, 1, 7), writable(1, 4, 7), writable(2, 2, 7)};
    const struct {
        const char* what;
        std::vector<DaqListInfo> lists;
        std::vector<DaqSignal> signals;
        const char* expected;
    } rows[] = {
        {"the smallest that holds it", three, join(bytesAt(1, 3), bytesAt(2, 12)), "1:0/0+3 2:2/5+7+5"},
        {"an event's own lists first", {writable(0, 1, 7), writable(1, 9, 7, 1)}, bytesAt(1, 3), "1:1/1+3"},
        {"not another event's", {writable(0, 1, 7, 2), writable(1, 1, 7), taker}, bytesAt(1, 3), "1:1/1+3"},
        {"several for one event", three, bytesAt(1, 45), "1:0/0+7 1:1/1+7+7+7+3 1:2/5+7+7"},
        {"few are enough: the pair leaves the large one to the other",
         {writable(0, 1, 7), writable(1, 1, 7), writable(2, 3, 7)},
         join(bytesAt(1, 21), bytesAt(2, 14)),
         "1:2/2+7+7+7 2:0/0+7 2:1/1+7"},
        {"the only one for an event is kept for it",
         {writable(0, 2, 7), writable(1, 2, 7, 1)},
         join(bytesAt(1, 10), bytesAt(2, 10)),
         "1:1/2+7+3 2:0/0+7+3"},
        {"entries count, too", {writable(0, 1, 2), writable(1, 2, 2)}, bytesAt(1, 4), "1:1/1+2+2"},
        {"the first PID that is told", {writable(1, 3, 7), told}, bytesAt(1, 9), "1:5/64+7+2"},
        {"predefined where nothing else can",
         {predefined(0, {}, {temps})},
         {signal(0x1000, 1, 1), signal(0x2002, 2, 1)},
         "1:0/0+6"},
        {"not where a writable one can",
         {predefined(0, {}, {temps}), writable(1, 1, 7)},
         {signal(0x1000, 1, 1)},
         "1:1/9+1"},
        {"both, when one is too small",
         {predefined(0, 1, {temps}), writable(1, 1, 7)},
         join({signal(0x2000, 4, 1)}, bytesAt(1, 8)),
         "1:0/0+6 1:1/9+7"},
        {"not of another event",
         {predefined(0, 2, {temps})},
         {signal(0x1000, 1, 1)},
         "no DAQ list of the ECU can be given event 1"},
        {"nor of another place",
         {predefined(0, {}, {temps})},
         {signal(0x1001, 1, 1)},
         "no DAQ list that can be given event 1 carries 1 byte(s) at 0x00001001"},
        {"what fits is told",
         {writable(0, 1, 7, 1), writable(1, 1, 7), writable(2, 1, 7), predefined(3, 2, {temps})},
         join(bytesAt(1, 30), bytesAt(2, 3)),
         "24 of 33 signal(s) fit into the ECU's static DAQ lists (event 1: 21 of 30): "
         "list 0 (1 ODT(s) x 7 entries, event 1), lists 1 to 2 (1 ODT(s) x 7 entries, any event), "
         "list 3 (predefined, event 2); 7 byte(s) an ODT"},
    };
    for (const auto& row : rows) {
        const DaqCapabilities capabilities{.maxEventChannel = 9, .lists = row.lists};
        EXPECT_EQ(text(planDaq(row.signals, capabilities, {.maxDto = 8})), row.expected) << row.what;
    }
}

TEST(DaqPlan, KeepsTheFirstOdtOfAStaticListForTheTimestamp) {
    DaqCapabilities capabilities{.maxEventChannel = 9, .timestampSize = 4, .timestampFixed = true};
    capabilities.lists = {writable(0, 2, 7), writable(1, 3, 7)};
    auto signals = bytesAt(1, 4, 4);
    EXPECT_EQ(text(planDaq(signals, capabilities, {.maxDto = 8})),
              "first ODT of event 1 is empty (signals too large next to the timestamp)");
    signals.push_back(signal(0x100, 1, 1));
    EXPECT_EQ(text(planDaq(signals, capabilities, {.maxDto = 8})).substr(0, 16), "3 of 5 signal(s)");
    signals.erase(signals.begin());
    signals.push_back(signal(0x200, 2, 1));
    const auto planned = planDaq(signals, capabilities, {.maxDto = 8});
    EXPECT_EQ(text(planned), "1:0/0+1+4 1:1/2+2+4+4") << "each gets one of the small ones";
    EXPECT_EQ(planned.value().signals[3].offset, 0U);
}

TEST(DaqPlan, EndsWhereNoWayIsFoundSoon) {
    DaqCapabilities capabilities{.maxEventChannel = 40};
    std::vector<DaqSignal> signals;
    for (std::uint16_t i = 0; i < 30; ++i) {
        capabilities.lists.push_back(writable(i, static_cast<std::uint8_t>(1 + i % 7), 5));
        const auto more = bytesAt(i, 23, 1);
        signals.insert(signals.end(), more.begin(), more.end());
    }
    EXPECT_FALSE(planDaq(signals, capabilities, {.maxDto = 8}).ok());
}

}  // namespace
}  // namespace lm::xcp
