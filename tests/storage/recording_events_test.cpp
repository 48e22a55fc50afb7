// "events.jsonl": what is noted is there, whatever ends the recording; a recording without it is as good.
#include "storage/format/recording_events.h"

#include <algorithm>
#include <array>

#include <gtest/gtest.h>

#include "storage/checked_recording.h"
#include "storage/format/recording_format.h"
#include "storage/read/recording_reader.h"
#include "storage/recording_fixture.h"
#include "storage/write/recorder.h"
#include "support/log_capture.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

const std::string kStart = R"({"event":"start","timeNs":999000000,"utcNs":1700000000000000000,"version":1})"
                           "\n";
const std::string kStartAgain = kStart.substr(0, kStart.size() - 2) + ",\"begunAgain\":true}\n";

class RecordingEventsTest : public test::CheckedRecordingTest {
  protected:
    fs::path events() const { return path() / kEventFileName; }
    std::string content() const {
        const test::Bytes bytes = test::readFile(events());
        return {bytes.begin(), bytes.end()};
    }
};

TEST_F(RecordingEventsTest, KeepsTheEcusApart) {
    Recorder recorder(test::smallRecording());
    const GroupRange left = recorder.add({}, "left");
    const GroupRange right = recorder.add({}, "a \"b\"");
    ASSERT_TRUE(recorder.begin({.directory = path()}, DiskForecast::Seconds(1)).ok());
    left.note(outageBeginLine(1000000000, "pulled"));
    right.note(outageBeginLine(1100000000, "off"));
    left.note(outageEndLine(1200000000, true, "back"));
    left.note(ecuClockLine({1300000000, 5, 50.25, 7, 9}));
    left.note(ecuClockLine({1400000000, -6, 50.5, 8, 10}));
    ASSERT_TRUE(recorder.close().ok());
    EXPECT_EQ(check(), "");
    const RecordingEvents events = readEvents(path(), test::smallRecording());
    ASSERT_EQ(events.outages.size(), 2U);
    EXPECT_EQ(events.outages[0].ecu + events.outages[0].outcome, "leftback");
    EXPECT_TRUE(events.outages[1].ecu == "a \"b\"" && !events.outages[1].endNs);
    ASSERT_EQ(events.ecuClocks.size(), 1U);
    EXPECT_TRUE(events.ecuClocks[0].ecu == "left" && events.ecuClocks[0].offsetNs == -6 &&
                events.ecuClocks[0].driftPpm == 50.5 && events.ecuClocks[0].spanNs == 10);
    // What stands open at a split ends and begins again, each under its ECU.
    StandingEvents standing;
    for (const char* ecu : {"left", "right"})
        standing.take(lineOfEcu(outageBeginLine(1, ecu), ecu));
    standing.take(lineOfEcu(outageEndLine(2, true, ""), "left"));
    EXPECT_EQ(standing.beginLines(3), lineOfEcu(outageBeginLine(3, "right"), "right"));
}

TEST_F(RecordingEventsTest, MendsTheFileCutAtAnyByteAndLosesNoWholeLine) {
    auto writer = RecordingWriter::create(path(), test::smallRecording(), {}).value();
    writer->note(outageBeginLine(1000000000, "connection lost: \"x\"\n\xff"));
    writer->note(outageEndLine(1500000000, true, "reconnected"));
    writer->note(outageBeginLine(1700000000, "again"));
    ASSERT_TRUE(writer->close().ok());
    const std::string whole = content();
    const RecordingEvents all = readEvents(path(), test::smallRecording());
    ASSERT_EQ((std::array{all.outages.size(), all.clocks.size()}), (std::array<std::size_t, 2>{2, 2}));
    EXPECT_EQ(all.outages[0].reason, "connection lost: \"x\"\n\xEF\xBF\xBD");
    EXPECT_TRUE(all.outages[0].recovered && all.outages[0].endNs == 1500000000 && !all.outages[1].endNs);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        test::writeFile(events(), whole.substr(0, size));
        // A line that lacks its line feed alone is whole, but for the first one, which holds no event.
        const bool lacksFeed = size > kStart.size() && whole[size] == '\n';
        const std::size_t lastFeed = size == 0 ? std::string::npos : whole.rfind('\n', size - 1);
        const std::size_t kept = std::max(lacksFeed ? size + 1 : lastFeed + 1, kStart.size());
        const bool sound = kept == size;
        const bool isKnown = size >= kStart.size();
        ASSERT_EQ(readEvents(path(), test::smallRecording()).trouble.empty(), isKnown) << size;
        ASSERT_EQ(check().empty(), sound) << size << check();
        ASSERT_EQ(repair().empty(), sound) << size;
        ASSERT_EQ(content(), isKnown ? whole.substr(0, kept) : kStartAgain) << size;
        ASSERT_EQ(readEvents(path(), test::smallRecording()).trouble.empty(), isKnown) << size;
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
        test::writeFile(events(), row.text);
        EXPECT_EQ(check(), row.found);
        repair();
        EXPECT_EQ(content(), row.text);
    }
    fs::rename(events(), path() / "aside");
    fs::create_symlink("aside", events());
    test::writeFile(events(), kStart + "torn");
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
        const char* told = fits ? "recording: 1 line(s) of " : "recording: 2 line(s) of ";
        EXPECT_NE(log.text().find(told), std::string::npos) << log.text();
    }
}

// Recorded by a program that knew no events.
TEST_F(RecordingEventsTest, ARecordingWithoutTheFileIsReadCheckedAndRepaired) {
    fs::copy(STORAGE_TEST_DATA "/without_events", path());
    const auto recording = RecordingReader::open(path());
    EXPECT_EQ(readEvents(path(), recording.value().info()).file, RecordingEvents::File::absent);
    EXPECT_EQ(check() + repair(), "");
    for (std::size_t group = 0; group < 2; ++group) {
        const fs::path records = file(recordFileName(group));
        const test::Bytes sound = test::readFile(records);
        EXPECT_EQ(recording.value().openGroup(group).value().recordCount(), group == 0 ? 50U : 19U);
        std::string damaged = std::string(sound.begin(), sound.end()) + "torn";
        damaged[2] = 'x';
        test::writeFile(records, damaged);
        fs::remove(file(indexFileName(group)));
        EXPECT_NE(repair(), "");
        EXPECT_EQ(test::readFile(records), sound);
    }
    EXPECT_EQ(check(), "");
}

}  // namespace
}  // namespace lm::storage
