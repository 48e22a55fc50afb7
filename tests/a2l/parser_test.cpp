#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/description.h"
#include "a2l/tokenizer.h"
#include "support/temp_dir.h"

namespace lm::a2l {
namespace {

std::string inModule(std::string_view content) {
    return fmt::format("/begin PROJECT P \"\" /begin MODULE M \"\"\n{}\n/end MODULE /end PROJECT", content);
}

const std::string kGood = R"(/begin MEASUREMENT good "" UBYTE c 0 0 0 1 /end MEASUREMENT)";

Description parsedModule(std::string_view content) {
    auto result = parseDescription(inModule(content));
    EXPECT_TRUE(result.ok()) << content;
    return result.ok() ? std::move(result).value() : Description();
}

std::string orderName(std::optional<ByteOrder> order) {
    if (!order) return "";
    return *order == ByteOrder::bigEndian ? " big" : " little";
}

std::string dumped(const Description& description, const Measurement& m) {
    return fmt::format("{} '{}' {} {} [{} {}]{}{} x{} mask {:x} '{}' '{}' '{}'{}{}{} events {}{}", m.name,
                       m.longIdentifier, dataTypeName(m.dataType), m.conversion, m.lowerLimit, m.upperLimit,
                       m.hasAddress ? fmt::format(" {:x}:{}", m.ecuAddress, m.addressExtension) : "",
                       orderName(m.byteOrder), m.elementCount, m.bits.mask, m.displayIdentifier, m.format,
                       m.physUnit.value_or(""), m.readOnly ? " ro" : "", m.readWrite ? " rw" : "",
                       m.eventCount == 0 ? " no" : "", fmt::join(description.events(m), ","),
                       m.eventCount == 0 ? "" : fmt::format(":{}", description.events(m)[m.preferredEvent]));
}

TEST(Parser, ReadsMeasurements) {
    const std::pair<std::string, std::string> rows[] = {
        {"", " x1 mask 0 '' '' '' no events "},
        {"ECU_ADDRESS 0xFFFFFFFF ECU_ADDRESS_EXTENSION 2 READ_WRITE",
         " ffffffff:2 x1 mask 0 '' '' '' rw no events "},
        {R"(FORMAT "%5.1" PHYS_UNIT "1/\"min" DISPLAY_IDENTIFIER d.m READ_ONLY BYTE_ORDER BIG_ENDIAN)",
         R"( big x1 mask 0 'd.m' '%5.1' '1/"min' ro no events )"},
        {"BIT_MASK 0xFFFFFFFFFFFFFFFE BYTE_ORDER MSB_LAST",
         " little x1 mask fffffffffffffffe '' '' '' no events "},
        {"BIT_MASK 18446744073709551615 ECU_ADDRESS 1e3",
         " 3e8:0 x1 mask ffffffffffffffff '' '' '' no events "},
        {"MATRIX_DIM 4 3 2 BIT_MASK 1", " x24 mask 1 '' '' '' no events "},
        {"MATRIX_DIM 5 0 0", " x5 mask 0 '' '' '' no events "},
        {"MATRIX_DIM 65536 65536", " x4294967295 mask 0 '' '' '' no events "},
        // Values that look like keywords.
        {"DISPLAY_IDENTIFIER READ_ONLY REF_MEMORY_SEGMENT READ_WRITE LAYOUT BIT_MASK ECU_ADDRESS 5",
         " 5:0 x1 mask 0 'READ_ONLY' '' '' no events "},
        {R"(SYMBOL_LINK "READ_ONLY" 4 MAX_REFRESH 3 1 "ECU_ADDRESS" 5 UNKNOWN "x" 5 ARRAY_SIZE 7)",
         " x7 mask 0 '' '' '' no events "},
        // Events at any depth, in the order of the file, of XCP alone; the preferred one stands behind them.
        {"/begin IF_DATA XCP EVENT 1 /begin DAQ_EVENT VARIABLE /begin DEFAULT_EVENT_LIST EVENT 0x2 EVENT "
         "/end DEFAULT_EVENT_LIST EVENT 3 /end DAQ_EVENT EVENT 65535 EVENT 65536 EVENT X /end IF_DATA"
         " /begin IF_DATA CCP EVENT 9 /end IF_DATA /begin IF_DATA XCPplus 0x104 EVENT 4 /end IF_DATA",
         " x1 mask 0 '' '' '' events 1,2,3,65535,4:2"},
        {"/begin IF_DATA XCP /begin DAQ_EVENT VARIABLE /begin CONSISTENCY_EVENT_LIST EVENT 1 /end "
         "CONSISTENCY_EVENT_LIST"
         " /begin AVAILABLE_EVENT_LIST EVENT 2 EVENT 3 /end AVAILABLE_EVENT_LIST /end DAQ_EVENT /end IF_DATA",
         " x1 mask 0 '' '' '' events 1,2,3:2"},
        {"/begin IF_DATA XCP /begin DEFAULT_EVENT_LIST EVENT 1 /end DEFAULT_EVENT_LIST /begin DAQ_EVENT "
         "FIXED_EVENT_LIST"
         " EVENT 2 EVENT 3 /end DAQ_EVENT /end IF_DATA",
         " x1 mask 0 '' '' '' events 1,2,3:2"},
    };
    for (const auto& [optional, dump] : rows) {
        const auto d = parsedModule(fmt::format(
            "/begin MEASUREMENT m \"d\" UWORD NO_COMPU_METHOD 1 2 0 10 {} /end MEASUREMENT", optional));
        ASSERT_EQ(d.measurements.size(), 1U) << optional << fmt::format("{}", d.warnings);
        EXPECT_EQ(dumped(d, d.measurements[0]), "m 'd' UWORD NO_COMPU_METHOD [0 10]" + dump) << optional;
    }
}

const std::string kObjects = R"(
/begin CHARACTERISTIC c "d" MAP 0x10 RL 1.5 CM -1 1 EXTENDED_LIMITS -2 2 STEP_SIZE 1 READ_ONLY NUMBER 3
  ECU_ADDRESS_EXTENSION 1 COMPARISON_QUANTITY BIT_MASK CALIBRATION_ACCESS CALIBRATION
  /begin AXIS_DESCR COM_AXIS in CM2 8 0 7 CURVE_AXIS_REF AXIS_PTS_REF MONOTONY MON_INCREASE AXIS_PTS_REF ax /end AXIS_DESCR
  /begin AXIS_DESCR FIX_AXIS NO_INPUT_QUANTITY NO_COMPU_METHOD 2 0 1 /end AXIS_DESCR
/end CHARACTERISTIC
/begin CHARACTERISTIC v "" ASCII 0 RL 0 CM 0 0 /begin VIRTUAL_CHARACTERISTIC "1" /end VIRTUAL_CHARACTERISTIC /end CHARACTERISTIC
/begin AXIS_PTS ax "" 0x20 in RL 0 CM 8 0 7 /end AXIS_PTS
/begin COMPU_METHOD lin "" LINEAR "%3.1" "m/s" REF_UNIT COEFFS COEFFS_LINEAR 2 -1 /end COMPU_METHOD
/begin COMPU_METHOD rat "" RAT_FUNC "" "" COEFFS 0 10 0 0 0 1 STATUS_STRING_REF s /end COMPU_METHOD
/begin COMPU_METHOD tab "" TAB_VERB "" "" COMPU_TAB_REF COEFFS /end COMPU_METHOD
/begin COMPU_METHOD form "" FORM "" "" /begin FORMULA "X1+4" FORMULA_INV "X1-4" /end FORMULA /end COMPU_METHOD
/begin COMPU_TAB t "" TAB_INTP 2 -3 98 -1 9.5 DEFAULT_VALUE "no" DEFAULT_VALUE_NUMERIC 3.5 /end COMPU_TAB
/begin COMPU_VTAB vt "" TAB_VERB 2 0 "off" 1 "on" DEFAULT_VALUE "?" /end COMPU_VTAB
/begin COMPU_VTAB_RANGE vr "" 1 2 3.5 "mid" /end COMPU_VTAB_RANGE
/begin RECORD_LAYOUT rl NO_AXIS_PTS_X 1 UBYTE FNC_VALUES 2 SWORD COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin MOD_COMMON "BYTE_ORDER" S_REC_LAYOUT BYTE_ORDER BYTE_ORDER MSB_FIRST DATA_SIZE 32 /end MOD_COMMON
/begin MOD_PAR "" EPK "e" SYSTEM_CONSTANT "k1" "-3.45" SYSTEM_CONSTANT "k2" "" /end MOD_PAR
/begin GROUP g "" /begin CHARACTERISTIC nested /end CHARACTERISTIC /end GROUP)";

TEST(Parser, ReadsTheOtherObjects) {
    const auto d = parsedModule(kObjects);
    ASSERT_EQ(fmt::format("{}", d.warnings), "[]");
    const Characteristic& c = *d.findCharacteristic("c");
    EXPECT_EQ(
        fmt::format("{} {} {} {:x}:{} {} {} {} {} [{} {}] [{} {}] x{} {} {} {}", c.name, c.longIdentifier,
                    static_cast<int>(c.type), c.address, c.addressExtension, c.deposit, c.maxDiff,
                    c.conversion, c.bits.mask, c.lowerLimit, c.upperLimit, c.extendedLimits->first,
                    c.extendedLimits->second, c.elementCount, c.readOnly, c.isVirtual, c.axes.size()),
        "c d 2 10:1 RL 1.5 CM 0 [-1 1] [-2 2] x3 true false 2");
    EXPECT_EQ(fmt::format("{} {} {} {} {} {} {}", axisKindName(c.axes[0].kind), c.axes[0].inputQuantity,
                          c.axes[0].conversion, c.axes[0].maxAxisPoints, c.axes[0].lowerLimit,
                          c.axes[0].upperLimit, c.axes[0].reference),
              "COM_AXIS in CM2 8 0 7 ax");
    EXPECT_TRUE(d.findCharacteristic("v")->isVirtual);
    EXPECT_EQ(d.findCharacteristic("nested"), nullptr);
    ASSERT_EQ(d.axisPoints.size(), 1U);
    EXPECT_EQ(d.axisPoints[0].address, 0x20U);

    std::string methods;
    for (const CompuMethod& m : d.compuMethods)
        methods += fmt::format("{} {} '{}' '{}'\n", m.name, m.coefficients, m.tableRef, m.statusStringRef);
    EXPECT_EQ(methods,
              "lin [2, -1] '' ''\nrat [0, 10, 0, 0, 0, 1] '' 's'\ntab [] 'COEFFS' ''\nform [] '' ''\n");
    const CompuTab& t = *d.findCompuTab("t");
    EXPECT_EQ(fmt::format("{} {} {}", t.pairs, *t.defaultNumeric, t.defaultText),
              "[(-3, 98), (-1, 9.5)] 3.5 no");
    const RecordLayout& rl = *d.findRecordLayout("rl");
    EXPECT_EQ(fmt::format("{} {}", rl.entries.size(), rl.entries[1].position), "2 2");
    EXPECT_EQ(orderName(d.byteOrder), " big");
    EXPECT_EQ(d.systemConstants.size(), 2U);
    EXPECT_EQ(d.systemConstants.at("k1"), "-3.45");
}

TEST(Parser, SkipsWhatItCannotRead) {
    const std::pair<std::string, std::string> rows[] = {
        {"MEASUREMENT", "missing name"},
        {R"(MEASUREMENT "m")", "name must not be a string"},
        {R"(MEASUREMENT m d)", "long identifier must be a string"},
        {R"(MEASUREMENT m "" BYTE)", "unknown data type 'BYTE'"},
        {R"(MEASUREMENT m "" UBYTE c x)", "resolution must be a number, got 'x'"},
        {R"(MEASUREMENT m "" UBYTE c 0 "x")", "accuracy must be a number, got 'x'"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0)", "missing upper limit"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0 0 ECU_ADDRESS 0x100000000)",
         "ECU_ADDRESS must be a non-negative integer"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0 0 BIT_MASK 0x10000000000000000)",
         "BIT_MASK must be a non-negative integer"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0 0 ECU_ADDRESS)", "missing ECU_ADDRESS"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0 0 MATRIX_DIM 2 2.5)", "MATRIX_DIM must be a non-negative integer"},
        {R"(MEASUREMENT m "" UBYTE c 0 0 0 0 BYTE_ORDER MIDDLE)", "unknown byte order 'MIDDLE'"},
        {R"(CHARACTERISTIC c "" STRING)", "unknown characteristic type 'STRING'"},
        {R"(CHARACTERISTIC c "" VALUE -1)", "address must be a non-negative integer"},
        {R"(CHARACTERISTIC c "" CURVE 0 d 0 c 0 0 /begin AXIS_DESCR FIX_AXIS i c -1 /end AXIS_DESCR)",
         "max axis points must be a non-negative integer"},
        {R"(AXIS_PTS a "" 0 "")", "input quantity must not be a string"},
        {R"(COMPU_METHOD m "" POLY)", "unknown conversion type 'POLY'"},
        {R"(COMPU_METHOD m "" LINEAR "" "")", "LINEAR without COEFFS_LINEAR"},
        {R"(COMPU_METHOD m "" LINEAR "" "" COEFFS_LINEAR 1)", "COEFFS_LINEAR needs 2 numbers"},
        {R"(COMPU_METHOD m "" RAT_FUNC "" "")", "RAT_FUNC without COEFFS"},
        {R"(COMPU_METHOD m "" RAT_FUNC "" "" COEFFS 0 1 0 0 0 1 2)", "COEFFS needs 6 numbers"},
        {R"(COMPU_METHOD m "" FORM "" "")", "FORM without FORMULA"},
        {R"(COMPU_METHOD m "" TAB_INTP "" "")", "table conversion without COMPU_TAB_REF"},
        {R"(COMPU_TAB t "" TAB_INTP 2.5)", "number of value pairs must be a non-negative integer"},
        {R"(COMPU_TAB t "" TAB_INTP 4294967295 1 2)", "missing InVal"},
        {R"(COMPU_VTAB t "" TAB_VERB 1 1 2)", "OutVal must be a string"},
        {R"(MOD_PAR "" SYSTEM_CONSTANT "k")", "missing SYSTEM_CONSTANT"},
    };
    for (const auto& [object, problem] : rows) {
        std::istringstream words(object);
        std::string keyword, name;
        words >> keyword >> name;
        name.erase(std::remove(name.begin(), name.end(), '"'), name.end());
        if (!name.empty()) name = " '" + name + "'";
        const auto d = parsedModule(fmt::format("/begin {} /end {}\n{}", object, keyword, kGood));
        EXPECT_EQ(fmt::format("{}", fmt::join(d.warnings, "\n")),
                  fmt::format("skipped: {}{} (line 2): {}", keyword, name, problem));
        EXPECT_NE(d.findMeasurement("good"), nullptr);
        EXPECT_EQ(d.measurements.size() + d.characteristics.size() + d.axisPoints.size() +
                      d.compuMethods.size() + d.compuTabs.size() + d.compuVtabs.size() +
                      d.recordLayouts.size() + d.systemConstants.size(),
                  1U)
            << object;
    }
}

