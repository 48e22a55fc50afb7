#include "storage/read/recording_reader.h"

#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "core/file_lock.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/read/signal_selection.h"
#include "storage/recording_fixture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using test::Bytes;
namespace fs = std::filesystem;

class RecordingReaderTest : public ::testing::Test {
  protected:
    fs::path path() const { return dir_.path() / "rec"; }
    fs::path file(const char* name) const { return path() / name; }

    /// One group of a float and a byte, a record per value.
    void record(const std::vector<float>& values, const std::vector<std::int64_t>& times = {}) {
        RecordingInfo info = test::smallRecording();
        info.groups[0].recordSize = 5;
        info.groups[0].signals[0].coding.dataType = value::DataType::float32;
        info.groups[0].signals[0].conversion = std::make_shared<const value::Conversion>();
        info.groups[0].signals[1].recordOffset = 4;
        fs::remove_all(path());
        auto writer = RecordingWriter::create(path(), std::move(info), {}).value();
        for (std::size_t n = 0; n < values.size(); ++n) {
            Bytes data(5);
            writeLittle(data.data(), std::bit_cast<std::uint32_t>(values[n]));
            data[4] = static_cast<std::uint8_t>(n);
            writer->write(0, times.empty() ? static_cast<std::int64_t>(n) : times[n], data.data(), 5);
        }
        ASSERT_TRUE(writer->close().ok());
    }

    lm::test::TempDir dir_;
};

TEST_F(RecordingReaderTest, NoticesAFileThatShrinksOrIsNone) {
    EXPECT_EQ(RecordingReader::open(path()).error().text(), "no recording in " + path().string());
    test::writeSmallRecording(path(), 7);
    const auto recording = RecordingReader::open(path());
    const auto group = recording.value().openGroup(0);
    fs::resize_file(file("meta.json"), (std::uintmax_t{64} << 20U) + 1);
    EXPECT_EQ(RecordingReader::open(path()).error().text(), "meta.json: larger than 64 MiB");
    fs::resize_file(file("g0000.rec"), 100);
    EXPECT_EQ(group.value().read({0, 7}).next().error().text(),
              file("g0000.rec").string() + ": shorter than when it was opened");
    EXPECT_EQ(recording.value().openGroup(0).value().tornBytes(), 2U);
    fs::resize_file(file("g0000.rec"), 31);
    EXPECT_EQ(recording.value().openGroup(0).value().tornBytes(), 31U);
    fs::remove(file("g0000.rec"));
    fs::create_directory(file("g0000.rec"));
    EXPECT_EQ(recording.value().openGroup(0).error().text(),
              "cannot open " + file("g0000.rec").string() + ": not a regular file");
}

// Against a look at every value; levels that are whole, cut, unfit or gone give the same.
TEST_F(RecordingReaderTest, GivesTheExtremesOfAnyStretchWhateverLevelsThereAre) {
    std::mt19937 random(7);
    std::vector<float> values(16 * 16 * 16 + 300);
    for (float& value : values)
        value = random() % 5 == 0 ? NAN : static_cast<float>(static_cast<int>(random() % 2001) - 1000);
    std::fill(values.begin() + 512, values.begin() + 800, NAN);
    record(values);
    const char* const damages[] = {"none", "g0000_L3.pyr", "g0000_L1.pyr", "g0000_L2.pyr"};
    const std::size_t signals[] = {1, 0};
    for (const char* damage : damages) {
        if (fs::exists(file(damage))) fs::resize_file(file(damage), fs::file_size(file(damage)) / 2);
        const auto recording = RecordingReader::open(path());
        const auto group = recording.value().openGroup(0);
        PyramidReader pyramid(group.value());
        for (int i = 0; i < 300; ++i) {
            RecordRange range{random() % values.size(), random() % (values.size() + 1)};
            if (range.end < range.first) std::swap(range.first, range.end);
            if (i == 0) range = group.value().all();
            ValueRange expected;
            for (std::uint64_t n = range.first; n < range.end; ++n) {
                if (values[n] < expected.minimum) expected.minimum = values[n];
                if (values[n] > expected.maximum) expected.maximum = values[n];
            }
            const ValueRange found = pyramid.extremes(range, signals).value()[1];
            ASSERT_EQ(found.minimum, expected.minimum) << damage << ' ' << range.first << ' ' << range.end;
            ASSERT_EQ(found.maximum, expected.maximum) << damage << ' ' << range.first << ' ' << range.end;
        }
    }
}

