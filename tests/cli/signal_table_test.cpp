#include "cli/signal_table.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "cli/signal_extremes.h"

namespace lm::cli {
namespace {

std::string drawn(SignalTable& table, ScreenSize size, const TableStatus& status,
                  const std::vector<SignalRow>& rows) {
    std::string text;
    for (const ScreenLine& line : table.lines(size, status, 0, rows))
        text += (line.style == ScreenLine::Style::alarm ? "!" : "") + line.text + "|";
    return text;
}

// Losses are told whole at every size; a cut shows, of names in front.
TEST(SignalTable, FitsEverySize) {
    const std::vector<SignalRow> rows = {{"1110.00", "800.00", "1300.00", "100/s"},
                                         {"neutral", "x", "y", "1/s"}};
    const TableStatus status = {"1.0 s", "LOSSES: lost ODTs 3, overloads 12", "message"};
    for (const ScreenSize size :
         {ScreenSize{80, 24}, {62, 24}, {40, 24}, {20, 24}, {9, 24}, {1, 3}, {80, 2}}) {
        SignalTable table({{"Engine.Cyl[0].Temp\u00B0", "rpm"}, {"gear", ""}}, 13);
        for (const ScreenLine& line : table.lines(size, status, 0, rows)) {
            const auto bytes =
                static_cast<std::size_t>(std::count(line.text.begin(), line.text.end(), '\xC2'));
            EXPECT_LE(line.text.size() - bytes, size.width) << line.text;
        }
        EXPECT_LE(table.lines(size, status, 0, rows).size(), size.height);
    }
    SignalTable table({{"Engine.Cyl[0].Temp\u00B0", "rpm"}, {"gear", ""}}, 13);
    EXPECT_EQ(drawn(table, {26, 24}, status, rows),
              "1.0 s|!LOSSES: lost ODTs 3, |!overloads 12|message|signal               value|"
              "...Cyl[0].Temp\u00B0    1110.00|gear               neutral|");
    EXPECT_EQ(table.room({80, 6}, status), 2U);
    EXPECT_EQ(table.room({80, 5}, status), 1U) << "without a line that tells which";
    EXPECT_EQ(table.room({80, 1}, status), 0U);
}

session::PlannedSignal planned(value::DataType type, value::Conversion::Kind kind, std::uint32_t offset) {
    session::PlannedSignal signal;
    signal.element.coding.dataType = type;
    signal.element.conversion = std::make_shared<const value::Conversion>(std::move(kind), "", "");
    signal.recordOffset = offset;
    return signal;
}

// Each signal sees the same bytes, as its type and conversion take them.
TEST(SignalExtremes, KnowTheLeastAndGreatestPhysicalValueOfAllSamples) {
    using Conversion = value::Conversion;
    using value::DataType;
    const std::uint64_t nan = 0x7FF8000000000000;
    const struct {
        DataType type;
        Conversion::Kind kind;
        std::vector<std::uint64_t> samples;
        std::uint64_t least;
        std::uint64_t greatest;
    } rows[] = {
        {DataType::uword, Conversion::Identical{}, {5, 3, 9, 4}, 3, 9},
        {DataType::sword, Conversion::Identical{}, {1, 0xFFFF, 2}, 0xFFFF, 2},
        {DataType::uword, Conversion::Linear{-2, 0}, {5, 3, 9}, 9, 3},
        // Beyond 2^53 doubles are the same.
        {DataType::uint64, Conversion::Identical{}, {~0ULL - 1, ~0ULL, ~0ULL - 2}, ~0ULL - 2, ~0ULL},
        {DataType::int64, Conversion::Linear{-1, 0}, {0, ~0ULL, 1}, 1, ~0ULL},
        // Not a number is none; a curve is compared by what comes out: 1 / raw.
        {DataType::float64,
         Conversion::Identical{},
         {nan, 0x3FF0000000000000, nan},
         0x3FF0000000000000,
         0x3FF0000000000000},
        {DataType::sword, Conversion::Rational{0, 0, 1, 0, 1, 0}, {0xFFFF, 0xFFFE, 1, 2}, 0xFFFF, 1},
    };
    for (const auto& row : rows) {
        session::MeasurementPlan plan;
        plan.planned = {planned(row.type, row.kind, 0)};
        plan.daq.lists.resize(1);
        SignalExtremes extremes;
        extremes.setPlan(plan);
        for (const std::uint64_t sample : row.samples) {
            SignalExtremes::Bytes bytes;
            std::memcpy(bytes.data(), &sample, sizeof(sample));
            xcp::DaqRecord record;
            record.data = bytes.data();
            record.size = bytes.size();
            extremes.onRecord(record);
        }
        SignalExtremes::Snapshot seen;
        extremes.copyTo(seen);
        const auto number = [&](const SignalExtremes::Bytes& bytes) {
            std::uint64_t value = 0;
            std::memcpy(&value, bytes.data(), value::dataTypeSize(row.type));
            return value;
        };
        EXPECT_EQ(number(seen.signals[0].last), row.samples.back());
        EXPECT_EQ(number(seen.signals[0].least), row.least) << row.samples.front();
        EXPECT_EQ(number(seen.signals[0].greatest), row.greatest) << row.samples.front();
        EXPECT_EQ(seen.lists[0].records, row.samples.size());
    }
}

}  // namespace
}  // namespace lm::cli