TEST(Parser, KeepsTheFirstOfEqualNames) {
    std::string content = "/include \"a.a2l\"\n/begin GROUP g \"\n\" /include\n/end GROUP\n";
    for (int i = 0; i < 2000; ++i)
        content +=
            fmt::format("/begin MEASUREMENT m{} \"{}\" UBYTE c 0 0 0 1 /end MEASUREMENT\n", i % 1999, i);
    content +=
        "/begin CHARACTERISTIC m1 \"\" VALUE 0 d 0 c 0 1 /end CHARACTERISTIC\n"
        "/begin MOD_PAR \"\" SYSTEM_CONSTANT \"k\" \"1\" SYSTEM_CONSTANT \"k\" \"2\" /end MOD_PAR";
    auto first = parsedModule(content);
    const Description d = std::move(first);  // texts and indices go with it
    EXPECT_EQ(fmt::format("{}", fmt::join(d.warnings, "\n")),
              "skipped: /include 'a.a2l' (line 2): included files are not read\n"
              "skipped: /include (line 4): included files are not read\n"
              "skipped: MEASUREMENT 'm0' (line 2005): the name is already used\n"
              "'m1' names a MEASUREMENT and a CHARACTERISTIC (line 2006): the MEASUREMENT is used\n"
              "skipped: SYSTEM_CONSTANT 'k' (line 2007): the name is already used");
    ASSERT_EQ(d.measurements.size(), 1999U);
    for (int i = 0; i < 1999; ++i) {
        const Measurement* found = d.findMeasurement(fmt::format("m{}", i));
        ASSERT_NE(found, nullptr) << i;
        EXPECT_EQ(found->longIdentifier, std::to_string(i));
    }
    EXPECT_EQ(d.findMeasurement("M1"), nullptr);
    EXPECT_EQ(d.findMeasurement(""), nullptr);
    EXPECT_NE(d.findCharacteristic("m1"), nullptr);
    EXPECT_EQ(d.systemConstants.at("k"), "1");
}

