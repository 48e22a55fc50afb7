#include "xcp/daq_plan.h"

#include <string>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

DaqCapabilities slave() {
    DaqCapabilities capabilities;
    capabilities.dynamicConfiguration = true;
    capabilities.maxEventChannel = 10;
    return capabilities;
}

DaqSignal signal(std::uint32_t address, std::uint32_t size, std::uint16_t event = 0,
                 std::uint8_t prescaler = 1) {
    return {{address, 0}, size, event, prescaler};
}

/// "event/prescaler: pid@offset[addr+size,...] ..." for each list.
std::string layout(const DaqPlan& plan) {
    std::string text;
    for (const DaqList& list : plan.lists) {
        text += std::to_string(list.eventChannel) + "/" + std::to_string(list.prescaler) + ":";
        for (const Odt& odt : list.odts) {
            text += " " + std::to_string(odt.pid) + "@" + std::to_string(odt.recordOffset) + "[";
            for (const OdtEntry& entry : odt.entries) {
                text += std::to_string(entry.address.address) + "+" + std::to_string(entry.size) + "@" +
                        std::to_string(entry.offset) + " ";
            }
            text += "]";
        }
        text += " =" + std::to_string(list.recordSize) + ";";
    }
    return text;
}

TEST(DaqPlan, PacksLargestFirstIntoTheFirstRoomAndTellsWhereSignalsLie) {
    const DaqSignal signals[] = {signal(1, 1, 2, 3), signal(2, 4, 2), signal(3, 2, 1, 0),
                                 signal(4, 4, 2),    signal(2, 4, 2), signal(2, 2, 2)};
    const auto plan = planDaq(signals, slave(), {.maxDto = 8});
    ASSERT_TRUE(plan);
    EXPECT_EQ(layout(plan.value()),
              "1/1: 0@0[3+2@0 ] =2;"
              "2/3: 1@0[2+4@0 2+2@4 1+1@6 ] 2@7[4+4@0 ] =11;");
    const std::pair<std::size_t, std::size_t> places[] = {{1, 6}, {1, 0}, {0, 0}, {1, 7}, {1, 0}, {1, 4}};
    for (std::size_t i = 0; i < std::size(places); ++i) {
        EXPECT_EQ(plan.value().signals[i].list, places[i].first) << i;
        EXPECT_EQ(plan.value().signals[i].offset, places[i].second) << i;
    }
}

TEST(DaqPlan, TimestampShortensTheFirstOdtAlone) {
    DaqCapabilities capabilities = slave();
    capabilities.identification = DaqIdentification::relativeByte;
    capabilities.timestampSize = 2;
    capabilities.timestampSupported = true;
    const DaqSignal signals[] = {signal(1, 6), signal(2, 4), signal(3, 6, 5), signal(4, 1, 5)};
    const auto plan = planDaq(signals, capabilities, {.maxDto = 8});
    ASSERT_TRUE(plan);
    EXPECT_EQ(layout(plan.value()),
              "0/1: 0@0[2+4@0 ] 1@4[1+6@0 ] =10;"
              "5/1: 0@0[4+1@0 ] 1@1[3+6@0 ] =7;");
    EXPECT_TRUE(plan.value().lists[0].timestamp);

    capabilities.timestampSupported = false;
    EXPECT_EQ(planDaq(signals, capabilities, {.maxDto = 8}).value().timestampSize, 0);
    capabilities.timestampFixed = true;
    EXPECT_EQ(planDaq(signals, capabilities, {.maxDto = 8, .useTimestamps = false}).value().timestampSize, 2);
}

