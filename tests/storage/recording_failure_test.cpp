// Disks that take no more: the limit on file sizes stops a file at any byte, as a full disk does.
#include <gtest/gtest.h>

#include "core/durable_file.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"
#include "storage/recording_fixture.h"
#include "storage/write/group_writer.h"
#include "storage/write/recording_writer.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using lm::test::LogCapture;
using test::Bytes;
using test::FileSizeLimit;
namespace fs = std::filesystem;

class RecordingFailureTest : public ::testing::Test {
  protected:
    /// The files of one group, fed by hand.
    struct Group {
        explicit Group(const fs::path& directory, RecordingInfo recording = test::smallRecording())
            : info(std::move(recording)),
              faults(directory),
              files(GroupWriter::create(0, info.groups[0], faults, counters).value()) {}

        void append(std::size_t first, std::size_t end) {
            for (std::size_t n = first; n < end; ++n) {
                Bytes data = test::smallRecord(n);
                data.resize(info.groups[0].recordSize);
                files.append(static_cast<std::int64_t>(n), data.data());
            }
        }

        RecordingInfo info;
        RecordingFaults faults;
        RecordingCounters counters;
        GroupWriter files;
    };

    /// The record numbers in the file, with every file checked against them.
    std::vector<std::size_t> recordedNumbers(std::size_t recordSize = 3) {
        const std::size_t stride = recordSize + 8;
        const Bytes file = test::readFile(dir_.path() / "g0000.rec");
        EXPECT_EQ((file.size() - 32) % stride, 0U);
        std::vector<std::size_t> numbers;
        for (std::size_t at = 32; at + stride <= file.size(); at += stride) {
            numbers.push_back(readLittle<std::uint64_t>(&file[at]));
            EXPECT_EQ(Bytes(&file[at] + 8, &file[at] + 11), test::smallRecord(numbers.back()));
        }
        const std::size_t blocks = numbers.size() / 16;
        const Bytes index = test::readFile(dir_.path() / "g0000.tix");
        EXPECT_EQ(index.size(), 32 + 16 * blocks);
        for (std::size_t k = 0; k < blocks; ++k) {
            EXPECT_EQ(readLittle<std::uint64_t>(&index[32 + 16 * k]), numbers[16 * k]);
            EXPECT_EQ(readLittle<std::uint64_t>(&index[40 + 16 * k]), numbers[16 * k + 15]);
        }
        const Bytes level = test::readFile(dir_.path() / "g0000_L1.pyr");
        EXPECT_EQ(level.size(), blocks == 0 ? 0 : 32 + 16 * blocks);
        return numbers;
    }

    lm::test::TempDir dir_;
};

/// The numbers from `first` up to but without `end`, behind those given.
std::vector<std::size_t> numbers(std::size_t first, std::size_t end, std::vector<std::size_t> out = {}) {
    for (std::size_t n = first; n < end; ++n)
        out.push_back(n);
    return out;
}

// With room again before the end nothing is lost, without it all behind the last whole record.
TEST_F(RecordingFailureTest, CutsBackAndGoesOnAtTheRightStrideAtEveryByte) {
    for (std::uint64_t limit = 32; limit <= 32 + 11 * 40; ++limit) {
        for (const bool roomAgain : {false, true}) {
            const std::size_t fitting = (limit - 32) / 11;
            const std::size_t recorded = roomAgain ? 50 : fitting;
            const LogCapture log;
            Group group(dir_.path());
            {
                const FileSizeLimit full(limit);
                group.append(0, 7);
                group.files.flush();
                group.append(7, 40);
                group.files.flush();
                EXPECT_EQ(group.counters.recordsWritten, fitting);
                if (!roomAgain) group.files.close();
            }
            if (roomAgain) {
                group.append(40, 50);
                group.files.close();
            }
            ASSERT_EQ(recordedNumbers(), numbers(0, recorded)) << limit;
            EXPECT_EQ(group.counters.bytesWritten, 11 * recorded);
            EXPECT_EQ(group.counters.recordsDropped, roomAgain ? 0 : 40 - fitting);
            EXPECT_EQ(group.faults.writeFailed(), fitting < 40);
            const std::string line = "error recording: write error in " + dir_.path().string() + "\n";
            EXPECT_EQ(log.text(), fitting < 40 ? line : "") << "once";
            fs::remove(dir_.path() / "g0000_L1.pyr");
        }
    }
}