TEST(Parser, TellsWhatItLeavesOut) {
    const auto d = parsedModule(
        "/begin IF_DATA ASAP1B_CCP /end IF_DATA /begin TRANSFORMER i /end TRANSFORMER\n"
        "/include sub/b.a2l /begin TRANSFORMER j /end TRANSFORMER "
        "/begin VARIANT_CODING /end VARIANT_CODING /begin GROUP g \"\" /end GROUP /include XCP.aml");
    EXPECT_EQ(fmt::format("{}", fmt::join(d.warnings, "\n")),
              "skipped: /include 'sub/b.a2l' (line 3): included files are not read\n"
              "left out: 2 TRANSFORMER, 1 VARIANT_CODING (not read by this version)");
    EXPECT_EQ(fmt::format("{}", fmt::join(d.notes, "\n")),
              "left out: TRANSFORMER 'i' (line 2)\nleft out: TRANSFORMER 'j' (line 3)\n"
              "left out: VARIANT_CODING (line 3)\n/include 'XCP.aml' (line 3) is not read, and not needed");
    EXPECT_TRUE(d.xcp.isCcpOnly());
}

TEST(Parser, ReadsTheFrame) {
    const std::pair<std::string, std::string> rows[] = {
        {"ASAP2_VERSION 1 71 /begin PROJECT P \"p\" /begin HEADER \"h\" /end HEADER /begin MODULE M \"m\""
         " /end MODULE /begin MODULE N \"\" " +
             kGood + " /end MODULE /end PROJECT",
         "(1, 71) P p M m 0"},
        {"", "A2L: no PROJECT block"},
        {"/begin MODULE M \"\" /end MODULE", "A2L: no PROJECT block"},
        {"/begin PROJECT P \"\" /end PROJECT", "A2L: no MODULE block"},
        {inModule("") + "\n/end X", "A2L line 4: unexpected /end X"},
    };
    for (const auto& [text, outcome] : rows) {
        const auto d = parseDescription(text);
        EXPECT_EQ(d.ok() ? fmt::format("{} {} {} {} {} {}", *d.value().asap2Version, d.value().projectName,
                                       d.value().projectLongIdentifier, d.value().moduleName,
                                       d.value().moduleLongIdentifier, d.value().measurements.size())
                         : d.error().text(),
                  outcome);
    }
}

