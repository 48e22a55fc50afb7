#include "session/measurement_plan.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

constexpr const char* kA2l = R"(/begin PROJECT p "" /begin MODULE engine ""
  /begin MEASUREMENT speed "engine speed" UWORD NO_COMPU_METHOD 0 0 0 65535 ECU_ADDRESS 0x100
    /begin IF_DATA XCP /begin DAQ_EVENT FIXED_EVENT_LIST EVENT 1 /end DAQ_EVENT /end IF_DATA /end MEASUREMENT
  /begin MEASUREMENT turned "" UWORD NO_COMPU_METHOD 0 0 0 100 ECU_ADDRESS 0x300 BIT_MASK 0xF0
    /begin BIT_OPERATION RIGHT_SHIFT 4 SIGN_EXTEND /end BIT_OPERATION /end MEASUREMENT
  /begin MEASUREMENT load "" ULONG NO_COMPU_METHOD 0 0 0 100 ECU_ADDRESS 0x200 /end MEASUREMENT
/end MODULE /end PROJECT)";

class MeasurementPlanTest : public ::testing::Test {
  protected:
    MeasurementPlanTest() {
        capabilities_.dynamicConfiguration = true;
        capabilities_.identification = xcp::DaqIdentification::relativeByte;
        capabilities_.maxEntrySize = 8;
        capabilities_.maxEventChannel = 3;
        capabilities_.timestampSupported = true;
        capabilities_.timestampSize = 2;
        capabilities_.tickNs = 1000;
        capabilities_.events = {{0, 0, 1, "1 ms", 1'000'000}, {1, 0, 1, "10 ms", 10'000'000}, {2, 0, 1, ""}};
        connection_.maxCto = 8;
        connection_.maxDto = 8;
    }

    Result<MeasurementPlan> plan(const std::vector<std::string>& signalTexts) const {
        return planMeasurement(description_, signalTexts, daq_, capabilities_, connection_);
    }
    MeasurementPlan planned() const {
        return std::move(plan({"load@1", "speed", "speed@1", "speed@1"})).value();
    }

    a2l::Description description_ = std::move(a2l::parseDescription(kA2l)).value();
    SessionConfig::Daq daq_;
    xcp::DaqCapabilities capabilities_;
    xcp::ConnectInfo connection_;
};

TEST_F(MeasurementPlanTest, SignalsFollowTheirEventsAndKeepTheOrderAskedFor) {
    const MeasurementPlan result = planned();
    ASSERT_EQ(result.planned.size(), 4U);
    EXPECT_EQ(result.planned[0].element.name, "load");
    EXPECT_EQ(result.planned[0].listIndex, 1U);
    EXPECT_EQ(result.planned[1].event, 0) << "the default event";
    EXPECT_EQ(result.planned[1].listIndex, 0U);
    EXPECT_EQ(result.planned[2].recordOffset, result.planned[3].recordOffset) << "asked for twice, sent once";
    EXPECT_EQ(result.daq.lists[1].recordSize, 6U);
    EXPECT_EQ(shortestPeriodNs(result.daq, capabilities_), 1'000'000U);
    const MeasurementPlan unnamed = std::move(plan({"speed@2"})).value();
    EXPECT_EQ(shortestPeriodNs(unnamed.daq, capabilities_), 0U);
    EXPECT_EQ(recordingInfo(unnamed, capabilities_).groups[0].name, "event 2");
    EXPECT_EQ(recordingInfo(result, capabilities_).groups[1].signals.size(), 2U) << "recorded once as well";
    EXPECT_EQ(foreignEventWarning(std::move(plan({"load@2", "speed@1"})).value()), "");
    EXPECT_TRUE(requireRecordable(result).ok());
    EXPECT_EQ(requireRecordable(plan({"speed", "turned"}).value()).error().text(),
              "turned: a recording cannot say what its BIT_OPERATION does, measure it without recording");
    EXPECT_EQ(foreignEventWarning(std::move(plan({"speed", "speed@2"})).value()),
              "event 0 is not among those that the A2L names for 'speed' (nor for 1 more signal(s))");
}

TEST_F(MeasurementPlanTest, AnEcuThatCameBackDifferentIsRefused) {
    const MeasurementPlan result = planned();
    EXPECT_TRUE(checkPlanFits(result.daq, capabilities_, connection_).ok());

    using Change = void (*)(xcp::DaqCapabilities&, xcp::ConnectInfo&);
    const std::pair<Change, const char*> rows[] = {
        {[](auto& c, auto&) { c.dynamicConfiguration = false; }, "DAQ configuration type"},
        {[](auto& c, auto&) { c.identification = xcp::DaqIdentification::relativeWord; },
         "identification field type"},
        {[](auto& c, auto&) { c.overloadInPid = true; }, "overload indication"},
        {[](auto& c, auto&) { c.minDaq = 1; }, "number of predefined DAQ lists"},
        {[](auto& c, auto&) { c.timestampSize = 4; }, "timestamp size"},
        {[](auto& c, auto&) { c.events.resize(1); }, "set of event channels"},
        {[](auto& c, auto&) { c.entryGranularity = 4; }, "ODT entry granularity"},
        {[](auto& c, auto&) { c.maxEntrySize = 2; }, "maximum ODT entry size"},
        {[](auto&, auto& i) { i.commModeBasic = 0x04; }, "address granularity"},
        {[](auto&, auto& i) { i.maxDto = 7; }, "MAX_DTO"},
    };
    for (const auto& row : rows) {
        auto capabilities = capabilities_;
        auto connection = connection_;
        row.first(capabilities, connection);
        EXPECT_EQ(checkPlanFits(result.daq, capabilities, connection).error().text(),
                  std::string("the ECU came back with another ") + row.second);
    }
    capabilities_.maxEntrySize = 100;
    capabilities_.tickNs = 5;
    connection_.maxDto = 64;
    EXPECT_TRUE(checkPlanFits(result.daq, capabilities_, connection_).ok()) << "more room does no harm";
}

}  // namespace
}  // namespace lm::session
