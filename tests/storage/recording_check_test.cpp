// Every damage that a crash, a full disk or a bad sector can do to a recording: found, and mended without a
// touch to whole records.
#include "storage/care/recording_check.h"

#include <algorithm>
#include <map>

#include <gtest/gtest.h>

#include "storage/checked_recording.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"
#include "storage/recording_fixture.h"

namespace lm::storage {
namespace {

using test::Bytes;
namespace fs = std::filesystem;
using Files = std::map<std::string, Bytes>;

class RecordingCheckTest : public test::CheckedRecordingTest {
  protected:
    void record(std::size_t count) {
        fs::remove_all(path());
        test::writeSmallRecording(path(), count);
        sound_ = files();
    }
    Files files() const {
        Files all;
        for (const auto& entry : fs::directory_iterator(path()))
            all[entry.path().filename()] = test::readFile(entry.path());
        return all;
    }
    /// The sound recording with one file in other bytes.
    void damage(const std::string& name, const Bytes& bytes) {
        for (const auto& entry : fs::directory_iterator(path())) {
            if (!sound_.contains(entry.path().filename())) fs::remove_all(entry.path());
        }
        for (const auto& [other, content] : sound_) {
            const Bytes& wanted = other == name ? bytes : content;
            if (test::readFile(file(other)) != wanted || !fs::exists(file(other))) {
                test::writeFile(file(other), std::string(wanted.begin(), wanted.end()));
            }
        }
    }