std::string utf16(std::string_view ascii, bool bigEndian) {
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : ascii)
        out += {bigEndian ? '\0' : c, bigEndian ? c : '\0'};
    return out;
}

TEST(Load, TakesEveryEncodingAndKindOfFile) {
    const test::TempDir directory;
    const auto path = directory.path() / "x.a2l";
    const auto load1 = [&](std::string_view bytes) {
        std::ofstream(path, std::ios::binary) << bytes;
        const auto d = load(path);
        if (!d.ok()) return d.error().text();
        return fmt::format("{} {}", d.value().measurements.size(), d.value().moduleLongIdentifier);
    };
    const auto text = [](std::string_view name, std::size_t filler) {
        return fmt::format("/begin PROJECT P \"\" /begin MODULE M \"{}\"{:{}} {} /end MODULE /end PROJECT",
                           name, "", filler, kGood);
    };
    EXPECT_EQ(load1(text("\xC3\xA4", 0)), "1 \xC3\xA4");
    EXPECT_EQ(load1("\xEF\xBB\xBF" + text("\xC3\xA4", 0)), "1 \xC3\xA4");
    EXPECT_EQ(load1(text("\xE4\xC3\xA4", 0)), "1 \xC3\xA4\xC3\x83\xC2\xA4");  // decided for the whole file
    EXPECT_EQ(load1(utf16(text("ab", 0), true)), "1 ab");
    EXPECT_EQ(load1(utf16(text("ab", 0), false)), "1 ab");
    // The odd byte is found long after the first objects went by.
    EXPECT_EQ(load1(text("\xC3\xA4", 3'000'000) + "\xE4"), "1 \xC3\x83\xC2\xA4");
    // Characters cut by the end of a reading step, in every place.
    std::string euros = text("\xC3\xA4", 0) + " //";
    for (int i = 0; i < 300'000; ++i)
        euros += "\xE2\x82\xAC";
    EXPECT_EQ(load1(euros), "1 \xC3\xA4");
    EXPECT_EQ(load1(euros + "\xE2\x82"), "1 \xC3\x83\xC2\xA4");
    EXPECT_EQ(load1(""), "A2L: no PROJECT block");

    const auto pipe = directory.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::thread writer([&] { std::ofstream(pipe, std::ios::binary) << text("piped", 1'000'000); });
    EXPECT_EQ(load(pipe).value().moduleLongIdentifier, "piped");
    writer.join();
    EXPECT_EQ(load(directory.path() / "none").error().code, ErrorCode::notFound);
}

TEST(Parser, TellsOnceOfEachOddity) {
    const std::string limits = R"(/begin MEASUREMENT m "" UBYTE c 0 0 0 1e999 /end MEASUREMENT
/begin CHARACTERISTIC p "" VALUE 0 l 0 c -1e999 1 /end CHARACTERISTIC)";
    const std::string names = R"(
/begin CHARACTERISTIC q "" VALUE 0 l 0 c 0 1 /end CHARACTERISTIC
/begin CHARACTERISTIC good "" VALUE 0 l 0 c 0 1 /end CHARACTERISTIC
/begin CHARACTERISTIC M "" VALUE 0 l 0 c 0 1 /end CHARACTERISTIC)";
    EXPECT_EQ(parsedModule(limits + names + kGood).warnings,
              (std::vector<std::string>{
                  "MEASUREMENT 'm' (line 2) and 1 more object(s): a limit beyond the range of a 64-bit float "
                  "counts as none",
                  "'good' names a MEASUREMENT and a CHARACTERISTIC (line 5): the MEASUREMENT is used"}));
}

