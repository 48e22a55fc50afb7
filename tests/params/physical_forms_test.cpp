// Parameter files with physical values: what is written is read back, what others write is understood, and
// what is wrong is told with its line.
#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "params/cdfx_reader.h"
#include "params/cdfx_writer.h"
#include "params/dcm_reader.h"
#include "params/dcm_writer.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

using value::Exact;
using value::Value;

struct Form {
    const char* name;
    Result<ReadSet> (*read)(std::string_view);
    Result<WrittenSet> (*write)(const ParameterSet&);
};
const Form kForms[] = {{"CDFX", readCdfx, writeCdfx}, {"DCM", readDcm, writeDcm}};

std::string contentOf(const std::string& name) {
    std::ifstream file(std::string(PARAMS_TEST_DATA) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void dumpValues(std::ostream& out, const std::vector<Value>& values) {
    for (const Value& value : values) {
        const auto* text = std::get_if<std::string>(&value);
        out << ' ' << (text != nullptr ? "'" + *text + "'" : numberText(value).value_or("not finite"));
    }
}

std::string dump(const Parameter& parameter) {
    std::ostringstream out;
    out << parameter.name << ' ' << shapeName(parameter.shape);
    for (const std::size_t size : parameter.dimensions)
        out << ' ' << size;
    out << " [" << parameter.unit << '|' << parameter.function << '|' << parameter.description << "]";
    dumpValues(out, parameter.values);
    for (const ParameterAxis& axis : parameter.axes) {
        out << " / " << axisKindName(axis.kind) << " [" << axis.unit << '|' << axis.reference << ']';
        dumpValues(out, axis.points);
    }
    return out.str() + "\n";
}

std::string dump(const ParameterSet& set) {
    std::string text;
    for (const Parameter& parameter : set.parameters)
        text += dump(parameter);
    return text;
}

TEST(PhysicalForms, ReadWhatOthersWrite) {
    const auto cdfx = readCdfx(contentOf("cdfx_read/pump.cdfx"));
    ASSERT_TRUE(cdfx.ok()) << cdfx.error().text();
    EXPECT_EQ(cdfx.value().set.origin.ecu, "PumpEcu");
    EXPECT_TRUE(cdfx.value().warnings.empty());
    EXPECT_EQ(dump(cdfx.value().set), R"(C_Axis curve 2 [||] 0 2 / standard [|] 5 9
Ctl.Kp scalar [||] 2
Cut curve 3 [||] 0 1 2 / rescale [|R_Axis]
Flow curve 2 [||] 0 4 / standard [|] 0 30
Gains block 3 [||] 1 0.5 0.25
Grid block 3 2 [||] 1 2 3 4 5 6
Map map 3 2 [||] 1 2 3 4 5 6 / common [|N_Axis] 0 1000 2000 / fixed [|] 10 20
Mod scalar [||] 'Hand'
N_Axis axis 3 [||] 0 1000 2000
On scalar [||] 1
P_Max scalar [bar|PumpCtl|] 7.25
R_Axis axis 2 2 [||] 10 0 85 2
Tag text [||] 'rig 7 '
)");
    const auto dcm = readDcm(contentOf("dcm_read/pump.dcm"));
    ASSERT_TRUE(dcm.ok()) << dcm.error().text();
    EXPECT_TRUE(dcm.value().warnings.empty());
    EXPECT_EQ(dump(dcm.value().set), R"(Duty curve 3 [||] 5 6 7 / common [|N_Axis] 0 1000 2000
Flow curve 2 [l||] 0 4 / standard [rpm|] 'off' 'on'
Fx map 2 2 [||] 'a' 'b' 'c' 'd' / fixed [|] 0 1 / fixed [|] 'low' 'high'
Gains block 3 [||] 1 0.5 16
Grid block 3 2 [||] 1 2 3 4 5 6
Gx map 3 1 [||] 1 2 3 / common [|N_Axis] 0 1000 2000 / common [|T_Axis] 5
Ign map 3 2 [||] 1 2 3 4 5 6 / standard [|] 0 10 20 / standard [Nm|] 5 9
Label text [||] 'rig "7" '
N_Axis axis 3 [rpm||] 0 1000 2000
P_Max scalar [bar|PumpCtl|limit °C "hot"] 7.25
Trim curve 2 [||] 0.9 not finite / fixed [|] 1 2
)");
}

ParameterSet smallSet() {
    ParameterSet set;
    set.origin = {.ecu = "Pump & Co", .a2lFile = "pump.a2l", .epk = "P1", .creator = "test 1"};
    set.parameters = {
        {.name = "Axis", .shape = Shape::axis, .dimensions = {2}, .unit = "rpm", .values = {0.0, 1e3}},
        {.name = "Ign",
         .shape = Shape::map,
         .dimensions = {7, 2},
         .values = {"1", "2", "3", "4", "5", "6", "7", "a\\", "\"b\"", "c", "d", "e", "f", "g"},
         .axes = {{AxisKind::standard, "", "s", {1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0}},
                  {AxisKind::standard, "", "", {"x", "y"}}}},
        {.name = "Map",
         .shape = Shape::map,
         .dimensions = {2, 2},
         .unit = "%",
         .values = {1.0, 0.1, "a<\"b\"", "c"},
         .axes = {{AxisKind::common, "Axis", "rpm", {0.0, 1e3}}, {AxisKind::fixed, "", "", {1.0, 2.0}}}},
        {.name = "Max.Limit",
         .description = "of the \"pump\"",
         .shape = Shape::scalar,
         .function = "Ctl",
         .values = {Exact{value::Int128{0xFFFFFFFFFFFFFFFF}, 0}},
         .raws = {1.0}},
        {.name = "Not", .shape = Shape::scalar, .values = {std::nan("")}},
    };
    return set;
}

std::string leftOut(const WrittenSet& written) {
    std::string all;
    for (const LeftOut& one : written.leftOut)
        all += one.name + " " + one.why + "\n";
    return all;
}

TEST(PhysicalForms, WriteTheOrderThatTheFormsAskFor) {
    const auto cdfx = writeCdfx(smallSet());
    ASSERT_TRUE(cdfx.ok()) << cdfx.error().text();
    EXPECT_EQ(cdfx.value().text, contentOf("cdfx_read/small.cdfx"));
    EXPECT_EQ(cdfx.value().notExact, std::vector<std::string>{"Max.Limit"});
    EXPECT_EQ(leftOut(cdfx.value()), "Not holds a number that is not finite\n");
    const auto dcm = writeDcm(smallSet());
    ASSERT_TRUE(dcm.ok()) << dcm.error().text();
    EXPECT_EQ(dcm.value().text, contentOf("dcm_read/small.dcm"));
    EXPECT_EQ(dcm.value().notExact, std::vector<std::string>{"Max.Limit"});
    EXPECT_EQ(leftOut(dcm.value()),
              "Map holds numbers and texts\n"
              "Not holds a number that is not finite\n");
}

/// Sets of every shape with numbers and texts of every sort.
class RandomSets {
  public:
    explicit RandomSets(unsigned seed) : random_(seed) {}

    ParameterSet make() {
        ParameterSet set;
        set.parameters.push_back({.name = "axis",
                                  .shape = Shape::axis,
                                  .dimensions = {3},
                                  .unit = text(),
                                  .values = values(3, false)});
        const std::vector<Value> shared = set.parameters[0].values;
        for (int i = 0; i < 12; ++i) {
            Parameter parameter = {.name = "p[" + std::to_string(i) + "].v",
                                   .description = "d" + text() + "."};
            parameter.shape = static_cast<Shape>(below(9));
            parameter.unit = text();
            parameter.function = below(2) == 0 ? "" : "F";
            const std::size_t rank = rankOf(parameter.shape);
            for (std::size_t k = 0; k < rank; ++k)
                parameter.dimensions.push_back(1 + below(3));
            if (parameter.shape == Shape::axis && rank == 2) parameter.dimensions[0] = 2;
            // A DCM has no room for trailing ones.
            if (parameter.shape == Shape::block) parameter.dimensions.back() += 1;
            addAxes(parameter, shared);
            std::size_t count = 1;
            for (const std::size_t size : parameter.dimensions)
                count *= size;
            parameter.values = values(count, parameter.shape == Shape::text || below(4) == 0);
            if (below(4) == 0) parameter.raws.resize(count);
            set.parameters.push_back(std::move(parameter));
        }
        EXPECT_TRUE(set.sortByName().ok());
        return set;
    }

  private:
    std::size_t below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }

    std::size_t rankOf(Shape shape) {
        constexpr std::size_t kRanks[] = {0, 0, 1, 1, 2, 3, 4, 5, 1};
        const bool mayHaveMore = shape == Shape::block || shape == Shape::axis;
        return kRanks[static_cast<std::size_t>(shape)] +
               (mayHaveMore ? below(shape == Shape::block ? 3 : 2) : 0);
    }

    void addAxes(Parameter& parameter, const std::vector<Value>& shared) {
        if (parameter.shape < Shape::curve || parameter.shape == Shape::axis) return;
        const AxisKind one = static_cast<AxisKind>(below(5));
        for (std::size_t& size : parameter.dimensions) {
            const AxisKind kind = below(3) == 0 ? static_cast<AxisKind>(below(5)) : one;
            ParameterAxis axis = {.kind = kind, .unit = text()};
            if (kind == AxisKind::common && below(2) == 0) {
                size = shared.size();
                axis.reference = "axis";
                axis.points = shared;
            } else {
                const bool isOwn = kind == AxisKind::standard || kind == AxisKind::fixed;
                if (!isOwn) axis.reference = "elsewhere";
                axis.points = values(isOwn || below(2) == 0 ? size : 0, below(4) == 0);
            }
            parameter.axes.push_back(std::move(axis));
        }
    }

    std::string text() {
        constexpr const char* kLetters[] = {"a", "9", " ", "\"", "\\", "&", "<",
                                            ">", "]", "'", "*",  "µ",  "°", ";"};
        std::string made;
        for (std::size_t i = below(6); i > 0; --i)
            made += kLetters[below(std::size(kLetters))];
        return made;
    }

    Value number() {
        const std::uint64_t bits = random_();
        const double any = std::bit_cast<double>(bits);
        const Value numbers[] = {Exact{value::Int128{bits}, -static_cast<int>(below(20))},
                                 Exact{-value::Int128{bits}, 0}, static_cast<double>(bits % 1000) / 8,
                                 std::isfinite(any) ? any : 0.1};
        return numbers[below(std::size(numbers))];
    }

    std::vector<Value> values(std::size_t count, bool areTexts) {
        std::vector<Value> made;
        for (std::size_t i = 0; i < count; ++i)
            made.push_back(areTexts ? Value(text()) : number());
        return made;
    }

    std::mt19937_64 random_;
};

TEST(PhysicalForms, WrittenAndReadAgainIsTheSame) {
    constexpr unsigned kSets = 100;
    for (const Form& form : kForms) {
        std::size_t held = 0;
        for (unsigned seed = 0; seed < kSets; ++seed) {
            ParameterSet set = RandomSets(seed).make();
            const auto written = form.write(set);
            ASSERT_TRUE(written.ok()) << written.error().text();
            const auto read = form.read(written.value().text);
            ASSERT_TRUE(read.ok()) << read.error().text() << "\n" << written.value().text;
            EXPECT_TRUE(read.value().warnings.empty()) << form.name << read.value().warnings.front();
            std::erase_if(set.parameters, [&](const Parameter& parameter) {
                const auto& all = written.value().leftOut;
                return std::any_of(all.begin(), all.end(),
                                   [&](const LeftOut& one) { return one.name == parameter.name; });
            });
            ASSERT_EQ(dump(read.value().set), dump(set)) << form.name << " seed " << seed;
            held += set.parameters.size();
        }
        // Seven shapes of twelve in the poorer form, less mixed axes.
        EXPECT_GT(held, kSets * 4) << form.name;
    }
}

TEST(PhysicalForms, NumbersKeepTheirLastBit) {
    for (const char* text : {"18446744073709551615", "-9223372036854775807", "4611686018427387903.75", "0.1",
                             "1e+22", "5e-324", "9007199254740993", "2942934293826390000", "-0"}) {
        const auto number = parseNumber(text);
        ASSERT_TRUE(number) << text;
        EXPECT_EQ(numberText(*number), text);
    }
    EXPECT_EQ(numberText(*parseNumber("0xFFFFFFFFFFFFFFFF")), "18446744073709551615");
    for (const char* text : {"", "1,5", "0x", "0x10000000000000000", "1e400", "1 2", "--1"})
        EXPECT_FALSE(parseNumber(text)) << text;
}

std::string cdfx(std::string_view instances) {
    return "<MSRSW><CATEGORY>CDF20</CATEGORY><SW-SYSTEMS><SW-SYSTEM><SW-INSTANCE-SPEC><SW-INSTANCE-TREE>\n" +
           std::string(instances) + "</SW-INSTANCE-TREE></SW-INSTANCE-SPEC></SW-SYSTEM></SW-SYSTEMS></MSRSW>";
}

std::string instance(std::string_view category, std::string_view values, std::string_view more = "") {
    return "<SW-INSTANCE><SHORT-NAME>p</SHORT-NAME><CATEGORY>" + std::string(category) +
           "</CATEGORY>\n<SW-VALUE-CONT>" + std::string(values) + "</SW-VALUE-CONT>" + std::string(more) +
           "</SW-INSTANCE>\n";
}

std::string phys(std::string_view values) {
    return "<SW-VALUES-PHYS>" + std::string(values) + "</SW-VALUES-PHYS>";
}

struct Fault {
    std::string text;
    const char* told;
};

template <std::size_t N>
void checkFaults(const Form& form, const Fault (&faults)[N]) {
    for (const Fault& fault : faults) {
        const auto read = form.read(fault.text);
        const std::string told = read ? "read: " + dump(read.value().set) : read.error().text();
        EXPECT_TRUE(told.starts_with(fault.told)) << told;
    }
}

TEST(PhysicalForms, CdfxTellsWhatIsWrongAndWhere) {
    std::string deep;
    for (int i = 0; i < 100'000; ++i)
        deep += "<a>";
    for (int i = 0; i < 100'000; ++i)
        deep += "</a>";
    const std::string variant = "<SW-INSTANCE-PROPS-VARIANT><SW-VALUE-CONT>" + phys("<V>1</V>") +
                                "</SW-VALUE-CONT></SW-INSTANCE-PROPS-VARIANT>\n";
    const std::string variants = "<SW-INSTANCE><SHORT-NAME>p</SHORT-NAME><SW-INSTANCE-PROPS-VARIANTS>";
    const std::string scalar = instance("VALUE", phys("<V>1</V>"));
    const std::string twoAxes = "<SW-AXIS-CONTS><SW-AXIS-CONT>" + phys("<V>1</V><V>2</V>") +
                                "</SW-AXIS-CONT><SW-AXIS-CONT>" + phys("<V>1</V>") +
                                "</SW-AXIS-CONT></SW-AXIS-CONTS>";
    const Fault faults[] = {
        {"", "XML line 1: the XML is broken here: "},
        {"<MSRSW>\n<A></B></MSRSW>", "XML line 2: the XML is broken here: "},
        {"<MSRSW>\n<!DOCTYPE x [\n<!ENTITY a \"b\">]></MSRSW>", "XML line 3: it defines an entity"},
        {"<MSRSW>\n&other;</MSRSW>", "XML line 2: '&' begins no character"},
        {"<MSRSW>&#0;</MSRSW>", "XML line 1: '&' begins no character"},
        {"<MSRSW>\n" + deep + "</MSRSW>", "XML line 2: nested more than 100 deep"},
        {std::string("<MSRSW>\n\0</MSRSW>", 18), "XML line 2: a control character"},
        {"<MSRSW>\n\xE9</MSRSW>", "XML line 2: not UTF-8"},
        {"<?xml version='1.0' encoding='EBCDIC'?><MSRSW/>", "XML line 1: encoding 'ebcdic' is not read"},
        {"<AUTOSAR/>", "CDFX line 1: 'AUTOSAR' where MSRSW has to be"},
        {"<MSRSW><CATEGORY>CDF10</CATEGORY></MSRSW>", "CDFX line 1: CATEGORY 'CDF10'"},
        {cdfx(scalar + scalar), "CDFX line 4: 'p' is there twice (first in line 2)"},
        {cdfx(variants + variant + variant + "</SW-INSTANCE-PROPS-VARIANTS></SW-INSTANCE>"),
         "CDFX line 3: p has 2 variants; export the one you want alone"},
        {cdfx(instance("VALUE", phys("<V>NaN</V>"))), "CDFX line 3: 'NaN' is not a number"},
        {cdfx(instance("VALUE", phys("<V>7,5</V>"))), "CDFX line 3: '7,5' is not a number"},
        {cdfx(instance("VALUE", phys("<V>1</V><V>2</V>"))), "CDFX line 3: p: 2 values for a VALUE"},
        {cdfx(instance("ASCII", phys("<V>1</V>"))), "CDFX line 3: p: an ASCII wants a VT"},
        {cdfx(instance("VAL_BLK", "<SW-ARRAYSIZE><V>3</V><V>2</V></SW-ARRAYSIZE>" +
                                      phys("<VG><V>1</V><V>2</V></VG><VG><V>3</V><V>4</V></VG>"
                                           "<VG><V>5</V><V>6</V></VG>"))),
         "CDFX line 3: p: SW-ARRAYSIZE says 3 x 2, the values are 2 x 3"},
        {cdfx(instance("MAP", phys("<VG><V>1</V></VG>\n<VG><V>1</V><V>2</V></VG>"))),
         "CDFX line 4: this VG does not hold as many values as the one before it"},
        {cdfx(instance("MAP", phys("<VG><V>1</V></VG><V>1</V>"))), "CDFX line 3: values and VG side by side"},
        {cdfx(instance("MAP", phys("<V>1</V><V>2</V>"))), "CDFX line 3: p: its values have to stand in a VG"},
        {cdfx(instance("CURVE", phys("<V>1</V><V>2</V>"))), "CDFX line 2: p: 0 axes for a curve"},
        {cdfx(instance("MAP", phys("<VG><V>1</V></VG><VG><V>2</V></VG>"), twoAxes)),
         "CDFX line 2: p: axis 1 has 2 point(s), where its dimension wants 1"},
        {cdfx(instance("RES_AXIS", phys("<VG><V>1</V></VG><VG><V>2</V></VG>"))),
         "CDFX line 3: p: a RES_AXIS wants a VG of two values"},
    };
    checkFaults(kForms[0], faults);
    const auto odd = readCdfx("\xEF\xBB\xBF" + cdfx(instance("BLOB", phys("<VT>x</VT>")) + variants +
                                                    variant + "</SW-INSTANCE-PROPS-VARIANTS></SW-INSTANCE>"));
    ASSERT_TRUE(odd.ok()) << odd.error().text();
    EXPECT_EQ(odd.value().warnings,
              std::vector<std::string>{"CDFX line 2: p is of category 'BLOB', left out"});
    EXPECT_EQ(dump(odd.value().set), "p scalar [||] 1\n");
}

TEST(PhysicalForms, CdfxReadsStructuresEncodingsAndPrefixes) {
    const auto read = readCdfx(
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><c:MSRSW xmlns:c='x'><c:SW-SYSTEMS><c:SW-SYSTEM>"
        "<c:SW-INSTANCE-SPEC><c:SW-INSTANCE-TREE><SW-INSTANCE><SHORT-NAME>s</SHORT-NAME>"
        "<SW-FEATURE-REF>F</SW-FEATURE-REF><SW-INSTANCE><SW-ARRAY-INDEX>1</SW-ARRAY-INDEX>"
        "<SW-INSTANCE><SHORT-NAME>g</SHORT-NAME><CATEGORY>VAL_BLK</CATEGORY><SW-VALUE-CONT>"
        "<UNIT-DISPLAY-NAME> \xB0 </UNIT-DISPLAY-NAME><SW-VALUES-PHYS><VG><V>0xFF</V><NEW/><V>2</V></VG>"
        "</SW-VALUES-PHYS></SW-VALUE-CONT></SW-INSTANCE></SW-INSTANCE></SW-INSTANCE></c:SW-INSTANCE-TREE>"
        "</c:SW-INSTANCE-SPEC></c:SW-SYSTEM></c:SW-SYSTEMS></c:MSRSW>");
    ASSERT_TRUE(read.ok()) << read.error().text();
    EXPECT_EQ(dump(read.value().set), "s[1].g block 2 [ ° |F|] 255 2\n");
}

TEST(PhysicalForms, DcmTellsWhatIsWrongAndWhere) {
    const std::string head = "* c\nKONSERVIERUNG_FORMAT 2.0\n";
    const Fault faults[] = {
        {"", "DCM line 1: no KONSERVIERUNG_FORMAT 2.0 at the beginning"},
        {"FESTWERT p\nWERT 1\nEND", "DCM line 1: no KONSERVIERUNG_FORMAT 2.0 at the beginning"},
        {"KONSERVIERUNG_FORMAT 1.0\n", "DCM line 1: KONSERVIERUNG_FORMAT '1.0'; 2.0 is read"},
        {"* encoding=\"UTF-8\"\nKONSERVIERUNG_FORMAT 2.0\n* \xE9\n", "DCM line 3: not UTF-8"},
        {"* encoding='UTF-16'\n", "DCM line 1: encoding 'utf-16' is not read"},
        {std::string("K\0", 2), "DCM line 1: a byte 0"},
        {head + "FESTWERD p\nWERT 1\nEND", "DCM line 3: 'FESTWERD' is no keyword"},
        {head + "END", "DCM line 3: 'END' is no keyword"},
        {head + "FESTWERT", "DCM line 3: FESTWERT without a name"},
        {head + "FESTWERT p\nWERT 1\n", "DCM line 4: p (line 3) has no END"},
        {head + "FESTWERT p\nWERT 1\nFESTWERT q\nWERT 1\nEND", "DCM line 5: p (line 3) has no END"},
        {head + "FUNKTIONEN\nFKT a\nFESTWERT p", "DCM line 5: FUNKTIONEN (line 3) has no END"},
        {head + "FESTWERT p\nWERT 1\nEND\nFESTWERT p\nWERT 1\nEND", "DCM line 6: 'p' is there twice"},
        {head + "FESTWERT p\nEND", "DCM line 3: p: 0 value(s), where one is expected"},
        {head + "FESTWERT p\nWERT 1,5\nEND", "DCM line 4: p: '1,5' is not a number"},
        {head + "FESTWERT p\nTEXT \"a\nEND", "DCM line 4: a text without its closing quote"},
        {head + "TEXTSTRING p\nWERT 1\nEND", "DCM line 3: p: a TEXTSTRING wants TEXT"},
        {head + "FESTWERTEBLOCK p 0\nEND", "DCM line 3: FESTWERTEBLOCK wants 1 count(s)"},
        {head + "KENNFELD p 2\nEND", "DCM line 3: KENNFELD wants 2 count(s)"},
        {head + "FESTWERTEBLOCK p 2@2\nWERT 1 2 3\nEND", "DCM line 3: p: 3 value(s), where 4 are expected"},
        {head + "FESTWERTEBLOCK p 200000000 @ 200000000\nWERT 1\nEND", "DCM line 3: p: 1 value(s)"},
        {head + "KENNLINIE p 1\nST/X 1 2\nWERT 1\nEND", "DCM line 3: p: 2 ST/X, where one is expected"},
        {head + "KENNFELD p 1 2\nST/X 1\nST/Y 1\nST/Y 2\nWERT 1 2\nEND",
         "DCM line 6: p: 0 value(s) before this row, 1 expected"},
        {head + "FESTWERT p\nST/X 1\nWERT 1\nEND", "DCM line 4: p: a FESTWERT has no ST/X"},
    };
    checkFaults(kForms[1], faults);
    const auto latin = readDcm(head + "FESTWERT p\r\nEINHEIT_W \"\xB0\x43\"\r\nNEUES 1\r\nWERT 1\r\nEND\r\n");
    ASSERT_TRUE(latin.ok()) << latin.error().text();
    EXPECT_EQ(dump(latin.value().set), "p scalar [°C||] 1\n");
    EXPECT_EQ(latin.value().warnings,
              std::vector<std::string>{"DCM line 5: 'NEUES' in p is not known, passed over"});
    const auto disguised = readDcm(head + "FESTWERT p\nEINHEIT_W \"°\"\nWERT 1\nEND\n");
    ASSERT_TRUE(disguised.ok());
    EXPECT_EQ(disguised.value().warnings.size(), 1U);
}

// The axis tells the points; what its users repeat is for people to read.
TEST(PhysicalForms, AnAxisCountsMoreThanItsCopies) {
    const auto read = readDcm(
        "KONSERVIERUNG_FORMAT 2.0\nSTUETZSTELLENVERTEILUNG a 2\nST/X 1 2\nEND\n"
        "GRUPPENKENNLINIE c 2\n*SSTX a\nST/X 1 3\nWERT 5 6\nEND\n"
        "GRUPPENKENNLINIE d 2\n*SSTX a\nWERT 5 6\nEND\n");
    ASSERT_TRUE(read.ok()) << read.error().text();
    EXPECT_EQ(read.value().warnings,
              std::vector<std::string>{
                  "DCM line 5: c repeats other points than its axis a has; those of the axis count"});
    EXPECT_EQ(dump(read.value().set),
              "a axis 2 [||] 1 2\nc curve 2 [||] 5 6 / common [|a] 1 2\n"
              "d curve 2 [||] 5 6 / common [|a] 1 2\n");
}

}  // namespace
}  // namespace lm::params
