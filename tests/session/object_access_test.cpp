// Whole objects through the master: how many packets reading takes, what a write sends, and what is told when
// the ECU refuses or does not keep it.
#include "session/object_access.h"

#include <algorithm>
#include <functional>
#include <map>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/bytes.h"
#include "session/joint_reading.h"
#include "session/master_memory.h"
#include "support/model_slave.h"
#include "support/virtual_clock.h"

namespace lm::session {
namespace {

const std::string kText = R"A2L(/begin PROJECT P "" /begin MODULE M ""
/begin RECORD_LAYOUT LF FNC_VALUES 1 FLOAT32_IEEE ROW_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LC NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 UBYTE ROW_DIR DIRECT
/end RECORD_LAYOUT
/begin CHARACTERISTIC map "" MAP 0x10000 LF 0 NO_COMPU_METHOD -1e9 1e9
  /begin AXIS_DESCR FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 64 0 255 FIX_AXIS_PAR 0 0 64 /end AXIS_DESCR
  /begin AXIS_DESCR FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 64 0 255 FIX_AXIS_PAR 0 0 64 /end AXIS_DESCR
/end CHARACTERISTIC
/begin CHARACTERISTIC curve "" CURVE 0x100 LC 0 NO_COMPU_METHOD 0 255
  /begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 8 0 255 /end AXIS_DESCR /end CHARACTERISTIC
/end MODULE /end PROJECT)A2L";

constexpr std::uint8_t kShortUpload = 0xF4;
constexpr std::uint8_t kUpload = 0xF5;
constexpr std::uint8_t kDownload = 0xF0;

/// A model ECU that answers at once; `fault` may answer in its place.
class ModelEcu final : public xcp::ITransport {
  public:
    using Bytes = test::ModelSlave::Bytes;

    void setSink(xcp::IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override {}
    std::size_t maxPacketSize() const override { return 8; }
    Result<void> send(const std::uint8_t* data, std::size_t length) override {
        ++sent[data[0]];
        Bytes answer = fault ? fault({data, length}) : Bytes();
        if (answer.empty()) answer = slave.answer({data, length});
        if (!answer.empty()) sink_->onPacket(answer.data(), answer.size(), {});
        return {};
    }
    void put(std::uint32_t address, const Bytes& bytes) {
        for (const std::uint8_t byte : bytes)
            slave.written[address++] = byte;
    }

    test::ModelSlave slave;
    std::map<int, int> sent;
    std::function<Bytes(std::span<const std::uint8_t>)> fault;

  private:
    xcp::IPacketSink* sink_ = nullptr;
};

class ObjectAccesses : public testing::Test {
  protected:
    void SetUp() override {
        ecu.put(0x100, {3, 10, 20, 30, 1, 2, 3});
        ASSERT_TRUE(master.connect().ok());
        ecu.sent.clear();
    }
    ObjectWriteOutcome write(const char* name, const std::vector<a2l::ObjectChange>& changes) {
        return access.write(a2l::findObject(description, name).value(),
                            [&](const a2l::ObjectContent& content) { return changed(content, changes); });
    }
    static std::string told(const ObjectWriteOutcome& outcome) {
        std::string text = outcome.content ? "ok" : outcome.content.error().text();
        for (const HeldSpan& held : outcome.held)
            text += fmt::format(" {:X}:{}", held.span.address.address, static_cast<int>(held.state));
        return text;
    }

