#include "exporter/mf4_conversion.h"

#include <limits>
#include <utility>

#include <gtest/gtest.h>

namespace lm::exporter {
namespace {

using value::Conversion;

// What whole-program tests cannot say in the doubles of their own: keys next to which no whole number is one.
TEST(Mf4Conversion, KeysAtTheEndsOf64BitsAndNoKeys) {
    const auto values = [](Conversion::Kind kind) {
        storage::SignalInfo signal;
        signal.coding.dataType = value::DataType::uint64;
        signal.conversion = std::make_shared<const Conversion>(std::move(kind), "", "");
        return mf4Conversion(signal).values;
    };
    const auto steps = [&](value::TablePairs pairs) {
        return values(Conversion::NumericTable{false, std::move(pairs), 5.0});
    };
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    using Values = std::vector<double>;
    EXPECT_EQ(steps({{0x1p60, 1}}), (Values{0x1p60 - 128, 5, 0x1p60, 1, 0x1p60 + 256, 5}));
    EXPECT_EQ(steps({{0.5, 1}, {2, 3}, {3, 4}, {kInfinity, 2}}), (Values{1, 5, 2, 3, 3, 4, 4, 5}));
    EXPECT_EQ(steps({{0.5, 1}}), (Values{0, 5, 1, 5}));
    EXPECT_EQ(values(Conversion::VerbalTable{{{-1, 3, "low"}, {0x1p63, 1e30, "high"}}, ""}),
              (Values{0, 3, 0x1p63, 0x1p64}));
}

}  // namespace
}  // namespace lm::exporter
