#include "cli/console_printer.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/bytes.h"

namespace lm::cli {
namespace {

class Pipe {
  public:
    Pipe() { EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0); }
    ~Pipe() {
        closeReader();
        closeWriter();
    }
    int reader() const { return ends_[0]; }
    int writer() const { return ends_[1]; }
    void closeReader() { closeEnd(ends_[0]); }
    void closeWriter() { closeEnd(ends_[1]); }

    /// Everything up to the end of the stream.
    std::string readAll() {
        closeWriter();
        std::string text;
        std::array<char, 4096> block;
        ssize_t count = 0;
        while ((count = ::read(ends_[0], block.data(), block.size())) > 0) {
            text.append(block.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

  private:
    static void closeEnd(int& end) {
        if (end >= 0) ::close(end);
        end = -1;
    }
    std::array<int, 2> ends_{-1, -1};
};

session::PlannedSignal signal(const char* name, std::size_t list, std::uint32_t offset,
                              a2l::Conversion conversion) {
    session::PlannedSignal planned;
    planned.object.name = name;
    planned.object.coding.dataType = a2l::DataType::uword;
    planned.object.conversion = std::move(conversion);
    planned.listIndex = list;
    planned.recordOffset = offset;
    return planned;
}

// List 0: Speed, State, Speed again; list 1: Plain.
session::MeasurementPlan demoPlan() {
    const a2l::Conversion speed(a2l::Conversion::Linear{0.5, 0}, "%6.1", "rpm");
    const a2l::Conversion state(a2l::Conversion::VerbalTable{{{1, 1, "On"}}, ""}, "%4.0", "unit");
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

std::size_t lineCount(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(Console, PrintsSignalsInTheOrderAskedFor) {
    Pipe pipe;
    Console console(pipe.writer());
    console.setPrintInterval(1);
    console.setPlan(demoPlan());
    send(console, 0, 5'000'000'000, 1, 3);
    send(console, 1, 6'234'600'000, 65535);
    send(console, 0, 4'000'000'000, 2, 0);
    console.finishPrinting();
    EXPECT_EQ(pipe.readAll(),
              "     0.000  Speed=1.5 rpm  State=On  Speed=1.5 rpm\n"
              "     1.235  Plain=65535\n"
              "    -1.000  Speed=0.0 rpm  State=2  Speed=0.0 rpm\n");
    EXPECT_EQ(console.skippedLines(), 0U);
    EXPECT_EQ(console.failure(), 0);
}

TEST(Console, PrintsTheFirstAndEveryNthRecordOfEachList) {
    const struct {
        std::uint32_t interval;
        const char* expected;
    } rows[] = {{0, ""},
                {3,
                 "     0.000  Plain=0\n"
                 "     0.002  Plain=3\n"
                 "     0.003  Speed=2.0 rpm  State=0  Speed=2.0 rpm\n"
                 "     0.004  Plain=6\n"}};
    for (const auto& row : rows) {
        Pipe pipe;
        Console console(pipe.writer());
        console.setPrintInterval(row.interval);
        console.setPlan(demoPlan());
        for (std::uint16_t i = 0; i < 7; ++i) {
            if (i == 4) send(console, 0, 3'000'000, 0, i);
            send(console, 1, i * 700'000, i);
        }
        console.finishPrinting();
        EXPECT_EQ(pipe.readAll(), row.expected);
    }
}

// The reader does nothing until the end: reception goes on, and every record is printed or counted.
TEST(Console, SkipsAndCountsWhatAPausedReaderDoesNotTake) {
    Pipe pipe;
    constexpr std::size_t kRecords = 200'000;
    std::uint64_t skipped = 0;
    std::string text;
    {
        Console console(pipe.writer());
        console.setPrintInterval(1);
        console.setPlan(demoPlan());
        for (std::size_t i = 0; i < kRecords; ++i)
            send(console, 1, 0, static_cast<std::uint16_t>(i));
        console.finishPrinting(std::chrono::milliseconds(20));
        skipped = console.skippedLines();
        EXPECT_EQ(console.failure(), 0);
    }
    text = pipe.readAll();
    EXPECT_GT(lineCount(text), 1000U);
    EXPECT_EQ(lineCount(text) + skipped, kRecords);
    EXPECT_EQ(text.substr(0, 40), "     0.000  Plain=0\n     0.000  Plain=1\n");
    EXPECT_TRUE(text.ends_with("\n"));
}

// What fits into the queue waits for a reader that comes back.
TEST(Console, GoesOnWhenTheReaderDoes) {
    Pipe pipe;
    Console console(pipe.writer());
    console.setPrintInterval(1);
    console.setPlan(demoPlan());
    for (std::size_t i = 0; i < 20'000; ++i)
        send(console, 1, 0, static_cast<std::uint16_t>(i));
    auto reading = std::async(std::launch::async, [&pipe] {
        std::string text;
        std::array<char, 1000> block;
        for (std::size_t lines = 0; lines < 20'000;) {
            const ssize_t count = ::read(pipe.reader(), block.data(), block.size());
            if (count <= 0) break;
            const std::string piece(block.data(), static_cast<std::size_t>(count));
            lines += lineCount(piece);
            text += piece;
        }
        return text;
    });
    console.finishPrinting(std::chrono::seconds(60));
    const std::string text = reading.get();
    EXPECT_EQ(console.skippedLines(), 0U);
    EXPECT_EQ(lineCount(text), 20'000U);
    EXPECT_TRUE(text.ends_with("     0.000  Plain=19999\n"));
}

TEST(Console, RemembersWhyTheOutputFailed) {
    std::signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    pipe.closeReader();
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    const int unwritable = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int rows[][2] = {{pipe.writer(), EPIPE}, {full, ENOSPC}, {unwritable, EBADF}};
    for (const auto& row : rows) {
        Console console(row[0]);
        console.setPrintInterval(1);
        console.setPlan(demoPlan());
        send(console, 1, 0, 0);
        console.finishPrinting(std::chrono::seconds(60));
        EXPECT_EQ(console.failure(), row[1]);
        EXPECT_EQ(console.skippedLines(), 0U);
    }
    ::close(full);
    ::close(unwritable);
}

TEST(Console, LeavesTheSharedDescriptorBlocking) {
    Pipe pipe;
    const NonblockingOutput output(pipe.writer());
    EXPECT_EQ(::fcntl(pipe.writer(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(Console, ReportsStateChangesThatCarryAMessage) {
    Console console(STDOUT_FILENO);
    testing::internal::CaptureStderr();
    console.onStateChanged(session::SessionState::connected, "");
    console.onStateChanged(session::SessionState::failed, "connection lost: timeout");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "** failed: connection lost: timeout\n");
}

}  // namespace
}  // namespace lm::cli
