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

/// The lists as "event/prescaler: pid@offset[address+size@offset ...] ... =size;", then the signals' places.
std::string layout(const Result<DaqPlan>& plan) {
    if (!plan) return plan.error().message;
    std::string text;
    for (const DaqList& list : plan.value().lists) {
        text += fmt::format("{}/{}:", list.eventChannel, list.prescaler);
        for (const Odt& odt : list.odts) {
            text += fmt::format(" {}@{}[", odt.pid, odt.recordOffset);
            for (const OdtEntry& entry : odt.entries) {
                text += fmt::format("{}+{}@{} ", entry.address.address, entry.size, entry.offset);
            }
            text += "]";
        }
        text += fmt::format(" ={}{}; ", list.recordSize, list.timestamp ? " stamped" : "");
    }
    for (const SignalPlace& place : plan.value().signals) {
        text += fmt::format("{}@{} ", place.list, place.offset);
    }
    return text;
}

TEST(DaqPlan, PacksLargestFirstIntoTheFirstRoomAndTellsWhereSignalsLie) {
    const DaqSignal signals[] = {signal(1, 1, 2, 3), signal(2, 4, 2), signal(3, 2, 1, 0),
                                 signal(4, 4, 2),    signal(2, 4, 2), signal(2, 2, 2)};
    EXPECT_EQ(layout(planDaq(signals, slave(), {.maxDto = 8})),
              "1/1: 0@0[3+2@0 ] =2; "
              "2/3: 1@0[2+4@0 2+2@4 1+1@6 ] 2@7[4+4@0 ] =11; "
              "1@6 1@0 0@0 1@7 1@0 1@4 ");
    std::vector<DaqSignal> bytes;
    for (std::uint32_t i = 0; i < 300; ++i) {
        bytes.push_back(signal(i, 1));
    }
    const DaqPlan most = planDaq(bytes, slave(), {.maxDto = 1000}).value();
    ASSERT_EQ(most.lists[0].odts.size(), 2U);
    EXPECT_EQ(most.lists[0].odts[0].entries.size(), 255U);
    EXPECT_EQ(most.signals[299].offset, 299U);
}

TEST(DaqPlan, TimestampShortensTheFirstOdtAlone) {
    DaqCapabilities capabilities = slave();
    capabilities.identification = DaqIdentification::relativeByte;
    capabilities.timestampSize = 2;
    capabilities.timestampSupported = true;
    const DaqSignal signals[] = {signal(1, 6), signal(2, 4), signal(3, 6, 5), signal(4, 1, 5)};
    EXPECT_EQ(layout(planDaq(signals, capabilities, {.maxDto = 8})),
              "0/1: 0@0[2+4@0 ] 1@4[1+6@0 ] =10 stamped; "
              "5/1: 0@0[4+1@0 ] 1@1[3+6@0 ] =7 stamped; "
              "0@4 0@0 1@1 1@0 ");
    EXPECT_EQ(planDaq(signals, capabilities, {.useTimestamps = false}).value().timestampSize, 0);
    capabilities.timestampFixed = true;
    EXPECT_EQ(planDaq(signals, capabilities, {.useTimestamps = false}).value().timestampSize, 2);
}

TEST(DaqPlan, RefusesWhatDoesNotFit) {
    DaqCapabilities stamped = slave();
    stamped.identification = DaqIdentification::relativeByte;
    stamped.timestampSize = 2;
    stamped.timestampFixed = true;
    DaqCapabilities coarse = slave();
    coarse.entryGranularity = 2;
    coarse.maxEntrySize = 4;
    DaqCapabilities listed = slave();
    listed.events = {{.number = 0}, {.number = 3}};
    DaqCapabilities overload = slave();
    overload.overloadInPid = true;
    DaqCapabilities relative = slave();
    relative.identification = DaqIdentification::relativeWord;
    DaqCapabilities crowded = slave();
    crowded.identification = DaqIdentification::relativeByte;
    crowded.minDaq = 254;
    DaqCapabilities overfull = crowded;
    overfull.minDaq = 255;
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
}

}  // namespace
}  // namespace lm::xcp
