// Whole objects against memory given byte by byte: where each value lies, what it means, what a write makes
// of the bytes.
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/object_content.h"
#include "a2l/object_name.h"
#include "value/typed_text.h"

namespace lm::a2l {
namespace {

// clang-format off
const std::string kCommon = R"A2L(
/begin MOD_COMMON "" BYTE_ORDER MSB_LAST DEPOSIT ABSOLUTE ALIGNMENT_BYTE 1 ALIGNMENT_WORD 2 ALIGNMENT_LONG 4 ALIGNMENT_FLOAT32_IEEE 4 /end MOD_COMMON
/begin COMPU_METHOD tenth "" LINEAR "%6.1" "" COEFFS_LINEAR 0.1 0 /end COMPU_METHOD
/begin RECORD_LAYOUT L1 NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 SWORD ROW_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LROW FNC_VALUES 1 UBYTE ROW_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LCOL FNC_VALUES 1 UBYTE COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LW FNC_VALUES 1 UWORD ROW_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT L7 AXIS_PTS_X 1 UBYTE INDEX_INCR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT L6 FIX_NO_AXIS_PTS_X 2 AXIS_PTS_X 1 UWORD INDEX_INCR DIRECT FNC_VALUES 2 UWORD ALTERNATE_WITH_X DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LXA AXIS_PTS_X 1 UBYTE INDEX_INCR DIRECT AXIS_PTS_Y 3 UBYTE INDEX_INCR DIRECT FNC_VALUES 2 UBYTE ALTERNATE_WITH_X DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT L10 NO_AXIS_PTS_X 1 UBYTE AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT FNC_VALUES 3 UWORD ROW_DIR PLONG /end RECORD_LAYOUT
/begin RECORD_LAYOUT LRES NO_RESCALE_X 1 UBYTE RESERVED 2 BYTE AXIS_RESCALE_X 3 UBYTE 5 INDEX_INCR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LFIX OFFSET_X 1 UBYTE SHIFT_OP_X 2 UBYTE NO_AXIS_PTS_X 3 UBYTE FNC_VALUES 4 UBYTE ROW_DIR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LBEFORE IDENTIFICATION 1 UWORD RESERVED 2 BYTE FNC_VALUES 4 UWORD ROW_DIR DIRECT /end RECORD_LAYOUT
/begin AXIS_PTS ax7 "" 0x3200 NO_INPUT_QUANTITY L7 0 NO_COMPU_METHOD 4 0 255 DEPOSIT DIFFERENCE /end AXIS_PTS
/begin AXIS_PTS res "" 0x3400 NO_INPUT_QUANTITY LRES 0 NO_COMPU_METHOD 5 0 255 /end AXIS_PTS
/begin CHARACTERISTIC t8 "" ASCII 0x3300 LROW 0 NO_COMPU_METHOD 0 255 NUMBER 8 /end CHARACTERISTIC
/begin CHARACTERISTIC t16 "" ASCII 0x3300 LROW 0 NO_COMPU_METHOD 0 255 NUMBER 8 ENCODING UTF16 BYTE_ORDER MSB_FIRST /end CHARACTERISTIC
/begin CHARACTERISTIC late "" VALUE 0x1101 LBEFORE 0 NO_COMPU_METHOD 0 65535 /end CHARACTERISTIC
/begin TYPEDEF_MEASUREMENT tA "" ULONG NO_COMPU_METHOD 0 0 0 1000 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_MEASUREMENT tB "" UWORD NO_COMPU_METHOD 0 0 0 1000 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_MEASUREMENT tC "" SBYTE NO_COMPU_METHOD 0 0 -100 100 /end TYPEDEF_MEASUREMENT
/begin TYPEDEF_CHARACTERISTIC tCurve "" CURVE LROW 0 NO_COMPU_METHOD 0 255
  /begin AXIS_DESCR COM_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 4 0 255 AXIS_PTS_REF THIS.ax /end AXIS_DESCR /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_AXIS tAxis "" NO_INPUT_QUANTITY L7 0 NO_COMPU_METHOD 2 0 255 /end TYPEDEF_AXIS
/begin TYPEDEF_STRUCTURE S "" 12 /begin STRUCTURE_COMPONENT a tA 0 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT b tB 4 MATRIX_DIM 3 /end STRUCTURE_COMPONENT /begin STRUCTURE_COMPONENT c tC 10 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin TYPEDEF_STRUCTURE T "" 4 ADDRESS_TYPE PLONG /begin STRUCTURE_COMPONENT ax tAxis 0 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT curve tCurve 2 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin INSTANCE inst "" S 0x4000 MATRIX_DIM 2 /end INSTANCE
/begin INSTANCE away "" T 0x7000 READ_WRITE /begin OVERWRITE curve 0 CONVERSION tenth /end OVERWRITE /end INSTANCE
/begin BLOB blob "" 0x4000 2 /end BLOB
/begin RECORD_LAYOUT L64 AXIS_PTS_X 1 A_UINT64 INDEX_INCR DIRECT /end RECORD_LAYOUT
/begin RECORD_LAYOUT LF AXIS_PTS_X 1 FLOAT32_IEEE INDEX_INCR DIRECT /end RECORD_LAYOUT
/begin COMPU_METHOD plus "" LINEAR "%9.2" "" COEFFS_LINEAR 0.1 3 /end COMPU_METHOD
/begin AXIS_PTS ax64 "" 0x100 NO_INPUT_QUANTITY L64 0 NO_COMPU_METHOD 1 0 1e20 DEPOSIT DIFFERENCE /end AXIS_PTS
/begin AXIS_PTS axf "" 0x100 NO_INPUT_QUANTITY LF 0 plus 3 0 100 DEPOSIT DIFFERENCE MONOTONY MON_DECREASE /end AXIS_PTS
/begin AXIS_PTS axe "" 0x100 NO_INPUT_QUANTITY L7 0 NO_COMPU_METHOD 3 0 255 MONOTONY STRICT_MON CALIBRATION_ACCESS OFFLINE_CALIBRATION /end AXIS_PTS
/begin TYPEDEF_CHARACTERISTIC tStd "" CURVE L1 0 NO_COMPU_METHOD -100 1000
  /begin AXIS_DESCR STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 4 0 255 /end AXIS_DESCR /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_CHARACTERISTIC tText "" ASCII LROW 0 NO_COMPU_METHOD 0 255 NUMBER 3 /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_STRUCTURE A "" 99 /begin STRUCTURE_COMPONENT ax tAxis 0 MATRIX_DIM 2 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT curve tAt1 4 MATRIX_DIM 3 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT std tStd 10 MATRIX_DIM 2 /end STRUCTURE_COMPONENT
  /begin STRUCTURE_COMPONENT text tText 42 MATRIX_DIM 2 /end STRUCTURE_COMPONENT /end TYPEDEF_STRUCTURE
/begin TYPEDEF_CHARACTERISTIC tAt1 "" CURVE LROW 0 NO_COMPU_METHOD 0 255
  /begin AXIS_DESCR COM_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 9 0 255 AXIS_PTS_REF THIS.ax[1] /end AXIS_DESCR /end TYPEDEF_CHARACTERISTIC
/begin INSTANCE arr "" A 0x8000 /end INSTANCE
/begin TYPEDEF_CHARACTERISTIC tRec "" VALUE LBEFORE 0 NO_COMPU_METHOD 0 65535 /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_CHARACTERISTIC tOdd "" VALUE LODD 0 NO_COMPU_METHOD 0 65535 /end TYPEDEF_CHARACTERISTIC
/begin TYPEDEF_CHARACTERISTIC tPtr "" VALUE LPTR 0 NO_COMPU_METHOD 0 65535 /end TYPEDEF_CHARACTERISTIC
/begin RECORD_LAYOUT LODD RESERVED 1 BYTE FNC_VALUES 2 UWORD ROW_DIR DIRECT RESERVED 3 BYTE /end RECORD_LAYOUT
/begin RECORD_LAYOUT LPTR FNC_VALUES 1 UWORD ROW_DIR PLONG /end RECORD_LAYOUT
/begin INSTANCE rec "" tRec 0x9000 MATRIX_DIM 2 2 /end INSTANCE
/begin INSTANCE odd "" tOdd 0x9000 MATRIX_DIM 2 /end INSTANCE
/begin INSTANCE ptr "" tPtr 0x9000 MATRIX_DIM 2 /end INSTANCE
/begin TYPEDEF_AXIS tBadAxis "" NO_INPUT_QUANTITY L7 0 none_such 2 0 255 /end TYPEDEF_AXIS
/begin INSTANCE badAxis "" tBadAxis 0x9000 /end INSTANCE
)A2L";

std::string curve(const std::string& name, const std::string& place, const std::string& axis) {
    return fmt::format("/begin CHARACTERISTIC {} \"\" {} 0 NO_COMPU_METHOD -100 1000\n"
                       "/begin AXIS_DESCR {} /end AXIS_DESCR /end CHARACTERISTIC\n", name, place, axis);
}

std::string map(const std::string& name, const std::string& place, const std::string& x, const std::string& y) {
    return fmt::format("/begin CHARACTERISTIC {} \"\" {} 0 NO_COMPU_METHOD 0 255\n/begin AXIS_DESCR {} /end AXIS_DESCR"
                       "/begin AXIS_DESCR {} /end AXIS_DESCR /end CHARACTERISTIC\n", name, place, x, y);
}

const std::string kStd4 = "STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 4 0 255 MONOTONY MON_INCREASE";
const std::string kX3 = "STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 3 0 255";
const std::string kY2 = "STD_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 2 0 255";
const std::string kFixX = "FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 3 0 255 FIX_AXIS_PAR_DIST 10 10 3";
const std::string kFixY = "FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 2 0 255 FIX_AXIS_PAR 1 0 2";

std::string cuboid(const std::string& name, const std::string& maps) {
    const std::string axis = "/begin AXIS_DESCR " + kFixY + " /end AXIS_DESCR ";
    return fmt::format("/begin CHARACTERISTIC {} \"\" CUBOID 0x100 LROW 0 NO_COMPU_METHOD 0 255\n{}/begin MAP_LIST {} /end MAP_LIST"
                       " /end CHARACTERISTIC\n", name, axis, maps);
}

const std::string kMemoryText = "/begin PROJECT P \"\" /begin MODULE M \"\"" + kCommon +
    curve("c1", "CURVE 0x1000 L1", kStd4) +
    map("m2r", "MAP 0x1100 LROW", kFixX, kFixY) + map("m2c", "MAP 0x1100 LCOL", kFixX, kFixY) +
    curve("c10", "CURVE 0x5000 L10", kStd4) +
    cuboid("cubm", "m2r m2c") +
    map("mxa", "MAP 0x100 LXA", kX3, kY2) +
    curve("cfix", "CURVE 0x3600 LFIX", "FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 8 0 255") +
    curve("cpart", "CURVE 0x3600 LW", "COM_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 8 0 255 AXIS_PTS_REF badAxis") +
    curve("calt", "CURVE 0x3600 L6", kFixX) +
    map("mxb", "MAP 0x120 LXA", kX3, kY2) + cuboid("cubd", "mxa mxb") +
    "/end MODULE /end PROJECT";
// clang-format on

using Bytes = std::vector<std::uint8_t>;

/// ECU memory that knows a few pieces, and what was read of it.
class Memory {
  public:
    void put(std::uint32_t address, const Bytes& bytes) { pieces_[address] = bytes; }
    Result<Bytes> read(xcp::Address address, std::size_t size) {
        ++reads;
        const auto piece = std::prev(pieces_.upper_bound(address.address));
        const std::size_t offset = address.address - piece->first;
        if (offset + size > piece->second.size())
            return Error{ErrorCode::ioError, fmt::format("no memory at {:x}", address.address)};
        const auto from = piece->second.begin() + static_cast<std::ptrdiff_t>(offset);
        return Bytes(from, from + static_cast<std::ptrdiff_t>(size));
    }
    int reads = 0;

