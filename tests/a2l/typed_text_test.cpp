#include "a2l/typed_text.h"

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "value/value_text.h"

namespace lm::a2l {
namespace {

using value::Conversion;
using value::DataType;
using value::NumberStyle;
using value::RawCoding;
using value::TablePairs;
using Bytes = std::vector<std::uint8_t>;

const Conversion kHalf(Conversion::Linear{0.5, 0}, "%6.1", "");
const Conversion kTenth(Conversion::Linear{0.1, 0}, "%6.1", "");
const Conversion kSame(Conversion::Rational{}, "%6.0", "");
const std::string kOdd = "9007199254740993";  // the least integer that no double holds

ResolvedObject object(DataType type, Conversion conversion, double lower = -1e300, double upper = 1e300) {
    ResolvedObject made;
    made.name = "o";
    made.coding.dataType = type;
    made.conversion = std::move(conversion);
    made.lowerLimit = lower;
    made.upperLimit = upper;
    return made;
}

// What is typed, what is shown for it, formatted and exact, and what is told; or the error.
TEST(ValueText, TypedNumbersComeBackAsTheyAreHeld) {
    struct Row {
        ResolvedObject object;
        std::string typed, shown, exact, told = {}, toldExact = {};
    };
    const std::string no = " is not possible, the nearest value is ";
    const std::string tooLarge = "o: raw value 18446744073709551616.000000 outside the range of A_UINT64";
    const Conversion verbal(Conversion::VerbalTable{{{1, 1, "on"}}, ""}, "%.0", "");
    ResolvedObject holes = object(DataType::ubyte, {});
    holes.coding.bitMask = 0x50;
    const std::string lost = "2 is not possible, the ECU now holds 0";
    const auto table = [](TablePairs pairs) {
        return object(DataType::ubyte,
                      Conversion(Conversion::NumericTable{true, std::move(pairs), {}}, "%6.2", ""));
    };
    // clang-format off
    const Row rows[] = {
        // Of a table or formula that turns, the nearest value may be far off.
        {table({{0, 0}, {200, 100}, {202, 0}}), "30", "50.00", "50", "30 is not possible, the ECU now holds 50.00", "30 is not possible, the ECU now holds 50"},
        {table({{0, 0}, {100, 400}, {200, 400}}), "30", "32.00", "32", "30" + no + "32.00", "30" + no + "32"},
        {table({{0, 400}, {100, 0}, {200, 0}}), "3", "0.00", "0", "3 is not possible, the ECU now holds 0.00", "3 is not possible, the ECU now holds 0"},
        {holes, "2", "0", "0", lost, lost},
        {object(DataType::uint64, {}), "18446744073709551615", "1.84467e+19", "18446744073709551615"},
        {object(DataType::uint64, kSame), "0xFFFFFFFFFFFFFFFE", "18446744073709551614", "18446744073709551614"},
        {object(DataType::uint64, kSame), "1.8446744073709551613e19", "18446744073709551613", "18446744073709551613"},
        {object(DataType::int64, kSame), "-0x7fffffffffffffff", "-9223372036854775807", "-9223372036854775807"},
        {object(DataType::uint64, kHalf), "4611686018427387904.5", "4611686018427387904.5", "4611686018427387904.5"},
        {object(DataType::uint64, kSame), "9007199254740993.25", kOdd, kOdd, "", "9007199254740993.25" + no + kOdd},
        {object(DataType::uint64, verbal), kOdd, kOdd, kOdd},
        {object(DataType::uint64, kSame), "18446744073709551616", tooLarge, ""},
        // A limit is not sharper than a double; one that is none, is none on its side alone.
        {object(DataType::uint64, kSame, 0, 18446744073709551615.0), "18446744073709551615", "18446744073709551615", "18446744073709551615"},
        {object(DataType::ubyte, {}, -HUGE_VAL, 10), "10.5", "o: 10.5 outside the limits [-inf, 10]", ""},
        {object(DataType::sbyte, {}, -HUGE_VAL, 10), "-100", "-100", "-100"},
        {object(DataType::ubyte, {}, 1, HUGE_VAL), "0.5", "o: 0.5 outside the limits [1, inf]", ""},
        {object(DataType::float32, {}, 1, HUGE_VAL), "nan", "o: nan outside the limits [1, inf]", ""},
        // Floats have the digits that they need, and a step of what is displayed.
        {object(DataType::float32, {}), "0.1", "0.1", "0.1"},
        {object(DataType::float32, kHalf), "16777217", "16777216.0", "16777216", "16777217" + no + "16777216.0", "16777217" + no + "16777216"},
        {object(DataType::float16, {}), "0.1", "0.0999756", "0.1", "0.1" + no + "0.0999756"},
        {object(DataType::float64, {}), kOdd, "9.0072e+15", "9007199254740992"},
        {object(DataType::ubyte, kTenth), "0.3", "0.3", "0.30000000000000004"},
        {object(DataType::ubyte, kTenth), "0.85", "0.9", "0.9", "", "0.85" + no + "0.9"},
        {object(DataType::ubyte, kHalf), "0.85", "1.0", "1", "0.85" + no + "1.0", "0.85" + no + "1"},
        {object(DataType::ubyte, verbal), "1.5", "2", "2", "", "1.5" + no + "2"},
        {object(DataType::ulong, {}), "4000000000", "4e+09", "4000000000"}};
    // clang-format on
    for (const Row& row : rows) {
        for (const NumberStyle style : {NumberStyle::formatted, NumberStyle::exact}) {
            const bool exact = style == NumberStyle::exact;
            Bytes bytes(row.object.size());
            const auto number = encodeText(row.object, row.typed, bytes);
            if (!number) {
                EXPECT_EQ(number.error().text(), row.shown);
                continue;
            }
            const auto& [coding, conversion] = std::tie(row.object.coding, row.object.conversion);
            EXPECT_EQ(value::valueText(bytes.data(), coding, conversion, style),
                      exact ? row.exact : row.shown);
            EXPECT_EQ(deviationText(row.object, row.typed, *number.value(), bytes, style),
                      exact ? row.toldExact : row.told);
        }
    }
}

// clang-format off
const std::string kBits = R"A2L(/begin PROJECT P "" /begin MODULE M ""
/begin MEASUREMENT plain "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0 BIT_MASK 0x0FF0 /end MEASUREMENT
/begin MEASUREMENT signed "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0 BIT_MASK 0x0FF0 /begin BIT_OPERATION RIGHT_SHIFT 4 SIGN_EXTEND /end BIT_OPERATION /end MEASUREMENT
/begin MEASUREMENT inPlace "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0 BIT_MASK 0x0FF0 /begin BIT_OPERATION  /end BIT_OPERATION /end MEASUREMENT
/begin MEASUREMENT cut "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0 BIT_MASK 0x0FF0 /begin BIT_OPERATION RIGHT_SHIFT 6 /end BIT_OPERATION /end MEASUREMENT
/begin MEASUREMENT up "" SWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0  /begin BIT_OPERATION LEFT_SHIFT 4 /end BIT_OPERATION /end MEASUREMENT
/begin MEASUREMENT gone "" UWORD NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0  /begin BIT_OPERATION RIGHT_SHIFT 16 /end BIT_OPERATION /end MEASUREMENT
/begin MEASUREMENT far "" A_UINT64 NO_COMPU_METHOD 0 0 -1e9 1e9 ECU_ADDRESS 0  /begin BIT_OPERATION LEFT_SHIFT 1 /end BIT_OPERATION /end MEASUREMENT
/end MODULE /end PROJECT)A2L";
// clang-format on

TEST(BitOperation, ReplacesTheShiftOfTheMaskBothWays) {
    const Description description = parseDescription(kBits).value();
    struct Row {
        const char* name;
        double read, written;  // of 0xABCD
        Bytes after;
        const char* refused;
    };
    const Row rows[] = {{"plain", 188, 1, {0x1D, 0xA0}, "256"},
                        {"signed", -68, -2, {0xED, 0xAF}, "128"},
                        {"inPlace", 3008, 25, {0x2D, 0xA0}, "4096"},
                        {"cut", 47, 1, {0x4D, 0xA0}, "64"},
                        {"up", -344880, -160, {0xF6, 0xFF}, "524280"}};
    for (const Row& row : rows) {
        const ResolvedObject one = resolve(description, row.name);
        Bytes bytes = {0xCD, 0xAB};
        EXPECT_EQ(value::decodeRaw(bytes.data(), one.coding), row.read) << row.name;
        EXPECT_EQ(decodeExact(bytes.data(), one.coding), row.read) << row.name;
        EXPECT_FALSE(encodeText(one, row.refused, bytes).ok()) << row.name;
        EXPECT_TRUE(value::encodeRaw(row.written, one.coding, bytes).ok()) << row.name;
        EXPECT_EQ(bytes, row.after) << row.name;
    }
    EXPECT_THROW(resolve(description, "gone"), ObjectError);
    EXPECT_THROW(resolve(description, "far"), ObjectError);
}

}  // namespace
}  // namespace lm::a2l