TEST(DaqPlan, RefusesWhatDoesNotFit) {
    DaqCapabilities stamped = slave();
    stamped.identification = DaqIdentification::relativeByte;
    stamped.timestampSize = 2;
    stamped.timestampFixed = true;
    DaqCapabilities isStatic = slave();
    isStatic.dynamicConfiguration = false;
    DaqCapabilities coarse = slave();
    coarse.entryGranularity = 2;
    coarse.maxEntrySize = 4;
    DaqCapabilities listed = slave();
    listed.events = {{.number = 0}, {.number = 3}};

    const struct {
        DaqCapabilities capabilities;
        DaqPlanOptions options;
        DaqSignal signal;
        const char* message;
    } rows[] = {
        {isStatic, {}, signal(0, 1), "static DAQ configuration is not supported"},
        {stamped, {.maxDto = 4}, signal(0, 1), "MAX_DTO too small for identification field and timestamp"},
        {stamped, {.maxDto = 5}, signal(0, 1), ""},
        {stamped,
         {.maxDto = 8},
         signal(0, 5, 4),
         "first ODT of event 4 is empty (signals too large next to the timestamp)"},
        {slave(), {.maxDto = 8}, signal(0, 0), "signal of 0 bytes does not fit into an ODT entry (max 7)"},
        {slave(), {.maxDto = 8}, signal(0, 8), "signal of 8 bytes does not fit into an ODT entry (max 7)"},
        {slave(),
         {.maxDto = 999},
         signal(0, 256),
         "signal of 256 bytes does not fit into an ODT entry (max 998)"},
        {slave(), {.maxDto = 999, .addressGranularity = 4}, signal(0, 256), ""},
        {slave(),
         {.maxDto = 8, .addressGranularity = 2},
         signal(0, 3),
         "signal of 3 bytes does not fit into an ODT entry (max 7)"},
        {coarse, {}, signal(0, 3), "signal of 3 bytes does not fit into an ODT entry (max 4)"},
        {coarse, {}, signal(0, 6), "signal of 6 bytes does not fit into an ODT entry (max 4)"},
        {slave(), {}, signal(0, 1, 10), "event channel 10 does not exist"},
        {listed, {}, signal(0, 1, 1), "event channel 1 does not exist"},
        {listed, {}, signal(0, 1, 3), ""},
    };
    for (const auto& row : rows) {
        const auto plan = planDaq({&row.signal, 1}, row.capabilities, row.options);
        EXPECT_EQ(plan ? "" : plan.error().message, row.message);
    }
}

TEST(DaqPlan, KeepsWithinThePidsAndTheEntriesOfAnOdt) {
    const struct {
        DaqIdentification identification;
        bool overload;
        std::uint32_t odts;
        const char* message;
    } rows[] = {{DaqIdentification::absoluteOdt, false, 252, ""},
                {DaqIdentification::absoluteOdt, false, 253, "253 ODTs exceed the 252 available PIDs"},
                {DaqIdentification::absoluteOdt, true, 124, ""},
                {DaqIdentification::absoluteOdt, true, 125, "125 ODTs exceed the 124 available PIDs"},
                {DaqIdentification::relativeWord, false, 253, ""},
                {DaqIdentification::relativeByte, true, 250, "125 ODTs exceed the 124 available PIDs"}};
    for (const auto& row : rows) {
        DaqCapabilities capabilities = slave();
        capabilities.identification = row.identification;
        capabilities.overloadInPid = row.overload;
        std::vector<DaqSignal> signals;
        for (std::uint32_t i = 0; i < row.odts; ++i) {
            signals.push_back(signal(i * 4, 4, static_cast<std::uint16_t>(i % 2)));
        }
        const auto plan = planDaq(signals, capabilities, {.maxDto = 8});
        EXPECT_EQ(plan ? "" : plan.error().message, row.message);
    }
    std::vector<DaqSignal> bytes;
    for (std::uint32_t i = 0; i < 300; ++i) {
        bytes.push_back(signal(i, 1));
    }
    const auto plan = planDaq(bytes, slave(), {.maxDto = 1000});
    ASSERT_TRUE(plan);
    ASSERT_EQ(plan.value().lists[0].odts.size(), 2U);
    EXPECT_EQ(plan.value().lists[0].odts[0].entries.size(), 255U);
    EXPECT_EQ(plan.value().signals[299].offset, 299U);
}

}  // namespace
}  // namespace lm::xcp
