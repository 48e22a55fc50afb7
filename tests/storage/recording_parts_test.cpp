// A recording in parts: no record is lost or doubled wherever it is split, and the parts are read as one.
#include "storage/read/recording_parts.h"

#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "storage/care/recording_check.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/recording_fixture.h"
#include "storage/write/part_keeper.h"
#include "storage/write/part_names.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using test::Bytes;
namespace fs = std::filesystem;

class RecordingPartsTest : public ::testing::Test {
  protected:
    static constexpr std::size_t kRecords = 40;

    fs::path part(std::uint64_t number) const { return dir_.path() / std::to_string(number); }
    static RecordingInfo infoOf(std::uint64_t number) {
        RecordingInfo info = test::smallRecording();
        info.part = PartInfo{"series", number, number == 1 ? "" : std::to_string(number - 1)};
        return info;
    }
    /// Records 0 to kRecords - 1, with a split behind each of `splits` records.
    void record(const std::vector<std::size_t>& splits) const {
        auto writer = RecordingWriter::create(part(1), infoOf(1), {.flushIntervalMs = 0}).value();
        writer->note(outageBeginLine(2, "gone"));
        std::size_t n = 0;
        std::uint64_t number = 1;
        const auto writeUpTo = [&](std::size_t end) {
            for (; n < end; ++n) {
                const Bytes data = test::smallRecord(n);
                ASSERT_TRUE(
                    writer->write(0, 1000000000 + static_cast<std::int64_t>(n) * 10000000, data.data(), 3));
            }
            while (writer->recordsWritten() != end)
                std::this_thread::yield();
        };
        for (const std::size_t split : splits) {
            writeUpTo(split);
            ++number;
            fs::create_directory(part(number));
            auto next = writer->prepareNext(part(number), infoOf(number), {});
            ASSERT_TRUE(next.ok());
            writer->continueIn(std::move(next).value())->close();
        }
        writeUpTo(kRecords);
        writer->note(outageEndLine(std::numeric_limits<std::int64_t>::max(), true, "back"));
        ASSERT_TRUE(writer->close().ok());
        EXPECT_EQ(writer->recordsDropped(), 0U);
    }

    /// Everything read as one is what was written.
    void expectWhole(std::size_t parts) const {
        auto found = findRecordings({dir_.path()});
        ASSERT_TRUE(found.ok());
        EXPECT_EQ(found.value().size(), parts);
        for (const RecordingReader& one : found.value())
            EXPECT_TRUE(checkRecording(one.directory(), {}).value().findings.empty()) << one.directory();
        const auto joined = RecordingReader::join(std::move(found).value(), "").value();
        EXPECT_TRUE(findBreaks(joined).empty());
        const RecordingEvents events = joined.events();
        EXPECT_EQ(events.faults.size(), 0U);
        ASSERT_EQ(events.outages.size(), 1U) << "one, cut in pieces";
        EXPECT_EQ(events.outages[0].outcome, "back");
        const auto group = joined.openGroup(0);
        ASSERT_TRUE(group.ok());
        ASSERT_EQ(group.value().recordCount(), kRecords);
        auto stream = group.value().read(group.value().all(), 50);
        std::size_t n = 0;
        for (auto batch = stream.next(); batch.value().count > 0; batch = stream.next()) {
            for (std::size_t i = 0; i < batch.value().count; ++i, ++n)
                EXPECT_EQ(Bytes(batch.value().data(i), batch.value().data(i) + 3), test::smallRecord(n));
        }
        EXPECT_EQ(n, kRecords);
        EXPECT_EQ(findGaps(group.value()).value().count, 0U);
        for (std::size_t first = 0; first < kRecords; first += 7) {
            const std::size_t speed = 0;
            const auto range =
                PyramidReader(group.value()).extremes({first, kRecords}, {&speed, 1}).value()[0];
            EXPECT_EQ(range.minimum, (100 + static_cast<double>(first)) / 2);
            EXPECT_EQ(range.maximum, (100 + kRecords - 1) / 2.);
            const std::int64_t at = 1000000000 + static_cast<std::int64_t>(first) * 10000000;
            EXPECT_EQ(group.value().find({at, at + 1}).value().first, first);
        }
    }

    lm::test::TempDir dir_;
};

