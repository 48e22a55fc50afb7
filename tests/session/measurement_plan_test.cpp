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
  /begin RECORD_LAYOUT byte FNC_VALUES 1 UBYTE ROW_DIR DIRECT /end RECORD_LAYOUT
  /begin CHARACTERISTIC p "" VALUE 0x400 byte 0 NO_COMPU_METHOD 0 255 /end CHARACTERISTIC
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
        return planMeasurement({description_, capabilities_}, signalTexts, daq_, connection_);
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
              "event 0 is not among those that the A2L names for 'speed' (nor for 1 more signal(s)), "
              "--event auto measures names without @EVENT in one of their own");
}

// Names and events of what is chosen, then the warnings; or the error.
TEST_F(MeasurementPlanTest, SignalsAreChosenByPatternAndEventName) {
    capabilities_.events.push_back({3, 0, 1, "1"});
    capabilities_.events.push_back({4, 0, 1, std::string("twin\0", 5)});
    const std::vector<xcp::EventChannel> twins = {{5, 0, 1, "same"}, {6, 0, 1, "same"}};
    capabilities_.events.insert(capabilities_.events.end(), twins.begin(), twins.end());
    const std::string kTurned =
        "turned: a recording cannot say what its BIT_OPERATION does, measure it without recording";
    const struct {
        std::vector<std::string> texts;
        const char* bare;
        bool recorded;
        std::string result;
    } rows[] = {
        {{"*e*", "speed@1", "l?ad"}, "0", false, "speed@0 turned@0 speed@1 load@0 "},
        {{"*", "*ed"},
         "auto",
         true,
         "speed@1 load@2 '*' matches 3 measurement(s), 1 of which cannot be measured "
         "and are left out: " +
             kTurned +
             "'*ed' matches 2 measurement(s), 1 of which cannot be measured and are left "
             "out: " +
             kTurned},
        {{"load@10 ms", "speed@twin", "speed@1"}, "0", false, "load@1 speed@4 speed@1 "},
        {{"s*"}, "10 ms", false, "speed@1 "},
        {{"p*@2"}, "0", false, "p@2 "},
        {{"speed@same"}, "0", false, "events 5 and 6 are both called 'same', give the number"},
        {{"speed@"}, "0", false, "stoul: '' is not a number from 0 to 65535"},
        {{"speed@9 ms"}, "0", false, "stoul: '9 ms' is not a number from 0 to 65535"},
        {{"x*"}, "0", false, "'x*' matches no name of the A2L"},
        {{"t*"}, "0", true, "'t*' matches 1 measurement(s), none of which can be measured: " + kTurned},
        {{"*@7"},
         "0",
         false,
         "'*' matches 3 measurement(s), none of which can be measured: speed: event channel 7 does "
         "not exist"},
        {{"x"}, "0", false, "'x' is neither a MEASUREMENT nor a CHARACTERISTIC"},
    };
    for (const auto& row : rows) {
        daq_.defaultEvent = parseDefaultEvent(row.bare, {2});
        const auto result =
            planMeasurement({description_, capabilities_}, row.texts, daq_, connection_, row.recorded);
        std::string text = result.ok() ? "" : result.error().text();
        if (result.ok()) {
            for (const PlannedSignal& signal : result.value().planned)
                text += signal.element.name + "@" + std::to_string(signal.event) + " ";
            for (const std::string& warning : result.value().warnings)
                text += warning;
        }
        EXPECT_EQ(text, row.result) << row.texts.front();
    }
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

TEST_F(MeasurementPlanTest, AnObjectThatMovedIsNoticed) {
    std::vector<std::uint8_t> memory = {7, 0};
    const a2l::ReadMemory read = [&](xcp::Address, std::size_t) { return Result(memory); };
    const std::vector<PlaceBytes> placedBy = {{"curve", {0x500}, memory}};
    EXPECT_TRUE(checkPlaces(placedBy, read).ok());
    memory[0] = 8;
    EXPECT_EQ(checkPlaces(placedBy, read).error().text(),
              "the ECU came back with another place or size of curve");
}

}  // namespace
}  // namespace lm::session
