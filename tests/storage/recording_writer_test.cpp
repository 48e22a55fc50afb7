#include "storage/recording_writer.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "storage/recording_fixture.h"
#include "storage/recording_meta.h"
#include "storage/recording_reader.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using test::Bytes;
namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr std::int64_t kStart = 1000000000;
constexpr std::int64_t kCycle = 10000000;

class RecordingWriterTest : public ::testing::Test {
  protected:
    fs::path path() const { return dir_.path() / "rec"; }
    fs::path file(const char* name) const { return path() / name; }

    std::unique_ptr<RecordingWriter> create(RecordingInfo info = test::smallRecording(),
                                            WriterOptions options = {}) {
        return RecordingWriter::create(path(), std::move(info), options).value();
    }
    std::string createError(const fs::path& at, RecordingInfo info = test::smallRecording()) {
        const auto writer = RecordingWriter::create(at, std::move(info), {});
        return writer.ok() ? "" : writer.error().text();
    }

    /// Writes `count` records of smallRecording() and closes.
    void record(std::size_t count) {
        auto writer = create();
        for (std::size_t n = 0; n < count; ++n)
            writeSmall(*writer, n);
        EXPECT_TRUE(writer->close().ok());
        EXPECT_EQ(writer->recordsWritten(), count);
        EXPECT_EQ(writer->bytesWritten(), count * 11);
    }
    static void writeSmall(RecordingWriter& writer, std::size_t n) {
        const Bytes data = test::smallRecord(n);
        EXPECT_TRUE(
            writer.write(0, kStart + static_cast<std::int64_t>(n) * kCycle, data.data(), data.size()));
    }