TEST_F(RecordingPartsTest, LosesNoRecordWhereverItIsSplit) {
    for (std::size_t split = 0; split <= kRecords; ++split) {
        SCOPED_TRACE(split);
        record({split, split + (kRecords - split) / 2});
        expectWhole(3);
        for (std::uint64_t number = 1; number <= 3; ++number)
            fs::remove_all(part(number));
    }
    std::vector<std::size_t> everywhere;
    for (std::size_t split = 1; split < kRecords; ++split)
        everywhere.push_back(split);
    record(everywhere);
    expectWhole(kRecords);
}

TEST_F(RecordingPartsTest, TellsWhatIsMissing) {
    const auto breaks = [this] {
        std::string text;
        for (const PartBreak& one : findBreaks(openRecordings({dir_.path()}).value()))
            text += one.text + (one.isLoss ? " !\n" : "\n");
        return text;
    };
    record({10, 20, 30});
    fs::resize_file(part(2) / "g0000.rec", fs::file_size(part(2) / "g0000.rec") - 5);
    EXPECT_EQ(breaks(), "between 2 and 3: 1 record(s) are missing !\n");
    fs::remove_all(part(1));
    fs::remove_all(part(3));
    EXPECT_EQ(breaks(), "between 2 and 4: 1 part(s) are missing !\n");
    // Another run, a minute later by UTC, on a clock that began again.
    RecordingInfo later = test::smallRecording();
    later.startUtcNs += 60'000'000'000;
    later.startHostNs = 5;
    test::writeSmallRecording(part(9), 3, later);
    EXPECT_EQ(breaks(), "between 2 and 4: 1 part(s) are missing !\nbetween 4 and 9: nothing was recorded\n");
    EXPECT_EQ(openRecordings({dir_.path()}).value().timeSpan().lastNs, 60'999'000'000 + 1'020'000'000 - 5);
    later.groups[0].signals.pop_back();
    test::writeSmallRecording(part(8), 3, later);
    EXPECT_EQ(openRecordings({dir_.path()}).error().text(),
              part(8).string() + ": records other signals than " + part(2).string() +
                  ", the two cannot be read as one");
}

TEST_F(RecordingPartsTest, RemovesTheOldestOfItsOwnPartsAndNothingElse) {
    const lm::test::LogCapture log;
    record({10, 20, 30});
    lm::test::TempDir other;
    test::writeSmallRecording(part(7), 1);
    test::writeFile(part(2) / "notes.txt", "mine");
    std::string removed;
    PartKeeper keeper({"series", "", {}}, {.bytes = 1}, nullptr,
                      [&](const std::string& name) { removed += name; });
    for (const std::uint64_t number : {1, 2, 7, 3})
        keeper.add(part(number));
    keeper.look(0);
    EXPECT_EQ(removed, "123");
    EXPECT_FALSE(fs::exists(part(1)) || fs::exists(part(3)));
    EXPECT_TRUE(fs::exists(part(2) / "notes.txt") && !fs::exists(part(2) / "meta.json"));
    EXPECT_TRUE(RecordingReader::open(part(7)).ok()) << "no part of the series";
    EXPECT_TRUE(RecordingReader::open(part(4)).ok()) << "not closed";
}

TEST_F(RecordingPartsTest, NamesAreFitForFilesAndNeverTakenTwice) {
    const std::string bad[] = {"",   "a/b", "..",   ".x",  "a{b}",
                               "a{", "}",   "a\nb", "a:b", std::string(200, 'x')};
    for (const std::string& pattern : bad)
        EXPECT_FALSE(PartNames::check(pattern).ok()) << pattern;
    const auto name = [this](const PartNames& names, std::uint64_t number) {
        return fs::relative(names.claim(number, 0).value().path, dir_.path()).string();
    };
    const fs::path folder = dir_.path() / "a";
    ASSERT_TRUE(PartNames::check("{ecu}-{n}").ok());
    const auto parts = PartNames::forParts(folder, "{ecu}", "../E:1");
    EXPECT_EQ(name(parts, 1), "a/_.._E_1_0001");
    EXPECT_EQ(name(parts, 1), "a/_.._E_1_0001-2");
    const auto takes = PartNames::forRecordings(folder, "t{n}", "");
    EXPECT_EQ(name(takes, 1), "a/t0001");
    EXPECT_EQ(name(takes, 1), "a/t0002");
}

}  // namespace
}  // namespace lm::storage
