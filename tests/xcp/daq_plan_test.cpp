#include "xcp/daq_plan.h"

#include <string>

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
        {{}, 8, 1, signal(0, 1), "static DAQ configuration is not supported"},
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

}  // namespace
}  // namespace lm::xcp