    Names entries() const {
        Names names;
        for (const auto& entry : fs::directory_iterator(path()))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    lm::test::TempDir dir_;
};

// The example of docs/recording-format.md.
TEST_F(RecordingWriterTest, WritesTheDocumentedBytes) {
    record(16);
    const std::string zeros12 = " 00 00 00 00 00 00 00 00 00 00 00 00";
    const std::string first = " 00 ca 9a 3b 00 00 00 00";
    const std::string last = " 80 9b 8b 44 00 00 00 00";
    const std::string files[][2] = {
        {"g0000.tix", "4c 4d 54 49 58 00 00 00 02 00 00 00 10 00 00 00 10 00 00 00" + zeros12 + first + last},
        {"g0000_L1.pyr",
         "4c 4d 50 59 52 00 00 00 02 00 00 00 01 00 00 00 10 00 00 00 02 00 00 00"
         " 00 00 00 00 00 00 00 00 00 00 48 42 00 00 66 42 00 00 70 c1 00 00 00 00"}};
    for (const auto& [name, bytes] : files)
        EXPECT_EQ(test::readFile(file(name.c_str())), test::fromHex(bytes)) << name;
    const Bytes records = test::readFile(file("g0000.rec"));
    ASSERT_EQ(records.size(), 32U + 16 * 11);
    EXPECT_EQ(Bytes(records.begin(), records.begin() + 54),
              test::fromHex("4c 4d 52 45 43 00 00 00 02 00 00 00 03 00 00 00 0b 00 00 00" + zeros12 + first +
                            " 64 00 00 80 60 33 3c 00 00 00 00 65 00 ff"));
    EXPECT_EQ(Bytes(records.end() - 11, records.end()), test::fromHex(last.substr(1) + " 73 00 f1"));
    EXPECT_EQ(entries(), (Names{"g0000.rec", "g0000.tix", "g0000_L1.pyr", "meta.json"}));
    EXPECT_EQ(RecordingReader::open(path()).value().info().groups[0].signals[1].name, "Temp");
}

TEST_F(RecordingWriterTest, RefusesAndCountsWhatItCannotTakeAndRaisesTimestampsThatStepBack) {
    RecordingInfo info = test::smallRecording();
    info.groups.push_back(GroupInfo{"big", 45, 0, {}});
    auto writer = create(std::move(info), WriterOptions{100});
    const Bytes data(45);
    EXPECT_FALSE(writer->write(2, 0, data.data(), 3)) << "no such group";
    EXPECT_FALSE(writer->write(0, 0, data.data(), 2)) << "short";
    EXPECT_FALSE(writer->write(0, 0, data.data(), 4)) << "long";
    EXPECT_FALSE(writer->write(1, 0, data.data(), 45)) << "above half of the queue";
    for (const std::int64_t t : {50, -7, 60})
        EXPECT_TRUE(writer->write(0, t, data.data(), 3));
    ASSERT_TRUE(writer->close().ok());
    EXPECT_FALSE(writer->write(0, 0, data.data(), 3)) << "closed";
    EXPECT_EQ(writer->recordsDropped(), 5U);
    EXPECT_EQ(writer->recordsWritten(), 3U);
    const Bytes stored = test::readFile(file("g0000.rec"));
    ASSERT_EQ(stored.size(), 32U + 3 * 11);
    EXPECT_EQ(readLittle<std::uint64_t>(&stored[32 + 11]), 50U);
    EXPECT_EQ(readLittle<std::uint64_t>(&stored[32 + 22]), 60U);
}

TEST_F(RecordingWriterTest, LeavesNothingBehindWhenItCannotBeCreated) {
    RecordingInfo outside = test::smallRecording();
    for (const std::uint32_t offset : {3U, 0xFFFFFFFFU}) {
        outside.groups[0].signals[1].recordOffset = offset;
        EXPECT_EQ(createError(path(), outside), "Temp: outside the group record");
    }
    EXPECT_FALSE(fs::exists(path()));

    test::writeFile(path(), "a file");
    EXPECT_EQ(createError(path()), "cannot create " + path().string());
    EXPECT_EQ(createError(path() / "sub"), "cannot create " + (path() / "sub").string());
    fs::remove(path());

    fs::create_directories(path() / "g0000.tix");
    EXPECT_EQ(createError(path()), "cannot create " + file("g0000.tix").string() + ": Is a directory");
    EXPECT_EQ(entries(), Names{"g0000.tix"});
    fs::create_directories(path() / "meta.json.tmp");
    EXPECT_EQ(createError(path()), "cannot write " + file("meta.json.tmp").string());
}

TEST_F(RecordingWriterTest, NeverOverwritesARecordingButWhatACrashedStartLeft) {
    fs::create_directories(path());
    test::writeFile(file("meta.json.tmp"), std::string(5000, 'x'));
    test::writeFile(file("g0000.rec"), std::string(5000, 'x'));
    record(1);
    EXPECT_EQ(fs::file_size(file("g0000.rec")), 32U + 11);
    EXPECT_EQ(entries(), (Names{"g0000.rec", "g0000.tix", "meta.json"}));
    fs::remove(file("meta.json"));
    fs::create_symlink("gone", file("meta.json"));
    EXPECT_EQ(createError(path()), path().string() + " already contains a recording");
}

TEST_F(RecordingWriterTest, OfTwoWritersInOneDirectoryTheSecondIsRefusedAndTouchesNothing) {
    auto writer = create();
    EXPECT_EQ(createError(path()), path().string() + " already contains a recording");
    // As it is while the first one starts: first nothing but its locked text, then its files.
    const std::string refusal = path().string() + " is being recorded to by another program";
    fs::rename(file("meta.json"), file("aside"));
    EXPECT_EQ(createError(path()), refusal);
    MetaFile staged(path());
    ASSERT_TRUE(staged.stage(test::smallRecording()).ok());
    EXPECT_EQ(createError(path()), refusal);
    // A text that came from somewhere else meanwhile stays.
    fs::rename(file("aside"), file("meta.json"));
    EXPECT_EQ(staged.commit().error().text(), path().string() + " already contains a recording");
    EXPECT_FALSE(staged.isInPlace());
    writeSmall(*writer, 0);
    EXPECT_TRUE(writer->close().ok());
    EXPECT_EQ(fs::file_size(file("g0000.rec")), 32U + 11);
}

TEST_F(RecordingWriterTest, DiscardRemovesOnlyWhatItMade) {
    fs::create_directories(path());
    test::writeFile(file("g0000.tix"), "was here");
    const auto writer = create();
    for (std::size_t n = 0; n < 16; ++n)
        writeSmall(*writer, n);
    EXPECT_TRUE(writer->discard().ok());
    EXPECT_EQ(entries(), (Names{"g0000.tix"}));

    fs::create_directory(dir_.path() / "a");
    const auto deep = RecordingWriter::create(dir_.path() / "a/deep/er/", test::smallRecording(), {});
    EXPECT_TRUE(deep.value()->discard().ok());
    EXPECT_TRUE(fs::is_empty(dir_.path() / "a"));
}

TEST(RecordingQueue, HoldsEightOfTheLargestRecords) {
    RecordingInfo info = test::smallRecording();
    EXPECT_EQ(recommendedQueueBytes(info), 64U << 20U);
    info.groups.push_back(GroupInfo{"huge", 20U << 20U, 0, {}});
    EXPECT_EQ(recommendedQueueBytes(info), 8U * ((20U << 20U) + 23));
}

}  // namespace
}  // namespace lm::storage
