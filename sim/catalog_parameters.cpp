#include <array>

#include <fmt/format.h>

#include "sim/catalog.h"

namespace lm::sim {
namespace {

using T = DataType;

void addEngine(RowList& rows) {
    rows.add("cal_injector", "Injectors: 0 stops the engine", T::ubyte, "CM.SWITCH")
        .limits(0, 2)
        .initial({1});
    rows.add("cal_idle_speed", "Idle speed target", T::uword, "CM.SPEED").limits(500, 1500).initial({3200});
    rows.add("cal_gain", "Gain of wave and torque", T::float32, "CM.IDENTICAL").limits(0, 10).initial({0, 1});
    rows.add("cal_wave_period", "Period of wave in samples", T::uword, "NO_COMPU_METHOD")
        .limits(2, 60000)
        .initial({1000});
    rows.add("cal_wave_offset", "Offset of wave", T::float64, "CM.IDENTICAL").limits(-1e6, 1e6);
    rows.add("cal_ignition_trim", "Trim of the ignition angle", T::sbyte, "CM.HALF").limits(-20, 20);
    rows.add("cal_pressure_offset", "Offset of the manifold pressure", T::sword, "CM.IDENTICAL")
        .limits(-2000, 2000)
        .attributes("EXTENDED_LIMITS -5000 5000\nFORMAT \"%5.1\"\nPHYS_UNIT \"hPa\"\n");
}

void addParameterTypes(RowList& rows) {
    for (std::size_t i = 0; i < kTypes.size(); ++i) {
        for (const ObjectOrder order : {ObjectOrder::lsbFirst, ObjectOrder::msbFirst}) {
            const char* suffix = order == ObjectOrder::lsbFirst ? "lsb" : "msb";
            rows.add(fmt::format("cal_{}_{}", kTypes[i].label, suffix), "Type matrix", static_cast<T>(i),
                     "NO_COMPU_METHOD")
                .order(order);
        }
    }
}

void addMasked(RowList& rows) {
    rows.add("cal_mode_word", "The word of the three fields below", T::uword, "CM.HEX").initial({0xA5C3});
    rows.add("cal_mode_low", "Bits 0 to 3", T::uword, "CM.IDENTICAL")
        .mask(0x000F, "cal_mode_word")
        .limits(0, 15);
    rows.add("cal_mode_middle", "Bits 4 to 11", T::uword, "CM.IDENTICAL")
        .mask(0x0FF0, "cal_mode_word")
        .limits(0, 255);
    rows.add("cal_mode_signed", "Bits 12 to 15, signed", T::sword, "CM.IDENTICAL")
        .mask(0xF000, "cal_mode_word")
        .limits(-8, 7);
    rows.add("cal_flag_word", "The word of the two fields below", T::ulong, "CM.HEX")
        .order(ObjectOrder::msbFirst)
        .initial({0x12345678});
    rows.add("cal_flag_on", "Top bit", T::ulong, "CM.ON_OFF")
        .order(ObjectOrder::msbFirst)
        .mask(0x80000000, "cal_flag_word")
        .limits(0, 1);
    rows.add("cal_flag_count", "Bits 8 to 23", T::ulong, "CM.IDENTICAL")
        .order(ObjectOrder::msbFirst)
        .mask(0x00FFFF00, "cal_flag_word")
        .limits(0, 65535);
}

void addConverted(RowList& rows) {
    rows.add("cal_gear_preset", "Gear taken at the start", T::ubyte, "CM.GEAR").limits(0, 7).initial({1});
    rows.add("cal_temp_class", "Class of temperature", T::ubyte, "CM.TEMP_CLASS")
        .limits(0, 120)
        .initial({60});
    rows.add("cal_lambda", "Rational function of first degree", T::ubyte, "CM.LAMBDA")
        .limits(0, 450)
        .initial({50});
    rows.add("cal_square", "Rational function of second degree", T::uword, "CM.SQUARE")
        .limits(0, 80)
        .initial({90});
    rows.add("cal_temp_limit", "Interpolated table", T::ubyte, "CM.TEMP").limits(-40, 150).initial({100});
    rows.add("cal_gear_ratio", "Table without interpolation", T::ubyte, "CM.GEAR_RATIO")
        .limits(-1, 4)
        .initial({2});
    rows.add("cal_voltage", "Formula with inverse and system constants", T::uword, "CM.VOLTAGE")
        .limits(0, 20)
        .initial({1250});
    rows.add("cal_root", "Formula without inverse", T::uword, "CM.ROOT").limits(0, 255).initial({144});
}

void addGuarded(RowList& rows) {
    rows.add("cal_limited", "Narrow limits", T::sword, "CM.IDENTICAL").limits(-100, 100).initial({7});
    rows.add("cal_extended", "Limits and wider extended limits", T::ubyte, "CM.IDENTICAL")
        .limits(0, 100)
        .initial({50})
        .attributes("EXTENDED_LIMITS 0 200\nSTEP_SIZE 5\n");
    rows.add("cal_stubborn", "The ECU takes a write and changes nothing", T::uword, "CM.IDENTICAL")
        .initial({4711});
    rows.last().ignoresWrites = true;
    rows.add("cal_protected", "Lies in read-only memory without saying so", T::ulong, "CM.IDENTICAL")
        .place(Place::flash)
        .initial({815});
    rows.add("cal_read_only", "Declared read-only", T::uword, "CM.IDENTICAL")
        .place(Place::flash)
        .initial({42})
        .attributes("READ_ONLY\n");
    rows.add("cal_read_only_ram", "Declared read-only though the ECU would let it be written", T::uword,
             "CM.IDENTICAL")
        .initial({43})
        .attributes("READ_ONLY\n");
}

void addShapes(RowList& rows) {
    rows.add("cal_curve", "Curve of four points: their number, the axis, the values", T::uword,
             "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE", 9)
        .initial({4})
        .attributes("/begin AXIS_DESCR STD_AXIS engine_speed CM.SPEED 4 0 16383.75\n/end AXIS_DESCR\n");
    rows.add("cal_label", "Text of 16 characters", T::ubyte, "CM.IDENTICAL")
        .shape("ASCII", "RL.UBYTE", 16)
        .initial({'A'})
        .attributes("NUMBER 16\n");
    rows.add("cal_block", "Block of four values", T::sword, "CM.IDENTICAL")
        .shape("VAL_BLK", "RL.SWORD", 4)
        .attributes("MATRIX_DIM 4 1 1\n");
    rows.add("cal_virtual", "Computed from another object, without memory", T::uword, "CM.IDENTICAL")
        .place(Place::nowhere)
        .attributes("/begin VIRTUAL_CHARACTERISTIC \"X1 * 2\" cal_limited\n/end VIRTUAL_CHARACTERISTIC\n");
    rows.add("cal_no_values", "Its record layout has no values", T::uword, "CM.IDENTICAL")
        .shape("VALUE", "RL.EMPTY", 1);
}

/// Words that the model writes too: only a change of single bits leaves its bits alone.
void addShared(RowList& rows) {
    rows.add("cal_control_word", "The word of the fields below and of control_alive", T::ulong, "CM.HEX")
        .initial({0x00003200});
    rows.add("cal_control_pump", "Bit 0", T::ulong, "CM.ON_OFF").mask(0x01, "cal_control_word").limits(0, 1);
    rows.add("cal_control_fan", "Bits 1 to 3", T::ulong, "CM.IDENTICAL")
        .mask(0x0E, "cal_control_word")
        .limits(0, 7);
    rows.add("cal_control_level", "Bits 8 to 23", T::ulong, "CM.IDENTICAL")
        .mask(0x00FFFF00, "cal_control_word")
        .limits(0, 65535);
}

}  // namespace

std::vector<Row> parameterRows() {
    RowList list;
    addEngine(list);
    addParameterTypes(list);
    addMasked(list);
    addConverted(list);
    addGuarded(list);
    addShapes(list);
    addTables(list);
    addShared(list);
    std::vector<Row> rows = list.take();
    for (Row& row : rows) {
        if (row.kind == Kind::measurement) row.kind = Kind::characteristic;
        if (row.place == Place::signals) row.place = Place::parameters;
    }
    return rows;
}

}  // namespace lm::sim
