#include "a2l/object.h"

#include <limits>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lm::a2l {
namespace {

constexpr const char* kText = R"A2L(
/begin PROJECT P "" /begin MODULE M ""
/begin MOD_COMMON "" BYTE_ORDER MSB_FIRST /end MOD_COMMON
/begin MOD_PAR "" SYSTEM_CONSTANT "K" "2" /end MOD_PAR
/begin MEASUREMENT speed "vehicle speed" UWORD LIN 0 0 0 100 ECU_ADDRESS 0x1000 ECU_ADDRESS_EXTENSION 3
  BIT_MASK 0xFF0 FORMAT "%4.1" PHYS_UNIT "mph" DISPLAY_IDENTIFIER v BYTE_ORDER MSB_LAST READ_WRITE
  /begin IF_DATA XCP /begin DAQ_EVENT FIXED_EVENT_LIST EVENT 2 EVENT 7 /end DAQ_EVENT /end IF_DATA /end MEASUREMENT
/begin MEASUREMENT plain "" A_INT64 NO_COMPU_METHOD 0 0 -1e30 1e30 ECU_ADDRESS 8 /end MEASUREMENT
/begin MEASUREMENT adrift "" UBYTE NO_COMPU_METHOD 0 0 0 1 /end MEASUREMENT
/begin MEASUREMENT zero "" UBYTE NO_COMPU_METHOD 0 0 0 1 ECU_ADDRESS 0x0 /end MEASUREMENT
/begin MEASUREMENT lost "" UBYTE GONE 0 0 0 1 ECU_ADDRESS 1 /end MEASUREMENT
/begin MEASUREMENT noTab "" UBYTE NOTAB 0 0 0 1 ECU_ADDRESS 1 /end MEASUREMENT
/begin MEASUREMENT badForm "" UBYTE BADFORM 0 0 0 1 ECU_ADDRESS 1 /end MEASUREMENT
/begin MEASUREMENT badTab "" UBYTE EMPTYTAB 0 0 0 1 ECU_ADDRESS 1 /end MEASUREMENT
/begin CHARACTERISTIC gain "" VALUE 0x2000 L 0 FORMULA 0 100 READ_ONLY /end CHARACTERISTIC
/begin CHARACTERISTIC mode "" VALUE 0x2004 LB 0 VERB 0 20 /end CHARACTERISTIC
/begin CHARACTERISTIC wide "" VALUE 0x2008 L64 0 NO_COMPU_METHOD 0 1e300 /end CHARACTERISTIC
/begin CHARACTERISTIC half "" VALUE 0x2010 LH 0 ROOT -1e300 1e300 /end CHARACTERISTIC
/begin CHARACTERISTIC step "" VALUE 0x2008 LB 0 STEPS 0 300 PHYS_UNIT "" /end CHARACTERISTIC
/begin CHARACTERISTIC stray "" VALUE 0x3000 LGONE 0 LIN 0 1 /end CHARACTERISTIC
/begin COMPU_METHOD LIN "" LINEAR "%6.3" "km/h" COEFFS_LINEAR 2 1 /end COMPU_METHOD
/begin COMPU_METHOD FORMULA "" FORM "%6.3" "Nm" /begin FORMULA "sysc(K)*X" FORMULA_INV "X/sysc(K)" /end FORMULA /end COMPU_METHOD
/begin COMPU_METHOD ROOT "" FORM "%6.3" "" /begin FORMULA "X*X" FORMULA_INV "sqrt(X)" /end FORMULA /end COMPU_METHOD
/begin COMPU_METHOD BADFORM "" FORM "%6.3" "Nm" /begin FORMULA "X*" /end FORMULA /end COMPU_METHOD
/begin COMPU_METHOD VERB "" TAB_VERB "%2.0" "" COMPU_TAB_REF VT /end COMPU_METHOD
/begin COMPU_METHOD STEPS "" TAB_NOINTP "%2.0" "u" COMPU_TAB_REF T /end COMPU_METHOD
/begin COMPU_METHOD EMPTYTAB "" TAB_INTP "%2.0" "" COMPU_TAB_REF T0 /end COMPU_METHOD
/begin COMPU_METHOD NOTAB "" TAB_INTP "%2.0" "" COMPU_TAB_REF VT /end COMPU_METHOD
/begin COMPU_TAB T "" TAB_NOINTP 2 4 256 1 10 DEFAULT_VALUE_NUMERIC 99 /end COMPU_TAB
/begin COMPU_TAB T0 "" TAB_NOINTP 0 /end COMPU_TAB
/begin COMPU_VTAB_RANGE VT "" 3 0 0 "off" 5 9 "on" 30 40 "7" DEFAULT_VALUE "other" /end COMPU_VTAB_RANGE
/begin RECORD_LAYOUT L FNC_VALUES 1 FLOAT32_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LB FNC_VALUES 1 UBYTE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LH FNC_VALUES 1 FLOAT16_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT L64 FNC_VALUES 1 A_UINT64 COLUMN_DIR DIRECT /end RECORD_LAYOUT
/end MODULE /end PROJECT)A2L";

