#include "cli/console_printer.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "cli/message_output.h"
#include "core/bytes.h"

namespace lm::cli {
namespace {

class Pipe {
  public:
    Pipe() { EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0); }
    ~Pipe() {
        for (const int end : ends_)
            ::close(end);
    }
    int writer() const { return ends_[1]; }

    /// So many lines, or as many as come.
    std::string readLines(std::ptrdiff_t lines) const {
        std::string text;
        std::array<char, 1000> block;
        while (lines > 0) {
            const ssize_t count = ::read(ends_[0], block.data(), block.size());
            if (count <= 0) break;
            lines -= std::count(block.begin(), block.begin() + count, '\n');
            text.append(block.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

    std::string readUntil(std::string_view end) const {
        std::string text;
        while (!text.ends_with(end))
            text += readLines(1);
        return text;
    }

  private:
    std::array<int, 2> ends_{-1, -1};
};

session::PlannedSignal signal(const char* name, std::size_t list, std::uint32_t offset,
                              value::Conversion conversion) {
    session::PlannedSignal planned;
    planned.element.name = name;
    planned.element.coding.dataType = value::DataType::uword;
    planned.element.conversion = std::make_shared<const value::Conversion>(std::move(conversion));
    planned.listIndex = list;
    planned.recordOffset = offset;
    return planned;
}

// List 0: Speed, State, Speed again; list 1: Plain.
session::MeasurementPlan demoPlan() {
    const value::Conversion speed(value::Conversion::Linear{0.5, 0}, "%6.1", "°\a");
    const value::Conversion state(value::Conversion::VerbalTable{{{1, 1, "On\x1b[2J"}}, ""}, "%4.0", "unit");
    session::MeasurementPlan plan;
    plan.planned = {signal("Speed", 0, 2, speed), signal("Plain", 1, 0, {}), signal("State", 0, 0, state),
                    signal("Speed", 0, 2, speed)};
    plan.daq.lists.resize(2);
    return plan;
}

void send(Console& console, std::size_t list, std::int64_t timeNs, std::uint16_t first,
          std::uint16_t second = 0) {
    std::array<std::uint8_t, 4> bytes;
    writeLittle(bytes.data(), first);
    writeLittle(bytes.data() + 2, second);
    xcp::DaqRecord record;
    record.listIndex = list;
    record.receiveTimeNs = timeNs;
    record.data = bytes.data();
    record.size = list == 0 ? 4 : 2;
    console.onRecord(record);
}

TEST(Console, PrintsSignalsInTheOrderAskedFor) {
    Pipe pipe;
    Console console(pipe.writer());
    ASSERT_TRUE(console.startPrinting(1).ok());
    console.setLines(textLines(demoPlan(), value::NumberStyle::formatted), 2);
    send(console, 0, 5'000'000'000, 1, 3);
    send(console, 1, 6'234'600'000, 65535);
    send(console, 0, 4'000'000'000, 2, 0);
    console.finishPrinting();
    EXPECT_EQ(pipe.readLines(3),
              "     0.000  Speed=1.5 °\\x07  State=On\\x1B[2J  Speed=1.5 °\\x07\n"
              "     1.235  Plain=65535\n"
              "    -1.000  Speed=0.0 °\\x07  State=2  Speed=0.0 °\\x07\n");
    EXPECT_EQ(console.skippedLines(), 0U);
}

TEST(MessageOutput, DropsWhatDoesNotFitAndTellsHowMuch) {
    constexpr int kLines = 300;  // of 1000 bytes, more than pipe and queue hold
    const std::string line = std::string(999, 'x') + "\n";
    Pipe pipe;
    MessageOutput output(pipe.writer());
    ASSERT_TRUE(output.start().ok());
    for (int i = 0; i < kLines; ++i)
        output.print(line);
    const std::string text = pipe.readUntil(" take them\n");
    std::string expected;
    const std::size_t whole = text.rfind("x\n") / line.size() + 1;
    for (std::size_t i = 0; i < whole; ++i)
        expected += line;
    EXPECT_GT(whole * line.size(), MessageOutput::kQueueBytes);
    EXPECT_TRUE(text == expected + std::to_string(kLines - whole) +
                            " line(s) not printed, standard error did not take them\n");
}

TEST(Console, LeavesTheSharedDescriptorBlocking) {
    Pipe pipe;
    const NonblockingOutput output(pipe.writer());
    EXPECT_EQ(::fcntl(pipe.writer(), F_GETFL) & O_NONBLOCK, 0);
}

}  // namespace
}  // namespace lm::cli