// Damage anywhere gives the tokenizer's error or a description; never anything else.
TEST(Parser, SurvivesDamage) {
    const std::string sample = inModule(kObjects + R"(
/begin MEASUREMENT m "d" UWORD c 1 2 0 10 ECU_ADDRESS 0x10 BIT_MASK 3 MATRIX_DIM 2 2 /begin IF_DATA XCP EVENT 1 /end IF_DATA /end MEASUREMENT)");
    const auto check = [](std::string_view text) {
        const auto description = parseDescription(text);
        const auto tree = parse(text);
        const std::string error = description.ok() ? "" : description.error().text();
        if (tree.ok()) {
            EXPECT_TRUE(error.empty() || error.starts_with("A2L: no ")) << error;
        } else if (error != tree.error().text()) {
            // A name that the encoding changes.
            EXPECT_TRUE(error.starts_with("A2L line ")) << error;
        }
    };
    for (std::size_t size = 0; size <= sample.size(); ++size)
        check(std::string_view(sample).substr(0, size));
    std::string text = sample;
    for (char& c : text) {
        const char good = c;
        for (const int flip : {0x01, 0x10, 0x80}) {
            c = static_cast<char>(good ^ flip);
            check(text);
        }
        c = good;
    }
}

}  // namespace
}  // namespace lm::a2l
