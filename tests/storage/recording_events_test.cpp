// "events.jsonl": what is noted is there, whatever ends the recording; a recording without it is as good.
#include "storage/recording_events.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "storage/recording_check.h"
#include "storage/recording_fixture.h"
#include "storage/recording_reader.h"
#include "storage/recording_repair.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

const auto kGoOn = [] { return false; };
const std::string kStart = R"({"event":"start","timeNs":999000000,"utcNs":1700000000000000000,"version":1})"
                           "\n";

class RecordingEventsTest : public ::testing::Test {
  protected:
    fs::path path() const { return dir_.path() / "rec"; }
    fs::path file() const { return path() / kEventFileName; }
    std::string content() const {
        const test::Bytes bytes = test::readFile(file());
        return {bytes.begin(), bytes.end()};
    }
    void write(const std::string& text) { test::writeFile(file(), text); }

    std::string withoutPath(std::string text) const {
        if (const auto at = text.find(path().string() + "/"); at != std::string::npos)
            text.erase(at, path().string().size() + 1);
        return text;
    }
    std::string check() const {
        std::string text;
        const RecordingCheck checked = checkRecording(path(), kGoOn).value();
        for (const Finding& finding : checked.findings)
            text += withoutPath(finding.text) + (finding.mendable ? "\n" : " !\n");
        return text;
    }
    std::string repair() const {
        std::string text;
        const auto left = repairRecording(path(), kGoOn,
                                          [&](const std::string& deed) { text += withoutPath(deed) + "\n"; });
        return left ? text : text + withoutPath(left.error().text());
    }

    lm::test::TempDir dir_;
};

TEST_F(RecordingEventsTest, MendsTheFileCutAtAnyByteAndLosesNoWholeLine) {
    auto writer = RecordingWriter::create(path(), test::smallRecording(), {}).value();
    writer->note(outageBeginLine(1000000000, "connection lost: \"x\"\n\xff"));
    writer->note(outageEndLine(1500000000, true, "reconnected"));
    writer->note(outageBeginLine(1700000000, "again"));
    ASSERT_TRUE(writer->close().ok());
    const std::string whole = content();
    const RecordingEvents all = readEvents(path(), test::smallRecording());
    ASSERT_EQ(all.outages.size(), 2U);
    EXPECT_EQ(all.outages[0].reason, "connection lost: \"x\"\n\xEF\xBF\xBD");
    EXPECT_EQ(all.outages[0].endNs, 1500000000);
    EXPECT_TRUE(all.outages[0].recovered);
    EXPECT_EQ(all.outages[1].endNs, std::nullopt);
    EXPECT_EQ(all.clocks.size(), 2U) << "at the start and at the end";
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        write(whole.substr(0, size));
        // A line that lacks its line feed alone is whole, but for the first one, which holds no event.
        std::size_t kept = whole.rfind('\n', size);
        const bool lacksFeed = kept == size && size > kStart.size() && size < whole.size();
        kept = lacksFeed ? size + 1 : size == 0 ? 0 : whole.rfind('\n', size - 1) + 1;
        kept = std::max(kept, kStart.size());
        const bool sound = kept == size;
        ASSERT_EQ(check().empty(), sound) << size << check();
        ASSERT_EQ(repair().empty(), sound) << size;
        ASSERT_EQ(content(), whole.substr(0, kept)) << size;
        ASSERT_EQ(check() + repair(), "") << size;
    }
}

TEST_F(RecordingEventsTest, TellsWhatItCannotMendAndLeavesItAlone) {
    test::writeSmallRecording(path(), 3);
    const std::string end = outageEndLine(5, false, "x");
    const std::string of = R"({"event":"start","timeNs":1,"utcNs":1700000000000000000,"version":1})";
    const struct {
        std::string text;
        const char* found;
    } rows[] = {
        {of + "\n" + end + "torn", "events.jsonl: of another recording !\n"},
        {end + kStart, "events.jsonl: line 1 does not tell of which recording it is !\n"},
        {R"({"event":"start","timeNs":1,"utcNs":1,"version":2})"
         "\n",
         "events.jsonl: version 2 instead of 1 !\n"},
        {kStart + end, "events.jsonl: line 2 ends an outage that did not begin !\n"},
        {kStart + outageBeginLine(6, "") + outageBeginLine(7, "") + end,
         "events.jsonl: line 3 begins an outage within another one !\n"
         "events.jsonl: line 4 ends an outage before its begin !\n"},
        {kStart + "[1]\n" + std::string(70000, '[') + "\n" + R"({"event":"clock","timeNs":1.5,"utcNs":2})" +
             "\n",
         "events.jsonl: line 2 is no event !\nevents.jsonl: line 3 is no event !\n"
         "events.jsonl: line 4 is no event !\n"},
        {kStart + R"({"event":"of a later program","timeNs":-7,"more":[{}]})" + "\n", ""},
    };
    for (const auto& row : rows) {
        write(row.text);
        EXPECT_EQ(check(), row.found);
        EXPECT_EQ(repair(), "");
        EXPECT_EQ(content(), row.text);
    }
    fs::rename(file(), path() / "aside");
    fs::create_symlink("aside", file());
    write(kStart + "torn");
    EXPECT_EQ(repair(), "cannot write events.jsonl: Too many levels of symbolic links");
}

TEST_F(RecordingEventsTest, AFullDiskKeepsWholeLinesAndIsTold) {
    const std::string note = outageBeginLine(1000000000, "connection lost");
    for (const std::size_t room : {std::size_t{0}, std::size_t{1}, note.size() - 1, note.size()}) {
        const lm::test::LogCapture log;
        fs::remove_all(path());
        auto writer = RecordingWriter::create(path(), test::smallRecording(), {}).value();
        const test::FileSizeLimit full(kStart.size() + room);
        writer->note(note);
        EXPECT_TRUE(writer->write(0, 1000000000, test::smallRecord(0).data(), 3));
        EXPECT_FALSE(writer->close().ok());
        EXPECT_EQ(writer->recordsWritten(), 1U);
        const bool fits = room == note.size();
        EXPECT_EQ(content(), kStart + (fits ? note : "")) << room;
        EXPECT_NE(log.text().find(fits ? "recording: 1 line(s) of " : "recording: 2 line(s) of "),
                  std::string::npos)
            << log.text();
    }
}

// Recorded by a program that knew no events.
TEST_F(RecordingEventsTest, ARecordingWithoutTheFileIsReadCheckedAndRepaired) {
    fs::copy(STORAGE_TEST_DATA "/without_events", path());
    const auto recording = RecordingReader::open(path());
    ASSERT_TRUE(recording.ok());
    EXPECT_EQ(readEvents(path(), recording.value().info()).file, RecordingEvents::File::absent);
    EXPECT_EQ(recording.value().openGroup(0).value().recordCount(), 50U);
    EXPECT_EQ(recording.value().openGroup(1).value().recordCount(), 19U);
    EXPECT_EQ(check() + repair(), "");
    for (const char* group : {"g0000", "g0001"}) {
        const fs::path records = path() / (std::string(group) + ".rec");
        const test::Bytes sound = test::readFile(records);
        test::Bytes damaged = sound;
        damaged[2] ^= 1;
        damaged.push_back(7);
        test::writeFile(records, std::string(damaged.begin(), damaged.end()));
        fs::remove(path() / (std::string(group) + ".tix"));
        EXPECT_NE(repair(), "");
        EXPECT_EQ(test::readFile(records), sound);
    }
    EXPECT_EQ(check() + repair(), "");
    EXPECT_FALSE(fs::exists(file()));
}

}  // namespace
}  // namespace lm::storage