  private:
    std::map<std::uint32_t, Bytes> pieces_ = {{0, {}}};
};

class ObjectsInMemory : public testing::Test {
  protected:
    void put(std::uint32_t address, const Bytes& bytes) { memory.put(address, bytes); }
    Result<ObjectContent> content(const std::string& name) {
        auto object = findObject(description, name);
        if (!object) return object.error();
        return readObject(
            object.value(), [this](auto address, auto size) { return memory.read(address, size); }, 7);
    }
    /// Dimensions, points of the axes, values.
    std::string shown(const std::string& name) {
        const auto read = content(name);
        if (!read) return read.error().text();
        const ObjectContent& c = read.value();
        if (c.placed.object().isText()) return c.text();
        std::string text;
        for (std::size_t i = 0;
             c.placed.object().kind != ObjectKind::axisPoints && i < c.placed.axes().size(); ++i) {
            for (const auto& raw : c.points(i))
                text += fmt::format("{:.4g} ", value::toDouble(c.placed.axes()[i].physical(raw)));
            text += "| ";
        }
        for (std::size_t i = 0; i < c.placed.elementCount(); ++i)
            text += fmt::format("{:.4g}{}", value::toDouble(c.physical(i)),
                                i + 1 < c.placed.elementCount() ? " " : "");
        return text;
    }
    /// As a user types it, and what differs then: "ADDRESS: BYTES" each.
    std::string set(const std::string& text, double value) {
        const auto name = parseObjectName(description, text);
        if (!name) return name.error().text();
        const auto read = content(name.value().object);
        if (!read) return read.error().text();
        const PlacedObject& placed = read.value().placed;
        std::vector<std::uint32_t> dimensions = placed.dimensions();
        if (name.value().axis) dimensions = {placed.axes().at(*name.value().axis).count()};
        const auto numbers = selectElements(name.value(), dimensions);
        if (!numbers) return numbers.error().text();
        std::vector<ObjectChange> changes;
        for (const std::size_t number : numbers.value())
            changes.push_back({name.value().axis, number, value});
        return difference(read.value(), changed(read.value(), changes));
    }
    std::string setText(const std::string& name, std::string_view text) {
        const auto read = content(name);
        return difference(read.value(), changedText(read.value(), text));
    }

