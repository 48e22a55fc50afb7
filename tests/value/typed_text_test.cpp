#include "value/typed_text.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lm::value {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Conversion kHalf(Conversion::Linear{0.5, 0}, "%6.1", "");
const Conversion kQuarter(Conversion::Linear{0.25, 0}, "%6.1", "");
const Conversion kNext(Conversion::Linear{1, 1}, "%6.0", "");
const Conversion kTurned(Conversion::Rational{0, -1, 3, 0, 0, 1}, "%6.0", "");  // 3 - raw
const Conversion kTriple(Conversion::Linear{3, -2}, "%6.0", "");
const Conversion kTenth(Conversion::Linear{0.1, 0}, "%6.1", "");
const Conversion kSame(Conversion::Rational{}, "%6.0", "");
const std::string kOdd = "9007199254740993";  // the least integer that no double holds

Element element(DataType type, Conversion conversion, double lower = -1e300, double upper = 1e300) {
    Element made;
    made.name = "o";
    made.coding.dataType = type;
    made.conversion = std::make_shared<const Conversion>(std::move(conversion));
    made.lowerLimit = lower;
    made.upperLimit = upper;
    return made;
}

// What is typed, what is shown for it, formatted and exact, and what is told; or the error.
TEST(ValueText, TypedNumbersComeBackAsTheyAreHeld) {
    struct Row {
        Element element;
        std::string typed, shown, exact, told = {}, toldExact = {};
    };
    const std::string no = " is not possible, the nearest value is ";
    const std::string tooLarge = "o: raw value 18446744073709551616.000000 outside the range of A_UINT64";
    const Conversion verbal(Conversion::VerbalTable{{{1, 1, "on"}}, ""}, "%.0", "");
    Element holes = element(DataType::ubyte, {});
    holes.coding.bitMask = 0x50;
    const std::string lost = "2 is not possible, the ECU now holds 0";
    const auto table = [](TablePairs pairs) {
        return element(DataType::ubyte,
                       Conversion(Conversion::NumericTable{true, std::move(pairs), {}}, "%6.2", ""));
    };
    // clang-format off
    const Row rows[] = {
        // Of a table or formula that turns, the nearest value may be far off.
        {table({{0, 0}, {200, 100}, {202, 0}}), "30", "50.00", "50", "30 is not possible, the ECU now holds 50.00", "30 is not possible, the ECU now holds 50"},
        {table({{0, 0}, {100, 400}, {200, 400}}), "30", "32.00", "32", "30" + no + "32.00", "30" + no + "32"},
        {table({{0, 400}, {100, 0}, {200, 0}}), "3", "0.00", "0", "3 is not possible, the ECU now holds 0.00", "3 is not possible, the ECU now holds 0"},
        {holes, "2", "0", "0", lost, lost},
        {element(DataType::uint64, {}), "18446744073709551615", "1.84467e+19", "18446744073709551615"},
        {element(DataType::uint64, kSame), "0xFFFFFFFFFFFFFFFE", "18446744073709551614", "18446744073709551614"},
        {element(DataType::uint64, kSame), "1.8446744073709551613e19", "18446744073709551613", "18446744073709551613"},
        {element(DataType::int64, kSame), "-0x7fffffffffffffff", "-9223372036854775807", "-9223372036854775807"},
        {element(DataType::uint64, kHalf), "4611686018427387904.5", "4611686018427387904.5", "4611686018427387904.5"},
        {element(DataType::uint64, kQuarter), "4611686018427387903.75", "4611686018427387903.8", "4611686018427387903.75"},
        {element(DataType::uint64, kNext), "18446744073709551616", "18446744073709551616", "18446744073709551616"},
        {element(DataType::uint64, kNext), "0", "o: raw value -1.000000 outside the range of A_UINT64", ""},
        {element(DataType::int64, kTurned), "-9223372036854775804", "-9223372036854775804", "-9223372036854775804"},
        {element(DataType::uint64, kTriple), "27021597764222978", "27021597764222977", "27021597764222977", "27021597764222978" + no + "27021597764222977", "27021597764222978" + no + "27021597764222977"},
        {element(DataType::uint64, kSame), "9007199254740993.25", kOdd, kOdd, "", "9007199254740993.25" + no + kOdd},
        {element(DataType::uint64, verbal), kOdd, kOdd, kOdd},
        {element(DataType::uint64, kSame), "18446744073709551616", tooLarge, ""},
        // A limit is not sharper than a double; one that is none, is none on its side alone.
        {element(DataType::uint64, kSame, 0, 18446744073709551615.0), "18446744073709551615", "18446744073709551615", "18446744073709551615"},
        {element(DataType::ubyte, {}, -HUGE_VAL, 10), "10.5", "o: 10.5 outside the limits [-inf, 10]", ""},
        {element(DataType::sbyte, {}, -HUGE_VAL, 10), "-100", "-100", "-100"},
        {element(DataType::ubyte, {}, 1, HUGE_VAL), "0.5", "o: 0.5 outside the limits [1, inf]", ""},
        {element(DataType::float32, {}, 1, HUGE_VAL), "nan", "o: nan outside the limits [1, inf]", ""},
        // Floats have the digits that they need, and a step of what is displayed.
        {element(DataType::float32, {}), "0.1", "0.1", "0.1"},
        {element(DataType::float32, kHalf), "16777217", "16777216.0", "16777216", "16777217" + no + "16777216.0", "16777217" + no + "16777216"},
        {element(DataType::float16, {}), "0.1", "0.0999756", "0.1", "0.1" + no + "0.0999756"},
        {element(DataType::float64, {}), kOdd, "9.0072e+15", "9007199254740992"},
        {element(DataType::ubyte, kTenth), "0.3", "0.3", "0.30000000000000004"},
        {element(DataType::ubyte, kTenth), "0.85", "0.9", "0.9", "", "0.85" + no + "0.9"},
        {element(DataType::ubyte, kHalf), "0.85", "1.0", "1", "0.85" + no + "1.0", "0.85" + no + "1"},
        {element(DataType::ubyte, verbal), "1.5", "2", "2", "", "1.5" + no + "2"},
        {element(DataType::ulong, {}), "4000000000", "4e+09", "4000000000"}};
    // clang-format on
    for (const Row& row : rows) {
        for (const NumberStyle style : {NumberStyle::formatted, NumberStyle::exact}) {
            const bool exact = style == NumberStyle::exact;
            Bytes bytes(row.element.size());
            const auto number = parseText(row.element, row.typed).value();
            if (const auto encoded = encodePhysical(row.element, number, bytes); !encoded) {
                EXPECT_EQ(encoded.error().text(), row.shown);
                continue;
            }
            EXPECT_EQ(valueText(row.element, bytes.data(), style), exact ? row.exact : row.shown);
            EXPECT_EQ(deviationText(row.element, row.typed, number, bytes, style),
                      exact ? row.toldExact : row.told);
        }
    }
}

}  // namespace
}  // namespace lm::value