class Objects : public testing::Test {
  protected:
    std::string resolveError(const std::string& name) {
        try {
            resolve(description, name);
        } catch (const ObjectError& error) {
            return error.what();
        }
        return "resolved";
    }

    Description description = parseDescription(kText).value();
};

TEST_F(Objects, CarryWhatTheirRecordsSay) {
    const ResolvedObject speed = resolve(description, "speed");
    EXPECT_EQ(speed.displayName, "v");
    EXPECT_EQ(speed.address, (xcp::Address{0x1000, 3}));
    EXPECT_EQ(speed.coding.byteOrder, ByteOrder::littleEndian);
    EXPECT_EQ(speed.conversion.unit() + speed.conversion.format(3), "mph7.0");
    EXPECT_EQ(speed.events, (std::vector<std::uint16_t>{2, 7}));
    const ResolvedObject gain = resolve(description, "gain");
    EXPECT_EQ(gain.coding.byteOrder, ByteOrder::bigEndian);
    EXPECT_EQ(gain.conversion.unit() + gain.conversion.format(3), "Nm6.000");
    EXPECT_EQ(resolve(description, "step").conversion.unit(), "");
    EXPECT_EQ(resolve(description, "step").conversion.format(2), "99");
    std::string writable;
    for (const char* name : {"speed", "plain", "gain", "mode"})
        writable += resolve(description, name).writable ? 'w' : 'r';
    EXPECT_EQ(writable, "wrrw");
}

TEST_F(Objects, RefusalsNameTheReason) {
    const std::map<std::string, std::string> rows = {
        {"SPEED", "'SPEED' is neither a MEASUREMENT nor a CHARACTERISTIC"},
        {"adrift", "adrift: measurement has no ECU_ADDRESS"},
        {"zero", "resolved"},
        {"lost", "lost: COMPU_METHOD 'GONE' not found"},
        {"noTab", "noTab: COMPU_TAB 'VT' not found"},
        {"badTab", "badTab: conversion table is empty"},
        {"badForm", "badForm: formula 'X*': unexpected end"},
        {"stray", "stray: RECORD_LAYOUT 'LGONE' without FNC_VALUES"}};
    for (const auto& [name, error] : rows)
        EXPECT_EQ(resolveError(name), error);
}

TEST_F(Objects, TypedTextsBecomeBytesOrSayWhyNot) {
    struct Row {
        const char* name;
        const char* text;
        std::uint64_t written;  // as one big-endian number
        std::string error = {};
    };
    // clang-format off
    const Row rows[] = {
        {"gain", "3", 0x3FC00000}, {"gain", "0x10", 0x41000000},
        {"gain", "100.00000005", 0x42480000},
        {"gain", "nan", 0, "gain: nan outside the limits [0, 100]"},
        {"gain", "0x1.8", 0, "gain: '0x1.8' is not a number"}, {"gain", "+-1", 0, "gain: '+-1' is not a number"},
        {"speed", "21", 0xA5A0}, {"mode", "on", 0x05},
        {"mode", "7", 0, "mode: 30 outside the limits [0, 20]"}, {"mode", "8", 0x08},
        {"wide", "009007199254740992", 0x0020000000000000},
        {"wide", "9007199254740993", 0, "wide: '9007199254740993' cannot be held exactly as a 64-bit float"},
        {"wide", "0xFfFfFfFfFfFfF800", 0xFFFFFFFFFFFFF800},
        {"wide", "18446744073709551616", 0, "wide: raw value 18446744073709551616.000000 outside the range of A_UINT64"},
        {"plain", "-0x8000000000000000", 0x8000000000000000},
        {"half", "4292869000", 0x7BFF},
        {"half", "4292870400", 0, "half: raw value 65520 outside the range of FLOAT16_IEEE"},
        {"half", "-1", 0, "half: raw value nan outside the range of FLOAT16_IEEE"}
    };
    // clang-format on
    for (const Row& row : rows) {
        const ResolvedObject object = resolve(description, row.name);
        std::vector<std::uint8_t> bytes(object.size(), 0xA5);
        const std::uint64_t before = readSized(bytes.data(), bytes.size(), ByteOrder::bigEndian);
        const Result<void> result = encodeText(object, row.text, bytes);
        EXPECT_EQ(result ? "" : result.error().text(), row.error);
        EXPECT_EQ(readSized(bytes.data(), bytes.size(), ByteOrder::bigEndian), result ? row.written : before)
            << row.text;
    }
    ResolvedObject longName = resolve(description, "gain");
    longName.name = std::string(150, 'n');
    std::vector<std::uint8_t> bytes(4);
    EXPECT_EQ(encodePhysical(longName, 101, bytes).error().text(), longName.name + ": 101 out");
}

}  // namespace
}  // namespace lm::a2l