    Description description = parseDescription(kMemoryText).value();
    Memory memory;

  private:
    static std::string difference(const ObjectContent& before, const Result<MemoryImage>& after) {
        if (!after) return after.error().text();
        std::string text;
        for (const MemorySpan& span : differences(before, after.value())) {
            const std::uint8_t* const bytes = after.value().at(span.address, span.size);
            text += fmt::format("{}{:X}: {:02X}", text.empty() ? "" : ", ", span.address.address,
                                fmt::join(bytes, bytes + span.size, " "));
        }
        return text;
    }
};

// Layouts, axes and structures of every sort are those of the campaign `objects`; here stands what it leaves
// out.
TEST_F(ObjectsInMemory, AreReadAsTheirLayoutsSay) {
    struct Row {
        const char* name;
        std::map<std::uint32_t, Bytes> memory;
        const char* shown;
    };
    const Bytes c1 = {3, 10, 20, 30, 0xF6, 0xFF, 0, 0, 10, 0};
    const Bytes m2 = {11, 12, 13, 21, 22, 23};
    const Bytes rec = {9, 9, 9, 0, 1, 0, 9, 9, 9, 0, 2, 0, 9, 9, 9, 0, 3, 0, 9, 9, 9, 0, 4, 0};
    const Bytes inst = {1, 0, 0, 0, 10, 0, 20, 0, 30, 0, 0xFB, 0, 2, 0, 0, 0, 40, 0, 50, 0, 60, 0, 5, 0};
    const Row rows[] = {
        {"c1", {{0x1000, c1}}, "10 20 30 | -10 0 10"},
        {"arr.curve[2]", {{0x8002, {3, 4}}, {0x8008, {7, 8}}}, "3 4 | 7 8"},
        {"arr.std[1]", {{0x8018, c1}}, "10 20 30 | -10 0 10"},
        {"arr.text[1]", {{0x802D, {'a', 'b', 'c'}}}, "abc"},
        {"cubm", {{0x1100, m2}}, "10 20 30 | 1 2 | 1 2 | 11 12 13 21 22 23 11 13 22 12 21 23"},
        {"t8", {{0x3300, {0x41, 0x42, 0x43, 0, 0xFF, 0xFF, 0xFF, 0xFF}}}, "ABC"},
        {"t16", {{0x3300, {0, 0x41, 0x20, 0xAC, 0xD8, 0x3D, 0xDE, 0}}}, "A\u20AC\U0001F600"},
        {"res", {{0x3400, {3, 0xFF, 0, 0, 100, 192, 216, 255}}}, "0 0 100 192 216 255"},
        {"blob", {{0x4000, inst}}, "1 0"},
        {"away.curve", {{0x7000, {0, 0x70, 1, 0}}, {0x17000, {1, 2, 3, 4}}}, "1 2 | 0.3 0.4"},
        {"rec", {{0x9000, rec}}, "1 2 3 4"},
        {"rec[1][0]", {{0x9000, rec}}, "2"},
        {"rec[0][1]", {{0x9000, rec}}, "3"},
        {"ptr[1]", {{0x9004, {0, 0x60, 0, 0}}, {0x6000, {7, 0}}}, "7"},
        {"late", {{0x1101, {9, 9, 9, 0x34, 0x12}}}, "4660"},
    };
    for (const Row& row : rows) {
        memory = Memory();
        for (const auto& [address, bytes] : row.memory)
            put(address, bytes);
        EXPECT_EQ(shown(row.name), row.shown) << row.name;
    }
    EXPECT_EQ(findScalar(description, "late").value().element().address.address, 0x1104U);
}

TEST_F(ObjectsInMemory, ChangeInTheBytesThatMustDiffer) {
    put(0x1000, {3, 10, 20, 30, 0xF6, 0xFF, 0, 0, 10, 0});
    put(0x1100, {11, 12, 13, 21, 22, 23});
    put(0x3200, {10, 5, 5, 20});
    put(0x3300, {0x41, 0x42, 0x43, 0, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(set("m2c[2][*]", 9), "1104: 09 09");
    EXPECT_EQ(set("m2r[0]", 0), "1100: 00, 1103: 00");
    EXPECT_EQ(set("c1.x[1]", 31), "c1.x[2]: 30 after 31 breaks MON_INCREASE");
    EXPECT_EQ(set("ax7[1]", 30),
              "ax7[2]: the step from the point before would be -10, which a UBYTE does not hold");
    EXPECT_EQ(setText("t8", "exactly8"), "3300: 65 78 61 63 74 6C 79 38");
    EXPECT_EQ(setText("t8", "\u20AC"),
              "t8: the text has characters beyond U+00FF, the object has one byte for each");
}

TEST_F(ObjectsInMemory, AxesKeepTheirMonotonyAsStored) {
    struct Row {
        const char* name;
        Bytes memory;
        double value;
        const char* differs;
    };
    const Bytes equalFloats = {0, 0, 0x80, 0x40, 0, 0, 0x80, 0xBF, 0, 0, 0, 0};  // 4, then 3, then 3
    const Row rows[] = {
        {"axe[0]", {10, 20, 30}, 80, "axe[1]: 20 after 80 breaks STRICT_MON"},
        {"axe[2]", {10, 20, 30}, 20, "axe[2]: 20 after 20 breaks STRICT_MON"},
        {"axe[*]", {10, 20, 30}, 20, "axe[1]: 20 after 20 breaks STRICT_MON"},
        {"axe[1]", {30, 20, 10}, 15, "101: 0F"},
        {"axe[0]", {10, 30, 20}, 40, "100: 28"},
        {"axe[2]", {10, 30, 20}, 40, "102: 28"},
        {"axe[1]", {10, 10, 10}, 12, "axe[2]: 10 after 12 breaks STRICT_MON"},
        {"axe[2]", {10, 10, 10}, 12, "102: 0C"},
        {"axf[1]", equalFloats, 3.3, ""},
        {"ax64[0]", {0, 0, 0, 0, 0, 0, 0, 0}, 9223372036854775808.0, "100: 00 00 00 00 00 00 00 80"},
    };
    for (const Row& row : rows) {
        put(0x100, row.memory);
        EXPECT_EQ(set(row.name, row.value), row.differs) << row.name << " " << row.value;
    }
    const Object offline = findObject(description, "axe").value();
    EXPECT_FALSE(offline.writable);
    EXPECT_EQ(calibrationAccessName(offline.access), "OFFLINE_CALIBRATION");
}

// More of these are in the whole-program tests of bad objects.
TEST_F(ObjectsInMemory, AreRefusedWhenTheyDoNotFit) {
    struct Row {
        const char* name;
        Bytes memory;
        std::uint32_t address;
        const char* why;
    };
    const Row rows[] = {
        {"c1", {3, 1}, 0x1000, "no memory at 1007"},
        {"c10", {1, 10, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}, 0x5000, "no memory at fffffffe"},
        {"c10", {3, 10, 20, 30, 0xFE, 0xFF, 0xFF, 0xFF}, 0x5000, "c10: reaches beyond the last address"},
        {"cpart", {}, 0, "cpart.x: badAxis: COMPU_METHOD 'none_such' not found"},
        {"odd", {}, 0, "odd: borders put its elements at uneven distances: name one, as in odd[0]"},
        {"ptr", {}, 0, "ptr: each of its elements has a pointer of its own: name one, as in ptr[0]"},
        {"calt",
         {},
         0,
         "calt: RECORD_LAYOUT 'L6' lets the values alternate with an axis that it does not store"},
        {"cubd", Bytes(64, 1), 0x100, "1 1 1 | 1 1 | 1 2 | 1 1 1 1 1 1 1 1 1 1 1 1"},
        {"cubd",
         {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
          0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1, 1},
         0x100,
         "cubd: the maps 'mxa' and 'mxb' of MAP_LIST differ in the points of axis x"},
        {"cfix", {0, 0, 9, 0}, 0x3600, "cfix: 9 points on axis x, at most 8 are possible"},
    };
    for (const Row& row : rows) {
        memory = Memory();
        put(row.address, row.memory);
        EXPECT_EQ(shown(row.name), row.why) << row.name;
    }
}

}  // namespace
}  // namespace lm::a2l
