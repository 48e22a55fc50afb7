#include "storage/write/recording_writer.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"
#include "storage/read/recording_reader.h"
#include "storage/recording_fixture.h"
#include "storage/write/recorder.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using test::Bytes;
namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class RecordingWriterTest : public ::testing::Test {
  protected:
    fs::path file(const char* name) const { return path_ / name; }
    Names entries() const {
        Names names;
        for (const auto& entry : fs::directory_iterator(path_))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    lm::test::TempDir dir_;
    const fs::path path_ = dir_.path() / "rec";
};

// The example of docs/recording-format.md.
TEST_F(RecordingWriterTest, WritesTheDocumentedBytes) {
    test::writeSmallRecording(path_, 16);
    const std::string zeros12 = " 00 00 00 00 00 00 00 00 00 00 00 00";
    const std::string first = " 00 ca 9a 3b 00 00 00 00";
    const std::string last = " 80 9b 8b 44 00 00 00 00";
    const std::string files[][2] = {
        {"g0000.tix", "4c 4d 54 49 58 00 00 00 02 00 00 00 10 00 00 00 10 00 00 00" + zeros12 + first + last},
        {"g0000_L1.pyr",
         "4c 4d 50 59 52 00 00 00 02 00 00 00 01 00 00 00 10 00 00 00 02 00 00 00"
         " 00 00 00 00 00 00 00 00 00 00 48 42 00 00 66 42 00 00 70 c1 00 00 00 00"}};
    for (const auto& [name, bytes] : files)
        EXPECT_EQ(test::readFile(file(name.c_str())), test::hex(bytes)) << name;
    const Bytes records = test::readFile(file("g0000.rec"));
    ASSERT_EQ(records.size(), 32U + 16 * 11);
    EXPECT_EQ(Bytes(records.begin(), records.begin() + 54),
              test::hex("4c 4d 52 45 43 00 00 00 02 00 00 00 03 00 00 00 0b 00 00 00" + zeros12 + first +
                        " 64 00 00 80 60 33 3c 00 00 00 00 65 00 ff"));
    EXPECT_EQ(Bytes(records.end() - 11, records.end()), test::hex(last.substr(1) + " 73 00 f1"));
    EXPECT_EQ(entries(), (Names{"events.jsonl", "g0000.rec", "g0000.tix", "g0000_L1.pyr", "meta.json"}));
    EXPECT_EQ(RecordingReader::open(path_).value().info().groups[0].signals[1].name, "Temp");
}

TEST_F(RecordingWriterTest, RefusesAndCountsWhatItCannotTakeAndRaisesTimestampsThatStepBack) {
    RecordingInfo info = test::smallRecording();
    info.groups.push_back(GroupInfo{"big", 45, 0, {}});
    auto writer = RecordingWriter::create(path_, std::move(info), WriterOptions{100}).value();
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

TEST_F(RecordingWriterTest, TwoMeasurementsRecordIntoTheirOwnGroupsAlone) {
    const std::vector<GroupInfo> small = test::smallRecording().groups;
    Recorder recorder{RecordingInfo{}};
    const GroupRange first = recorder.add(small);
    const GroupRange second = recorder.add({GroupInfo{"big", 45, 0, {}}, small[0]});
    ASSERT_TRUE(recorder.begin({path_}, {}).ok());
    EXPECT_TRUE(first.write(0, 1, Bytes(3).data(), 3));
    EXPECT_TRUE(second.write(1, 2, Bytes(3).data(), 3));
    EXPECT_FALSE(first.write(2, 3, Bytes(3).data(), 3)) << "a group of the second one";
    ASSERT_TRUE(recorder.close().ok());
    EXPECT_EQ(recorder.recordsWritten(), 2U);
    EXPECT_EQ(recorder.recordsDropped(), 1U);
    const std::uintmax_t sizes[] = {32 + 11, 32, 32 + 11};
    for (std::size_t i = 0; i < std::size(sizes); ++i)
        EXPECT_EQ(fs::file_size(path_ / recordFileName(i)), sizes[i]) << i;
}

TEST_F(RecordingWriterTest, NeverOverwritesARecordingButWhatACrashedStartLeft) {
    fs::create_directories(path_);
    test::writeFile(file("meta.json.tmp"), std::string(5000, 'x'));
    test::writeFile(file("g0000.rec"), std::string(5000, 'x'));
    test::writeSmallRecording(path_, 1);
    EXPECT_EQ(fs::file_size(file("g0000.rec")), 32U + 11);
    EXPECT_EQ(entries(), (Names{"events.jsonl", "g0000.rec", "g0000.tix", "meta.json"}));
    fs::remove(file("meta.json"));
    fs::create_symlink("gone", file("meta.json"));
    EXPECT_EQ(RecordingWriter::create(path_, test::smallRecording(), {}).error().text(),
              path_.string() + " already contains a recording");
}

TEST_F(RecordingWriterTest, OfTwoWritersInOneDirectoryTheSecondIsRefusedAndTouchesNothing) {
    const auto createError = [this] {
        return RecordingWriter::create(path_, test::smallRecording(), {}).error().text();
    };
    const auto writer = RecordingWriter::create(path_, test::smallRecording(), {}).value();
    EXPECT_EQ(createError(), path_.string() + " already contains a recording");
    // As it is while the first one starts: first nothing but its locked text, then its files.
    const std::string refusal = path_.string() + " is being recorded to by another program";
    fs::rename(file("meta.json"), file("aside"));
    EXPECT_EQ(createError(), refusal);
    MetaFile staged(path_);
    ASSERT_TRUE(staged.stage(test::smallRecording()).ok());
    EXPECT_EQ(createError(), refusal);
    // A text that came from somewhere else meanwhile stays.
    fs::rename(file("aside"), file("meta.json"));
    EXPECT_EQ(staged.commit().error().text(), path_.string() + " already contains a recording");
    EXPECT_FALSE(staged.isInPlace());
    EXPECT_TRUE(writer->write(0, 0, Bytes(3).data(), 3));
    EXPECT_TRUE(writer->close().ok());
    EXPECT_EQ(fs::file_size(file("g0000.rec")), 32U + 11);
}

TEST_F(RecordingWriterTest, DiscardRemovesTheDirectoriesItMade) {
    fs::create_directory(dir_.path() / "a");
    const auto deep = RecordingWriter::create(dir_.path() / "a/deep/er/", test::smallRecording(), {});
    EXPECT_TRUE(deep.value()->discard().ok());
    EXPECT_TRUE(fs::is_empty(dir_.path() / "a"));
}

}  // namespace
}  // namespace lm::storage