// One lost record at every place of a block, two together, and with the index cut or gone.
TEST_F(RecordingReaderTest, FindsEveryLostRecordByTheIndex) {
    constexpr std::int64_t kCycle = 10000000;
    for (std::int64_t lost = 1; lost < 40; ++lost) {
        std::vector<std::int64_t> times;
        for (std::int64_t n = 0; n < 60; ++n) {
            if (n != lost && n != 50 && n != 51) times.push_back(n * kCycle + (n % 3) * kCycle / 5);
        }
        record(std::vector<float>(times.size()), times);
        for (const std::uintmax_t indexSize : {80U, 64U, 10U}) {
            fs::resize_file(file("g0000.tix"), indexSize);
            const auto recording = RecordingReader::open(path());
            const auto group = recording.value().openGroup(0);
            const Gaps gaps = findGaps(group.value()).value();
            ASSERT_EQ(gaps.count, 2U) << lost << ' ' << indexSize;
            EXPECT_EQ(gaps.longest.beginNs, 49 * kCycle + kCycle / 5);
            EXPECT_EQ(gaps.longest.lengthNs(), 3 * kCycle);
            EXPECT_FALSE(gaps.isLowerBound);
        }
    }
}

TEST(SignalSelection, PatternsMatchWholeNames) {
    const struct {
        const char* text;
        const char* pattern;
        bool matches;
    } rows[] = {
        {"wave", "wav", false},          {"", "*", true},
        {"wave", "w?v?", true},          {"wave", "w??", false},
        {"Temp.a.b", "*.b", true},       {"aXbXc", "a*X*d", false},
        {"aXbXc", "a*X?", true},         {"Cyl[0]", "Cyl[0]", true},
        {"Stra\u00DFe", "Stra?e", true}, {"a*", "a*", true},
        {"Wave", "wave", false},         {"mississippi", "m*iss*p?", true},
    };
    for (const auto& row : rows)
        EXPECT_EQ(matchesPattern(row.text, row.pattern), row.matches) << row.text << ' ' << row.pattern;
    EXPECT_EQ(selectSignals(test::smallRecording(), {"T*", "*p"}).value().size(), 1U);
    EXPECT_EQ(selectSignals(test::smallRecording(), {"T*", "x*"}).error().text(),
              "no signal matches 'x*' in this recording");
}

TEST(SignalSelection, TimesAreSecondsOrIso8601) {
    const RecordingInfo info = test::smallRecording();  // 2023-11-14T22:13:20Z
    const std::pair<const char*, std::int64_t> rows[] = {
        {"0", 0},
        {"1.5", 1500000000},
        {"-0.25", -250000000},
        {"2023-11-14T22:13:20Z", 0},
        {"2023-11-14T22:13:20.0000000019", 1},
        {"2023-11-14 23:14+01:00", 40000000000},
        {"2023-11-14T22:13:20-0030", 1800000000000},
        {"2023-11-15", 6400000000000},
        {"1e300", 9200000000000000000},
        {"2261-01-01", 7483110400000000000},
    };
    for (const auto& [text, offset] : rows) {
        const auto time = parseRecordingTime(text, info);
        ASSERT_TRUE(time.ok()) << text;
        EXPECT_EQ(time.value(), info.startHostNs + offset) << text;
    }
    for (const char* text : {"", "x", "1s", "nan", "inf", "2023-02-30", "2023-11-14T", "2023-11-14T25:00",
                             "2023-11-14T22:13:20+1", "2023-11-14T22:13:20Zx", "23-11-14", "1677-01-01"}) {
        EXPECT_FALSE(parseRecordingTime(text, info).ok()) << text;
    }
    EXPECT_EQ(utcText(info.startHostNs - 1, info, 9), "2023-11-14T22:13:19.999999999Z");
    EXPECT_EQ(utcText(info.startHostNs + 1500000000, info, 0), "2023-11-14T22:13:21Z");
}

}  // namespace
}  // namespace lm::storage