TEST_F(RecordingFailureTest, DropsAndCountsWhatItsBufferCannotHold) {
    const LogCapture log;
    RecordingInfo info = test::smallRecording();
    info.groups[0].recordSize = 20000;  // three to a buffer of 64 KiB
    Group group(dir_.path(), std::move(info));
    {
        const FileSizeLimit full(32 + 5 * 20008 + 100);
        group.append(0, 12);  // five in the file, 5 to 7 in the buffer, the rest dropped
        EXPECT_EQ(group.counters.recordsWritten, 5U);
        EXPECT_EQ(group.counters.recordsDropped, 4U);
    }
    group.append(12, 13);  // no new try before the next flush
    EXPECT_EQ(group.counters.recordsDropped, 5U);
    group.files.flush();
    group.append(13, 30);
    group.files.close();
    EXPECT_EQ(recordedNumbers(20000), numbers(13, 30, numbers(0, 8)));
    EXPECT_EQ(group.counters.recordsWritten, 25U);
    EXPECT_EQ(group.counters.recordsDropped, 5U);
}

TEST_F(RecordingFailureTest, GivesUpADerivedFileAtItsLastWholeEntry) {
    const LogCapture log;
    RecordingFaults faults(dir_.path());
    const fs::path path = dir_.path() / "index";
    auto file = DerivedFile::create(path, indexHeader(), 20000, faults);
    ASSERT_TRUE(file.ok());
    const auto append = [&file](std::uint8_t first, std::uint8_t end) {
        for (std::uint8_t n = first; n < end; ++n)
            file.value().append(Bytes(20000, n));
    };
    {
        const FileSizeLimit full(32 + 20000 + 5);
        append(0, 7);  // 0 in the file, 1 to 3 in the buffer, 4 has no place
    }
    file.value().flush();  // room for more, but those would stand at wrong places
    append(7, 9);
    file.value().close();
    EXPECT_TRUE(faults.writeFailed());
    const Bytes stored = test::readFile(path);
    ASSERT_EQ(stored.size(), 32U + 4 * 20000);
    for (std::size_t n = 0; n < 4; ++n)
        EXPECT_EQ(stored[32 + 20000 * n], n);
}

TEST_F(RecordingFailureTest, RecordsWithoutALevelThatCannotBeCreated) {
    const auto record = [this](const std::string& name, const std::string& reason) {
        const LogCapture log;
        const fs::path directory = dir_.path() / name;
        Group group(directory);
        group.append(0, 256);
        group.files.close();
        EXPECT_FALSE(group.faults.writeFailed());
        EXPECT_EQ(group.counters.recordsWritten, 256U);
        EXPECT_EQ(fs::file_size(directory / "g0000_L2.pyr"), 32U + 16);
        EXPECT_EQ(log.text(), "error recording: cannot create " + (directory / "g0000_L1.pyr").string() +
                                  ": " + reason + " (further levels may be missing; the data is complete)\n");
    };
    fs::create_directories(dir_.path() / "directory" / "g0000_L1.pyr");
    record("directory", "Is a directory");
    fs::create_directory(dir_.path() / "held");
    StagedFile held;
    ASSERT_EQ(held.createAs(dir_.path() / "held" / "g0000_L1.pyr"), 0);
    record("held", (dir_.path() / "held").string() + " is being recorded to by another program");
}

}  // namespace
}  // namespace lm::storage
