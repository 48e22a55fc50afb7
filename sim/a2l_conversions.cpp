#include <string>
#include <vector>

#include <fmt/format.h>

#include "sim/a2l_objects.h"
#include "sim/a2l_writer.h"

namespace lm::sim {
namespace {

constexpr const char* kConversions = R"A2L(
    /begin COMPU_METHOD CM.IDENTICAL "The raw value" IDENTICAL "%8.3" ""
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.HEX "The raw value, without decimals" IDENTICAL "%10.0" ""
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.SPEED "Quarter turns" LINEAR "%8.2" "rpm"
      COEFFS_LINEAR 0.25 0
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.ANGLE "Tenths of a degree" LINEAR "%5.1" "deg"
      COEFFS_LINEAR 0.1 0
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.HALF "Halves" LINEAR "%5.1" "deg"
      COEFFS_LINEAR 0.5 0
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.TENTH "Tenths with offset" LINEAR "%5.1" "degC"
      COEFFS_LINEAR 0.1 20
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.PERCENT "255 counts are 100 percent" RAT_FUNC "%5.1" "%"
      COEFFS 0 255 0 0 0 100
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.LAMBDA "raw = 200 * phys / (phys + 100)" RAT_FUNC "%8.3" ""
      COEFFS 0 200 0 0 1 100
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.SQUARE "raw = phys * phys / 16" RAT_FUNC "%8.4" "V"
      COEFFS 1 0 0 0 0 16
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.TEMP "Thermistor" TAB_INTP "%5.1" "degC"
      COMPU_TAB_REF CT.TEMP
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.GEAR_RATIO "Ratio of a gear" TAB_NOINTP "%5.2" ""
      COMPU_TAB_REF CT.GEAR_RATIO
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.SWITCH "States of the injectors" TAB_VERB "%4.0" ""
      COMPU_TAB_REF CV.SWITCH
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.ON_OFF "One bit" TAB_VERB "%1.0" ""
      COMPU_TAB_REF CV.ON_OFF
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.GEAR "Gears" TAB_VERB "%3.0" ""
      COMPU_TAB_REF CV.GEAR
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.TEMP_CLASS "Classes of temperature" TAB_VERB "%3.0" ""
      COMPU_TAB_REF CR.TEMP_CLASS
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.VOLTAGE "Formula with system constants" FORM "%6.3" "V"
      /begin FORMULA "sysc(K_VOLT_PER_COUNT) * X1 + $(K_VOLT_OFFSET)"
        FORMULA_INV "(X1 - sysc(K_VOLT_OFFSET)) / sysc(K_VOLT_PER_COUNT)"
      /end FORMULA
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.ROOT "Formula without inverse" FORM "%6.3" ""
      /begin FORMULA "sqrt(X1)"
      /end FORMULA
    /end COMPU_METHOD
    /begin COMPU_METHOD CM.POWER "Of torque and speed" FORM "%6.2" "kW"
      /begin FORMULA "X1 * X2 / 9549.2966"
      /end FORMULA
    /end COMPU_METHOD