    a2l::Description description = a2l::parseDescription(kText).value();
    test::VirtualClock clock;
    ModelEcu ecu;
    StopSource stop = StopSource::create().value();
    xcp::Master master{ecu, {.t1 = 20, .t7 = 0}, stop.token(), clock};
    MasterMemory memory{master, {.wholeUnits = true}};
    ObjectAccess access{memory, stop.token()};
};

TEST_F(ObjectAccesses, ReadInNoMorePacketsThanTheBytesNeed) {
    const auto map = access.read(a2l::findObject(description, "map").value());
    ASSERT_TRUE(map.ok()) << map.error().text();
    EXPECT_EQ(map.value().placed.elementCount(), 4096U);
    EXPECT_EQ(ecu.sent[kUpload], (4096 * 4 + 6) / 7);
    EXPECT_EQ(ecu.sent[kShortUpload], 0);
    ecu.sent.clear();
    // The count, then all the rest: six bytes.
    EXPECT_TRUE(access.read(a2l::findObject(description, "curve").value()).ok());
    EXPECT_EQ(ecu.sent[kUpload], 0);
    EXPECT_EQ(ecu.sent[kShortUpload], 2);
}

TEST_F(ObjectAccesses, ReadAgainWhatGetsAnotherSizeMeanwhile) {
    const ModelEcu::Bytes small = {3, 10, 20, 30, 1, 2, 3};
    const ModelEcu::Bytes large = {5, 10, 20, 30, 40, 50, 11, 12, 13, 14, 15};
    struct Case {
        bool startsLarge;
        int firstChange;  // the command before which the ECU takes the other size
        int lastChange;
        const char* whole;
        const char* element;
    };
    const char* const changing = "curve: its place or size changed meanwhile";
    // Of the large one the last bytes are read first, and its count last.
    for (const Case& c : {Case{false, 2, 2, "11 12 13 14 15 ", "13 "},
                          {true, 2, 2, "1 2 3 ", "3 "},
                          {true, 3, 3, "1 2 3 ", "3 "},
                          {false, 2, 1000, changing, changing}}) {
        const auto read = [&](const auto& reading) {
            bool isLarge = c.startsLarge;
            ecu.put(0x100, isLarge ? large : small);
            int commands = 0;
            ecu.fault = [&](std::span<const std::uint8_t> command) -> ModelEcu::Bytes {
                const bool isUpload = command[0] == kShortUpload || command[0] == kUpload;
                if (isUpload && ++commands >= c.firstChange && commands <= c.lastChange)
                    ecu.put(0x100, (isLarge = !isLarge) ? large : small);
                return {};
            };
            const Result<a2l::ObjectContent> content = reading(a2l::findObject(description, "curve").value());
            if (!content) return content.error().text();
            std::string values;
            for (std::size_t i = 0; i < content.value().placed.elementCount(); ++i) {
                if (content.value().bytes(i) != nullptr)
                    values += fmt::format("{} ", *content.value().bytes(i));
            }
            return values;
        };
        EXPECT_EQ(read([&](const a2l::Object& curve) { return access.read(curve); }), c.whole);
        const auto third = [](const a2l::PlacedObject&) { return std::size_t{2}; };
        const auto element = read([&](const a2l::Object& curve) { return access.readElement(curve, third); });
        EXPECT_NE(element.find(c.element), std::string::npos) << element;
    }
}

TEST_F(ObjectAccesses, ReadTogetherWhatGetsAnotherSizeMeanwhile) {
    const ModelEcu::Bytes small = {3, 10, 20, 30, 1, 2, 3};
    const ModelEcu::Bytes large = {5, 10, 20, 30, 40, 50, 11, 12, 13, 14, 15};
    std::vector<a2l::Object> objects;
    for (const char* name : {"curve", "map"})
        objects.push_back(a2l::findObject(description, name).value());
    // Whatever upload the change comes before, all that is told is of the one size or of the other.
    for (const bool shortUpload : {true, false}) {
        for (int change = 1; change <= 8; ++change) {
            xcp::Master other{ecu, {.t1 = 20, .t7 = 0, .useShortUpload = shortUpload}, stop.token(), clock};
            ASSERT_TRUE(other.connect().ok());
            MasterMemory ofOther{other, {.wholeUnits = true}};
            ObjectAccess alone{ofOther, stop.token()};
            ecu.put(0x100, change % 2 == 0 ? large : small);
            int uploads = 0;
            std::uint32_t at = 0;
            ecu.fault = [&](std::span<const std::uint8_t> command) -> ModelEcu::Bytes {
                constexpr std::uint8_t kSetMta = 0xF6;
                if (command[0] == kSetMta || command[0] == kShortUpload)
                    at = readBytes<std::uint32_t>(command.data() + 4, ByteOrder::littleEndian);
                const bool isUpload = command[0] == kShortUpload || command[0] == kUpload;
                if (isUpload && at < 0x10000 && ++uploads == change)
                    ecu.put(0x100, change % 2 == 0 ? small : large);
                return {};
            };
            std::vector<std::string> told;
            const auto run =
                JointReading(other, alone, {})
                    .run(objects, [&](std::size_t, Result<a2l::ObjectContent> content) {
                        std::string values;
                        for (std::size_t i = 0;
                             content && i < std::min<std::size_t>(6, content.value().placed.elementCount());
                             ++i)
                            values += fmt::format("{} ", *content.value().bytes(i));
                        told.push_back(content ? values : content.error().text());
                    });
            ASSERT_TRUE(run.ok()) << run.error().text();
            ASSERT_EQ(told.size(), 2U);
            EXPECT_TRUE(told[0] == "1 2 3 " || told[0] == "11 12 13 14 15 ") << change << ": " << told[0];
        }
    }
}

TEST_F(ObjectAccesses, WriteWhatDiffersAndTellWhatIsHeldAfterAFailure) {
    const std::vector<a2l::ObjectChange> ends = {{{}, 0, 9.0}, {0, 2, 40.0}, {{}, 2, 9.0}};
    EXPECT_EQ(told(write("curve", {{{}, 1, 2.0}})), "ok");
    EXPECT_EQ(ecu.sent[kDownload], 0);
    // The last point and the first value touch: one piece. The second piece is refused.
    int left = 1;
    ecu.fault = [&](std::span<const std::uint8_t> command) -> ModelEcu::Bytes {
        if (command[0] != kDownload || left-- > 0) return {};
        return {xcp::kPidError, 0x24};
    };
    const auto refused = write("curve", ends);
    EXPECT_FALSE(refused.content.ok());
    EXPECT_EQ(told(refused), refused.content.error().text() + " 103:1 106:0");
    EXPECT_EQ(ecu.slave.memory(0x103) + ecu.slave.memory(0x106), 40 + 3);
    // The ECU says yes and keeps nothing.
    ecu.fault = [](std::span<const std::uint8_t> command) -> ModelEcu::Bytes {
        return command[0] == kDownload ? ModelEcu::Bytes{0xFF} : ModelEcu::Bytes{};
    };
    EXPECT_EQ(told(write("curve", ends)), "curve: read back value differs from the written value 106:0");
    ecu.fault = {};
    EXPECT_EQ(told(write("curve", ends)), "ok");
    EXPECT_EQ(ecu.slave.memory(0x106), 9);
    // Nothing is written when one of the values is not allowed.
    ecu.sent.clear();
    EXPECT_EQ(told(write("curve", {{{}, 0, 1.0}, {{}, 1, 256.0}})),
              "curve[1]: 256 outside the limits [0, 255]");
    EXPECT_EQ(ecu.sent[kDownload], 0);
}

}  // namespace
}  // namespace lm::session