    Files sound_;
};

TEST_F(RecordingCheckTest, MendsARecordFileCutAtAnyByte) {
    record(34);
    const Bytes whole = sound_["g0000.rec"];
    for (std::size_t size = 0; size < whole.size(); size += size == 60 ? 300 : 1) {
        damage("g0000.rec", Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        const std::size_t records = size < 32 ? 0 : (size - 32) / 11;
        const bool torn = size < 32 || (size - 32) % 11 != 0;
        const bool fewerBlocks = records < 32;
        ASSERT_EQ(check().empty(), !torn && !fewerBlocks) << size << check();
        const std::string told = repair();
        ASSERT_EQ(told.empty(), !torn && !fewerBlocks) << size << told;
        ASSERT_EQ(check(), "") << size;
        const Bytes now = test::readFile(file("g0000.rec"));
        ASSERT_EQ(now, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(32 + records * 11)));
        ASSERT_EQ(repair(), "") << size;
    }
}

TEST_F(RecordingCheckTest, LeavesRecordsAndIndexAloneThatFitNowhere) {
    record(40);
    Bytes index = sound_["g0000.tix"];
    for (std::size_t at = 32; at < index.size(); at += 8)
        ++index[at + 4];
    damage("g0000.tix", index);
    const Files mixed = files();
    const std::string found =
        "g0000.rec: no entry of its index fits the records; one of the two may be of another recording";
    EXPECT_EQ(check(), found + " !\n");
    EXPECT_EQ(repair(), "left: " + found + "\n");
    EXPECT_EQ(files(), mixed);
}

TEST_F(RecordingCheckTest, TellsWhatItFoundAndDidInWholeSentences) {
    record(40);
    const Bytes records = sound_["g0000.rec"];
    const auto with = [](Bytes bytes, std::size_t at, std::uint8_t value) {
        bytes[at] = value;
        return bytes;
    };
    const struct {
        const char* file;
        Bytes bytes;
        const char* found;
        const char* told;
    } rows[] = {
        {"g0000.rec", with(records, 12, 7),
         "g0000.rec: records of 7 bytes every 11, meta.json says 3 every 11; the records behind the header "
         "are this group's\n",
         "g0000.rec: header written again\n"},
        {"g0000.rec", with(records, 8, 3), "g0000.rec: format version 3 instead of 2 !\n",
         "left: g0000.rec: format version 3 instead of 2\n"},
        {"g0000.rec", with(records, 32 + 11 * 35 + 3, 0),
         "g0000.rec: 1 record is older than the record before, the first is record 35 (byte 417); its place "
         "in "
         "time is lost !\n",
         "left: g0000.rec: 1 record is older than the record before, the first is record 35 (byte 417); its "
         "place in time is lost\n"},
        {"g0000.rec", with(records, 32 + 11 * 3 + 9, 255),
         "g0000_L1.pyr: 1 entry does not fit the records, the first is entry 0 (byte 32)\n",
         "g0000_L1.pyr: made again with 2 entries\n"},
        {"g0000.tix", with(sound_["g0000.tix"], 16, 9), "g0000.tix: header does not fit (byte 16)\n",
         "g0000.tix: made again with 2 entries\n"},
    };
    for (const auto& row : rows) {
        damage(row.file, row.bytes);
        EXPECT_EQ(check(), row.found);
        EXPECT_EQ(repair(), row.told);
    }
    damage("", {});
    test::writeFile(file("g0000_L2.pyr"), "of an older recording");
    EXPECT_EQ(check(), "g0000_L2.pyr: belongs to no record of this recording\n");
    EXPECT_EQ(repair(), "g0000_L2.pyr: removed\n");
    fs::remove(file("g0000.rec"));
    EXPECT_EQ(repair(),
              "left: cannot open g0000.rec: No such file or directory; the records of group 10ms are "
              "lost\n");
    test::writeFile(file("meta.json"), R"({"formatVersion": 3})");
    EXPECT_EQ(check(), "unsupported recording format version 3");
    EXPECT_EQ(repair(), "unsupported recording format version 3");
}

TEST_F(RecordingCheckTest, LeavesRecordsThatAreNotCertainlyItsOwnAsTheyAre) {
    const auto fileOf = [](std::uint32_t recordSize, std::int64_t firstNs, std::int64_t stepNs,
                           std::int64_t count) {
        const FileHeader header = recordHeader(recordSize);
        Bytes bytes(header.begin(), header.end());
        for (std::int64_t n = 0; n < count; ++n) {
            bytes.resize(bytes.size() + 8);
            writeLittle(&bytes[bytes.size() - 8], static_cast<std::uint64_t>(firstNs + n * stepNs));
            bytes.insert(bytes.end(), recordSize, 0x41);
        }
        return bytes;
    };
    const auto damaged = [](Bytes bytes, std::size_t at = 1) { return bytes[at] ^= 1, bytes; };
    constexpr std::int64_t kCycle = 10'000'000;
    constexpr std::int64_t kFirst = 1'000'000'000;
    const Bytes larger = fileOf(14, kFirst, kCycle, 40);
    const std::string others =
        "g0000.rec: of another recording: records of 14 bytes every 22, meta.json says 3 every 11 !\n";
    const std::string unknown =
        "g0000.rec: not the header of a record file; nothing shows whose records stand behind the header !\n";
    record(40);
    const std::pair<Bytes, std::string> rows[] = {
        {larger, others},
        {damaged(larger), others},
        {damaged(fileOf(3, kFirst - 3'000'000'000, kCycle, 40)), unknown},
        {damaged(fileOf(3, kFirst, kCycle / 3, 40)), unknown},
        {damaged(fileOf(3, kFirst, 0, 40)), unknown},
        {damaged(fileOf(3, kFirst, 5 * kCycle, 40)), unknown},
        {damaged(fileOf(3, kFirst, std::int64_t{40} * 86400 * 1'000'000'000, 3)), unknown},
        {damaged(fileOf(3, kFirst, kCycle, 1)), unknown},
    };
    for (const auto& [file, found] : rows) {
        damage("g0000.rec", file);
        const Files before = files();
        EXPECT_EQ(check(), found);
        EXPECT_EQ(repair(), "left: " + found.substr(0, found.size() - 3) + "\n");
        EXPECT_EQ(files(), before);
    }
    RecordingInfo late = test::smallRecording();
    late.startHostNs += 3'600'000'000'000;
    damage("g0000.rec", fileOf(3, kFirst, kCycle, 40));
    test::writeFile(file("meta.json"), metaToJson(late));
    EXPECT_TRUE(check().starts_with("g0000.rec: 40 record(s) far before the start of the recording"));
    // Both sizes damaged, and twice as many records as the description says would read as well.
    RecordingInfo wide = test::smallRecording();
    wide.groups[0].recordSize = 14;
    wide.groups[0].cycleNs = 2 * kCycle;
    fs::remove_all(path());
    ASSERT_TRUE(RecordingWriter::create(path(), wide, {}).value()->close().ok());
    sound_ = files();
    damage("g0000.rec", damaged(fileOf(3, kFirst, kCycle, 41), 12));
    const Files before = files();
    EXPECT_NE(repair().find("nothing shows whose records stand behind the header"), std::string::npos);
    EXPECT_EQ(files(), before);
}

TEST_F(RecordingCheckTest, AFullDiskOrAStopLeavesTheFilesAsTheyWere) {
    record(272);
    damage("g0000_L1.pyr", Bytes(40));
    const Files before = files();
    for (std::uint64_t limit = 0; limit < sound_["g0000_L1.pyr"].size(); limit += 7) {
        const test::FileSizeLimit full(limit);
        ASSERT_EQ(repair(), "cannot write g0000_L1.pyr.tmp: File too large") << limit;
        ASSERT_EQ(files(), before) << limit;
    }
    StopSource stop = StopSource::create().value();
    stop.request();
    const auto stopped = repairRecording(path(), stop.token(), [](const std::string&) { FAIL(); });
    EXPECT_TRUE(stopped.error().isStop());
    EXPECT_EQ(files(), before);
    repair();
    EXPECT_EQ(files(), sound_);
}

}  // namespace
}  // namespace lm::storage