    /begin COMPU_TAB CT.TEMP "Thermistor" TAB_INTP 6
      0 150  50 90  100 60  150 30  200 0  255 -40
    /end COMPU_TAB
    /begin COMPU_TAB CT.GEAR_RATIO "Ratio of a gear" TAB_NOINTP 5
      1 3.5  2 2.125  3 1.375  4 1  5 0.75
      DEFAULT_VALUE_NUMERIC -1
    /end COMPU_TAB
    /begin COMPU_VTAB CV.SWITCH "States of the injectors" TAB_VERB 3
      0 "off"  1 "on"  2 "test mode"
    /end COMPU_VTAB
    /begin COMPU_VTAB CV.ON_OFF "One bit" TAB_VERB 2
      0 "off"  1 "on"
    /end COMPU_VTAB
    /begin COMPU_VTAB CV.GEAR "Gears" TAB_VERB 6
      0 "neutral"  1 "first"  2 "second"  3 "third"  4 "fourth"  5 "fifth"
      DEFAULT_VALUE "no gear"
    /end COMPU_VTAB
    /begin COMPU_VTAB_RANGE CR.TEMP_CLASS "Classes of temperature" 3
      0 49 "cold"  50 89 "warm"  90 110 "hot"
      DEFAULT_VALUE "overheated"
    /end COMPU_VTAB_RANGE

)A2L";

struct Layout {
    std::string name;
    std::vector<std::string> lines;
};

std::string layout(const std::string& name, const std::vector<std::string>& lines) {
    return fmt::format("    /begin RECORD_LAYOUT RL.{}\n      {}\n    /end RECORD_LAYOUT\n", name,
                       fmt::join(lines, "\n      "));
}

/// Of what is more than values, or more than points.
std::vector<Layout> tableLayouts() {
    return {
        {"AXIS_COUNTED",
         {"NO_AXIS_PTS_X 1 UWORD", "RESERVED 2 WORD", "AXIS_PTS_X 3 UWORD INDEX_INCR DIRECT"}},
        {"AXIS_RESCALE",
         {"NO_RESCALE_X 1 UBYTE", "RESERVED 2 BYTE", "AXIS_RESCALE_X 3 UBYTE 3 INDEX_INCR DIRECT"}},
        {"CURVE_COUNTED",
         {"NO_AXIS_PTS_X 1 UBYTE", "AXIS_PTS_X 2 UBYTE INDEX_INCR DIRECT",
          "FNC_VALUES 3 FLOAT32_IEEE COLUMN_DIR DIRECT"}},
        {"CURVE_STATIC",
         {"NO_AXIS_PTS_X 1 ULONG", "AXIS_PTS_X 2 UWORD INDEX_INCR DIRECT",
          "FNC_VALUES 3 SWORD COLUMN_DIR DIRECT", "STATIC_RECORD_LAYOUT"}},
        {"CURVE_PAIRS",
         {"FIX_NO_AXIS_PTS_X 4", "AXIS_PTS_X 1 UWORD INDEX_INCR DIRECT",
          "FNC_VALUES 2 UWORD ALTERNATE_WITH_X DIRECT"}},
        {"CURVE_POINTER",
         {"NO_AXIS_PTS_X 1 UWORD", "AXIS_PTS_X 2 UWORD INDEX_INCR DIRECT",
          "FNC_VALUES 3 UWORD ROW_DIR PLONG"}},
        {"CURVE_STEPS", {"OFFSET_X 1 SWORD", "DIST_OP_X 2 SWORD", "FNC_VALUES 3 SWORD COLUMN_DIR DIRECT"}},
        {"MAP_COLUMNS",
         {"NO_AXIS_PTS_X 1 UWORD", "NO_AXIS_PTS_Y 2 UWORD", "AXIS_PTS_X 3 UWORD INDEX_INCR DIRECT",
          "AXIS_PTS_Y 4 UWORD INDEX_INCR DIRECT", "FNC_VALUES 5 FLOAT32_IEEE COLUMN_DIR DIRECT"}},
    };
}

}  // namespace

std::string a2lConversions(std::uint16_t version) {
    std::string text = kConversions;
    for (std::size_t i = 0; i < kTypes.size(); ++i) {
        if (!isTypeKnown(static_cast<DataType>(i), version)) continue;
        const TypeInfo& type = kTypes[i];
        text += fmt::format(
            "    /begin RECORD_LAYOUT RL.{}\n"
            "      FNC_VALUES 1 {} COLUMN_DIR DIRECT\n"
            "    /end RECORD_LAYOUT\n",
            type.name, type.name);
    }
    text +=
        "    /begin RECORD_LAYOUT RL.CURVE\n"
        "      NO_AXIS_PTS_X 1 UWORD\n"
        "      AXIS_PTS_X 2 UWORD INDEX_INCR DIRECT\n"
        "      FNC_VALUES 3 UWORD COLUMN_DIR DIRECT\n"
        "    /end RECORD_LAYOUT\n"
        "    /begin RECORD_LAYOUT RL.EMPTY\n"
        "    /end RECORD_LAYOUT\n";
    for (const char* type : {"UBYTE", "SBYTE", "SWORD", "FLOAT32_IEEE"})
        text += layout(fmt::format("ROWS_{}", type), {fmt::format("FNC_VALUES 1 {} ROW_DIR DIRECT", type)});
    for (const char* type : {"UBYTE", "UWORD", "FLOAT32_IEEE"})
        text +=
            layout(fmt::format("AXIS_{}", type), {fmt::format("AXIS_PTS_X 1 {} INDEX_INCR DIRECT", type)});
    for (const Layout& one : tableLayouts())
        text += layout(one.name, one.lines);
    return text + "\n";
}

}  // namespace lm::sim
