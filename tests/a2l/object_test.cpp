#include "a2l/object.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "a2l/object_error.h"
#include "value/typed_text.h"

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
/begin CHARACTERISTIC step "" VALUE 0x2008 LB 0 STEPS 0 300 PHYS_UNIT "" /end CHARACTERISTIC
/begin CHARACTERISTIC noLow "" VALUE 0x2010 LF16 0 NO_COMPU_METHOD -1e400 10 BIT_MASK 0 /end CHARACTERISTIC
/begin CHARACTERISTIC noHigh "" VALUE 0x2010 LF16 0 NO_COMPU_METHOD -10 1e400 /end CHARACTERISTIC
/begin CHARACTERISTIC masked0 "" VALUE 0x2010 LB 0 NO_COMPU_METHOD 0 1 BIT_MASK 0x0 /end CHARACTERISTIC
/begin CHARACTERISTIC pointer "" VALUE 0x2010 LP 0 NO_COMPU_METHOD 0 1 /end CHARACTERISTIC
/begin MEASUREMENT pointed "" UWORD NO_COMPU_METHOD 0 0 0 1 ECU_ADDRESS 0 ADDRESS_TYPE PWORD /end MEASUREMENT
/begin MEASUREMENT direct "" UWORD NO_COMPU_METHOD 0 0 0 1 ECU_ADDRESS 0 ADDRESS_TYPE DIRECT /end MEASUREMENT
/begin MEASUREMENT swapped "" ULONG NO_COMPU_METHOD 0 0 0 1 ECU_ADDRESS 0 BYTE_ORDER MSB_FIRST_MSW_LAST /end MEASUREMENT
/begin CHARACTERISTIC stray "" VALUE 0x3000 LGONE 0 LIN 0 1 /end CHARACTERISTIC
/begin COMPU_METHOD LIN "" LINEAR "%6.3" "km/h" COEFFS_LINEAR 2 1 /end COMPU_METHOD
/begin COMPU_METHOD FORMULA "" FORM "%6.3" "Nm" /begin FORMULA "sysc(K)*X" FORMULA_INV "X/sysc(K)" /end FORMULA /end COMPU_METHOD
/begin COMPU_METHOD BADFORM "" FORM "%6.3" "Nm" /begin FORMULA "X*" /end FORMULA /end COMPU_METHOD
/begin COMPU_METHOD VERB "" TAB_VERB "%2.0" "" COMPU_TAB_REF VT /end COMPU_METHOD
/begin COMPU_METHOD STEPS "" TAB_NOINTP "%2.0" "u" COMPU_TAB_REF T /end COMPU_METHOD
/begin COMPU_METHOD EMPTYTAB "" TAB_INTP "%2.0" "" COMPU_TAB_REF T0 /end COMPU_METHOD
/begin COMPU_METHOD NOTAB "" TAB_INTP "%2.0" "" COMPU_TAB_REF VT /end COMPU_METHOD
/begin COMPU_TAB T "" TAB_NOINTP 2 4 256 1 10 DEFAULT_VALUE_NUMERIC 99 /end COMPU_TAB
/begin COMPU_TAB T0 "" TAB_NOINTP 0 /end COMPU_TAB
/begin COMPU_VTAB_RANGE VT "" 3 0 0 "off" 5 9 "on" 30 40 "7" DEFAULT_VALUE "other" /end COMPU_VTAB_RANGE
/begin RECORD_LAYOUT L FNC_VALUES 1 FLOAT32_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LF16 FNC_VALUES 1 FLOAT16_IEEE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LP FNC_VALUES 1 UBYTE COLUMN_DIR PLONGLONG /end RECORD_LAYOUT
/begin RECORD_LAYOUT LB FNC_VALUES 1 UBYTE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/end MODULE /end PROJECT)A2L";

class Objects : public testing::Test {
  protected:
    std::string findError(const std::string& name) {
        const auto object = findScalar(description, name);
        return object ? "resolved" : object.error().text();
    }

    Description description = parseDescription(kText).value();
};

TEST_F(Objects, CarryWhatTheirRecordsSay) {
    const Object speed = resolve(description, "speed");
    const auto unitAndText = [this](const char* name, double raw) {
        const value::Element element = resolve(description, name).element();
        return element.conversion->unit() + element.conversion->format(raw);
    };
    EXPECT_EQ(speed.displayName, "v");
    EXPECT_EQ(speed.element().address, (xcp::Address{0x1000, 3}));
    EXPECT_EQ(speed.element().coding.byteOrder, ByteOrder::littleEndian);
    EXPECT_EQ(speed.events, (std::vector<std::uint16_t>{2, 7}));
    EXPECT_EQ(resolve(description, "gain").element().coding.byteOrder, ByteOrder::bigEndian);
    EXPECT_EQ(unitAndText("speed", 3) + unitAndText("gain", 3) + unitAndText("step", 2), "mph7.0Nm6.00099");
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
        {"pointer", "pointer: at its address lies a pointer to the value, which is not supported yet"},
        {"pointed", "pointed: at its address lies a pointer to the value, which is not supported yet"},
        {"direct", "resolved"},
        {"swapped", "swapped: a BYTE_ORDER that swaps words is not supported"},
        {"stray", "stray: RECORD_LAYOUT 'LGONE' without FNC_VALUES"}};
    for (const auto& [name, error] : rows)
        EXPECT_EQ(findError(name), error);
    value::Element longName = resolve(description, "gain").element();
    longName.name = std::string(150, 'n');
    std::vector<std::uint8_t> bytes(4);
    EXPECT_EQ(value::encodePhysical(longName, 101.0, bytes).error().text(), longName.name + ": 101 out");
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
        std::vector<std::uint8_t> after;
        double refused;
    };
    const Row rows[] = {{"plain", 188, 1, {0x1D, 0xA0}, 256},
                        {"signed", -68, -2, {0xED, 0xAF}, 128},
                        {"inPlace", 3008, 25, {0x2D, 0xA0}, 4096},
                        {"cut", 47, 1, {0x4D, 0xA0}, 64},
                        {"up", -344880, -160, {0xF6, 0xFF}, 524280}};
    for (const Row& row : rows) {
        const value::Element one = findScalar(description, row.name).value().element();
        std::vector<std::uint8_t> bytes = {0xCD, 0xAB};
        EXPECT_EQ(value::toDouble(value::rawValue(one, bytes.data())), row.read) << row.name;
        EXPECT_FALSE(value::encodePhysical(one, row.refused, bytes).ok()) << row.name;
        EXPECT_TRUE(value::encodeRaw(row.written, one.coding, bytes).ok()) << row.name;
        EXPECT_EQ(bytes, row.after) << row.name;
    }
    EXPECT_FALSE(findScalar(description, "gone").ok());
    EXPECT_THROW(resolve(description, "far"), ObjectError);
}

}  // namespace
}  // namespace lm::a2l
