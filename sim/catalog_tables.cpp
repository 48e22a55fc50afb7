#include <string_view>

#include "sim/catalog.h"

// Axes, curves, maps, blocks, texts and structures. Axis points and values are raw.
namespace lm::sim {
namespace {

using T = DataType;

constexpr int kMapPoints = 8;

std::vector<double> text(std::string_view words, std::size_t room) {
    std::vector<double> bytes;
    for (const char letter : words)
        bytes.push_back(static_cast<unsigned char>(letter));
    bytes.resize(room, 0);
    return bytes;
}

/// Half degrees: more with the speed, less with the load.
std::vector<double> ignitionValues() {
    std::vector<double> values;
    for (int y = 0; y < kMapPoints; ++y) {
        for (int x = 0; x < kMapPoints; ++x)
            values.push_back(24 + 5 * x - 3 * y);
    }
    return values;
}

RowList& axis(RowList& rows, const char* name, const char* description, T type, const char* conversion,
              const char* input) {
    rows.add(name, description, type, conversion).kind(Kind::axisPoints);
    rows.last().input = input;
    return rows;
}

/// The curve and the map that the model uses, with the shared axes of the map.
void addModelTables(RowList& rows) {
    axis(rows, "cal_speed_axis", "Speeds of maps, their number in memory", T::uword, "CM.SPEED",
         "engine_speed")
        .shape("AXIS_PTS", "RL.AXIS_COUNTED", kMapPoints)
        .limits(0, 16383.75)
        .attributes("MONOTONY STRICT_INCREASE\n")
        .record({{T::uword, {kMapPoints}, Role::count},
                 {T::uword, {0}},
                 {T::uword, {2000, 3000, 4000, 5000, 6000, 10000, 16000, 24000}, Role::points}});
    axis(rows, "cal_load_axis", "Loads of maps", T::float32, "CM.IDENTICAL", "rel_load")
        .shape("AXIS_PTS", "RL.AXIS_FLOAT32_IEEE", kMapPoints)
        .limits(0, 100)
        .attributes("MONOTONY STRICT_INCREASE\nPHYS_UNIT \"%\"\n")
        .record({{T::float32, {0, 15, 30, 45, 60, 75, 90, 100}, Role::points}});
    rows.add("cal_ignition_map", "Ignition advance over speed and load", T::sbyte, "CM.HALF")
        .shape("MAP", "RL.ROWS_SBYTE", 1)
        .limits(-20, 60)
        .attributes(
            "/begin AXIS_DESCR COM_AXIS engine_speed CM.SPEED 8 0 16383.75\n"
            "  AXIS_PTS_REF cal_speed_axis\n"
            "/end AXIS_DESCR\n"
            "/begin AXIS_DESCR COM_AXIS rel_load CM.IDENTICAL 8 0 100\n"
            "  AXIS_PTS_REF cal_load_axis\n"
            "  PHYS_UNIT \"%\"\n"
            "/end AXIS_DESCR\n")
        .record({{T::sbyte, ignitionValues(), Role::values}});
    rows.add("cal_torque_curve", "Torque that the driver asks for", T::float32, "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE_COUNTED", 1)
        .limits(-100, 1000)
        .attributes(
            "PHYS_UNIT \"Nm\"\n"
            "/begin AXIS_DESCR STD_AXIS throttle CM.PERCENT 8 0 100\n"
            "  MONOTONY STRICT_INCREASE\n"
            "/end AXIS_DESCR\n")
        .record({{T::ubyte, {8}, Role::count},
                 {T::ubyte, {0, 26, 51, 102, 153, 204, 230, 255}, Role::points},
                 {T::float32, {-20, 15, 60, 130, 190, 230, 245, 250}, Role::values}});
}

void addFixedAxes(RowList& rows) {
    rows.add("cal_fan_curve", "Fixed axis: 6 points from 60, every 10", T::uword, "CM.IDENTICAL")
        .shape("CURVE", "RL.UWORD", 1)
        .limits(0, 5000)
        .attributes(
            "/begin AXIS_DESCR FIX_AXIS NO_INPUT_QUANTITY CM.IDENTICAL 6 0 200\n"
            "  FIX_AXIS_PAR_DIST 60 10 6\n"
            "/end AXIS_DESCR\n")
        .record({{T::uword, {0, 0, 800, 1500, 2500, 3000}}});
    rows.add("cal_lambda_map", "Fixed axes: a shift and a list", T::ubyte, "CM.LAMBDA")
        .shape("MAP", "RL.ROWS_UBYTE", 1)
        .limits(0, 1000)
        .attributes(
            "/begin AXIS_DESCR FIX_AXIS engine_speed CM.SPEED 4 0 16383.75\n"
            "  FIX_AXIS_PAR 4000 11 4\n"
            "/end AXIS_DESCR\n"
            "/begin AXIS_DESCR FIX_AXIS rel_load CM.IDENTICAL 3 0 100\n"
            "  /begin FIX_AXIS_PAR_LIST 20 50 95\n"
            "  /end FIX_AXIS_PAR_LIST\n"
            "/end AXIS_DESCR\n")
        .record({{T::ubyte, {100, 100, 100, 100, 99, 99, 98, 98, 95, 94, 92, 90}}});
    rows.add("cal_step_curve", "Fixed axis with offset and distance in memory", T::sword, "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE_STEPS", 1)
        .attributes(
            "/begin AXIS_DESCR FIX_AXIS NO_INPUT_QUANTITY CM.IDENTICAL 6 -1000 1000\n/end AXIS_DESCR\n")
        .record({{T::sword, {-50}}, {T::sword, {25}}, {T::sword, {-3, -2, -1, 0, 1, 2}}});
    rows.add("cal_knock_cube", "Three axes: 3 x 2 x 2 values", T::float32, "CM.IDENTICAL")
        .shape("CUBOID", "RL.ROWS_FLOAT32_IEEE", 1)
        .limits(0, 10)
        .attributes(
            "/begin AXIS_DESCR FIX_AXIS engine_speed CM.SPEED 3 0 16383.75\n"
            "  FIX_AXIS_PAR_DIST 4000 4000 3\n"
            "/end AXIS_DESCR\n"
            "/begin AXIS_DESCR FIX_AXIS rel_load CM.IDENTICAL 2 0 100\n"
            "  FIX_AXIS_PAR_DIST 25 50 2\n"
            "/end AXIS_DESCR\n"
            "/begin AXIS_DESCR FIX_AXIS gear NO_COMPU_METHOD 2 0 7\n"
            "  FIX_AXIS_PAR_DIST 1 1 2\n"
            "/end AXIS_DESCR\n")
        .record({{T::float32, {0.5, 0.75, 1, 1.5, 1.75, 2, 2.5, 2.75, 3, 3.5, 3.75, 4}}});
}

void addOwnAxes(RowList& rows) {
    rows.add("cal_pressure_map", "Own axes, columns in memory", T::float32, "CM.IDENTICAL")
        .shape("MAP", "RL.MAP_COLUMNS", 1)
        .limits(0, 3000)
        .attributes(
            "PHYS_UNIT \"hPa\"\n"
            "/begin AXIS_DESCR STD_AXIS engine_speed CM.SPEED 4 0 16383.75\n"
            "/end AXIS_DESCR\n"
            "/begin AXIS_DESCR STD_AXIS throttle CM.PERCENT 3 0 100\n"
            "/end AXIS_DESCR\n")
        .record({{T::uword, {4}},
                 {T::uword, {3}},
                 {T::uword, {3200, 6400, 12800, 19200}},
                 {T::uword, {0, 128, 255}},
                 {T::float32, {400, 700, 1000, 420, 800, 1100, 450, 900, 1400, 480, 1000, 1800}}});
    rows.add("cal_accel_curve", "Five of eight points in use, all at fixed places", T::sword, "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE_STATIC", 1)
        .attributes("/begin AXIS_DESCR STD_AXIS throttle CM.PERCENT 8 0 100\n/end AXIS_DESCR\n")
        .record({{T::ulong, {5}},
                 {T::uword, {0, 51, 102, 153, 255, 0, 0, 0}},
                 {T::sword, {0, 40, 90, 150, 300, 0, 0, 0}}});
    rows.add("cal_pair_curve", "Point and value by turns", T::uword, "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE_PAIRS", 1)
        .attributes("/begin AXIS_DESCR STD_AXIS engine_speed CM.SPEED 4 0 16383.75\n/end AXIS_DESCR\n")
        .record({{T::uword, {4000, 10, 8000, 20, 12000, 40, 16000, 80}}});
    rows.add("cal_boost_curve", "Its values lie where a pointer in it points to", T::uword, "CM.IDENTICAL")
        .shape("CURVE", "RL.CURVE_POINTER", 1)
        .limits(0, 3000)
        .attributes("/begin AXIS_DESCR STD_AXIS throttle CM.PERCENT 4 0 100\n/end AXIS_DESCR\n")
        .record({{T::uword, {4}},
                 {T::uword, {0, 102, 204, 255}},
                 {T::ulong, {0}, Role::pointer, "cal_boost_values"}});
    rows.add("cal_boost_values", "", T::uword, "CM.IDENTICAL")
        .kind(Kind::hidden)
        .record({{T::uword, {1000, 1300, 1700, 1900}}});
}

void addSharedAxes(RowList& rows) {
    axis(rows, "cal_time_axis", "Each point is the step from the one before", T::ubyte, "CM.IDENTICAL",
         "NO_INPUT_QUANTITY")
        .shape("AXIS_PTS", "RL.AXIS_UBYTE", 8)
        .attributes("DEPOSIT DIFFERENCE\n")
        .record({{T::ubyte, {0, 5, 5, 10, 10, 20, 50, 100}}});
    rows.add("cal_decay_curve", "Over the axis of steps", T::ubyte, "CM.PERCENT")
        .shape("CURVE", "RL.UBYTE", 1)
        .limits(0, 100)
        .attributes(
            "/begin AXIS_DESCR COM_AXIS NO_INPUT_QUANTITY CM.IDENTICAL 8 0 255\n"
            "  AXIS_PTS_REF cal_time_axis\n"
            "/end AXIS_DESCR\n")
        .record({{T::ubyte, {255, 204, 153, 102, 77, 51, 26, 0}}});
    axis(rows, "cal_rescale_axis", "Pairs of axis value and index", T::ubyte, "CM.IDENTICAL", "knock_level")
        .shape("AXIS_PTS", "RL.AXIS_RESCALE", 9)
        .record({{T::ubyte, {3}}, {T::ubyte, {0}}, {T::ubyte, {0, 0, 100, 192, 216, 255}}});
    rows.add("cal_rescale_curve", "Over the rescale axis", T::float32, "CM.IDENTICAL")
        .shape("CURVE", "RL.FLOAT32_IEEE", 1)
        .attributes(
            "/begin AXIS_DESCR RES_AXIS knock_level CM.IDENTICAL 9 0 255\n"
            "  AXIS_PTS_REF cal_rescale_axis\n"
            "/end AXIS_DESCR\n")
        .record({{T::float32, {10, 20, 30, 40, 50, 60, 70, 80, 90}}});
    rows.add("cal_index_curve", "Maps the load to a place on the axis of cal_warmup_curve", T::float32,
             "CM.IDENTICAL")
        .shape("CURVE", "RL.FLOAT32_IEEE", 1)
        .limits(0, 3)
        .attributes(
            "/begin AXIS_DESCR COM_AXIS rel_load CM.IDENTICAL 8 0 100\n"
            "  AXIS_PTS_REF cal_load_axis\n"
            "/end AXIS_DESCR\n")
        .record({{T::float32, {0, 0.25, 0.5, 1, 1.5, 2, 2.5, 3}}});
    rows.add("cal_warmup_curve", "Its axis is a curve", T::float32, "CM.IDENTICAL")
        .shape("CURVE", "RL.FLOAT32_IEEE", 1)
        .limits(0, 10)
        .attributes(
            "/begin AXIS_DESCR CURVE_AXIS rel_load NO_COMPU_METHOD 4 0 3\n"
            "  CURVE_AXIS_REF cal_index_curve\n"
            "/end AXIS_DESCR\n")
        .record({{T::float32, {1.5, 1.25, 1.125, 1}}});
}

void addBlocks(RowList& rows) {
    rows.add("cal_gains", "Block of six values", T::float32, "CM.IDENTICAL")
        .shape("VAL_BLK", "RL.FLOAT32_IEEE", 6)
        .limits(-10, 10)
        .array({6})
        .record({{T::float32, {1, 1.25, 1.5, 1.75, 2, -0.5}}});
    rows.add("cal_offsets", "Block of 4 x 3 values, rows in memory", T::sword, "CM.IDENTICAL")
        .shape("VAL_BLK", "RL.ROWS_SWORD", 1)
        .limits(-1000, 1000)
        .array({4, 3})
        .record({{T::sword, {11, 21, 31, 41, 12, 22, 32, 42, 13, 23, 33, 43}}});
    rows.add("cal_offsets_turned", "The same numbers, columns in memory, most significant byte first",
             T::sword, "CM.IDENTICAL")
        .shape("VAL_BLK", "RL.SWORD", 1)
        .limits(-1000, 1000)
        .order(ObjectOrder::msbFirst)
        .array({4, 3})
        .record({{T::sword, {11, 12, 13, 21, 22, 23, 31, 32, 33, 41, 42, 43}}});
    rows.add("cal_features", "Eight switches", T::ubyte, "CM.ON_OFF")
        .shape("VAL_BLK", "RL.UBYTE", 8)
        .limits(0, 1)
        .array({8})
        .record({{T::ubyte, {1, 0, 1, 1, 0, 0, 0, 1}}});
    rows.add("cal_vin", "Vehicle identification number", T::ubyte, "NO_COMPU_METHOD")
        .shape("ASCII", "RL.UBYTE", 20)
        .array({20})
        .record({{T::ubyte, text("LMSIM000000000042", 20)}});
    rows.add("cal_driver_name", "Text in UTF-8", T::ubyte, "NO_COMPU_METHOD")
        .shape("ASCII", "RL.UBYTE", 24)
        .array({24})
        .attributes("ENCODING UTF8\n")
        .record({{T::ubyte, text("Zo\xC3\xAB", 24)}})
        .kind(Kind::characteristic, 171);
    rows.add("program_version", "Text in read-only memory", T::ubyte, "NO_COMPU_METHOD")
        .shape("ASCII", "RL.UBYTE", 16)
        .array({16})
        .place(Place::flash)
        .attributes("READ_ONLY\n")
        .record({{T::ubyte, text("SIM-2046.12.01", 16)}});
    rows.add("cal_blob", "Bytes that no one explains", T::ubyte, "NO_COMPU_METHOD")
        .record({{T::ubyte, text("\x01\x02\x03", 16)}})
        .kind(Kind::blob, 171);
}

void addDependents(RowList& rows) {
    rows.add("cal_speed_limit", "Speed at which fuel is cut off", T::float32, "CM.IDENTICAL")
        .limits(1000, 8000)
        .initial({0, 6000})
        .attributes("PHYS_UNIT \"rpm\"\n");
    rows.add("cal_speed_resume", "Speed at which fuel comes back, follows cal_speed_limit", T::float32,
             "CM.IDENTICAL")
        .limits(0, 8000)
        .initial({0, 5800})
        .attributes(
            "PHYS_UNIT \"rpm\"\n"
            "/begin DEPENDENT_CHARACTERISTIC \"X1 - 200\" cal_speed_limit\n/end DEPENDENT_CHARACTERISTIC\n");
    rows.add("cal_speed_warning", "Half-way between both, less 300", T::float32, "CM.IDENTICAL")
        .limits(0, 8000)
        .initial({0, 5600})
        .attributes(
            "PHYS_UNIT \"rpm\"\n"
            "/begin DEPENDENT_CHARACTERISTIC \"(X1 + X2) / 2 - 300\" cal_speed_limit cal_speed_resume\n"
            "/end DEPENDENT_CHARACTERISTIC\n");
}

void addCalibrationStructures(RowList& rows) {
    Row limits;
    limits.name = "cal_limits";
    limits.description = "Limits of torque and boost, for two programs";
    limits.structure = "limits_t";
    limits.sizes = {2};
    addInstance(rows, limits);
    Row spare;
    spare.name = "cal_spare_limit";
    spare.description = "A limit with narrower bounds of its own";
    spare.structure = "limit_t";
    spare.attributes = "/begin OVERWRITE hysteresis 0\n  LIMITS 0 50\n/end OVERWRITE\n";
    addInstance(rows, spare);
}

}  // namespace

void addTables(RowList& rows) {
    addModelTables(rows);
    addFixedAxes(rows);
    addOwnAxes(rows);
    addSharedAxes(rows);
    addBlocks(rows);
    addDependents(rows);
    addCalibrationStructures(rows);
}

}  // namespace lm::sim
