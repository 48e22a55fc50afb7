#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
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

Description parsed(std::string_view content) {
    auto result = parseDescription(inModule(content));
    EXPECT_TRUE(result.ok()) << content;
    return result.ok() ? std::move(result).value() : Description();
}

std::string orderName(std::optional<ByteOrder> order) {
    if (!order) return "";
    return *order == ByteOrder::bigEndian ? " big" : " little";
}

std::string dumped(const Description& description, const Measurement& m) {
    return fmt::format("{} '{}' {} {} [{} {}]{}{} x{} mask {:x} '{}' '{}' '{}'{}{}{} events {}", m.name,
                       m.longIdentifier, dataTypeName(m.dataType), m.conversion, m.lowerLimit, m.upperLimit,
                       m.hasAddress ? fmt::format(" {:x}:{}", m.ecuAddress, m.addressExtension) : "",
                       orderName(m.byteOrder), m.elementCount, m.bitMask, m.displayIdentifier, m.format,
                       m.physUnit.value_or(""), m.readOnly ? " ro" : "", m.readWrite ? " rw" : "",
                       m.eventCount == 0 ? " no" : "", fmt::join(description.events(m), ","));
}

TEST(Parser, ReadsMeasurements) {
    const std::string plain = "m 'd' UWORD NO_COMPU_METHOD [0 10]";
    const struct {
        const char* optional;
        std::string dump;
    } kRows[] = {
        {"", plain + " x1 mask 0 '' '' '' no events "},
        {"ECU_ADDRESS 0xFFFFFFFF ECU_ADDRESS_EXTENSION 2 READ_WRITE",
         plain + " ffffffff:2 x1 mask 0 '' '' '' rw no events "},
        {R"(FORMAT "%5.1" PHYS_UNIT "1/\"min" DISPLAY_IDENTIFIER d.m READ_ONLY BYTE_ORDER BIG_ENDIAN)",
         plain + R"( big x1 mask 0 'd.m' '%5.1' '1/\"min' ro no events )"},
        {"BIT_MASK 0xFFFFFFFFFFFFFFFE BYTE_ORDER MSB_LAST",
         plain + " little x1 mask fffffffffffffffe '' '' '' no events "},
        {"BIT_MASK 18446744073709551615 ECU_ADDRESS 1e3",
         plain + " 3e8:0 x1 mask ffffffffffffffff '' '' '' no events "},
        {"ARRAY_SIZE 7", plain + " x7 mask 0 '' '' '' no events "},
        {"MATRIX_DIM 4 3 2 BIT_MASK 1", plain + " x24 mask 1 '' '' '' no events "},
        {"MATRIX_DIM 5 0 0", plain + " x5 mask 0 '' '' '' no events "},
        {"MATRIX_DIM 65536 65536", plain + " x4294967295 mask 0 '' '' '' no events "},
        // Values that look like keywords.
        {"DISPLAY_IDENTIFIER READ_ONLY REF_MEMORY_SEGMENT READ_WRITE LAYOUT BIT_MASK ECU_ADDRESS 5",
         plain + " 5:0 x1 mask 0 'READ_ONLY' '' '' no events "},
        {R"(SYMBOL_LINK "READ_ONLY" 4 MAX_REFRESH 3 1 UNKNOWN "x" 5 ECU_ADDRESS 6)",
         plain + " 6:0 x1 mask 0 '' '' '' no events "},
        {R"("ECU_ADDRESS" 5 DISCRETE)", plain + " x1 mask 0 '' '' '' no events "},
        // Events at any depth, in the order of the file, of XCP alone.
        {"/begin IF_DATA XCP EVENT 1 /begin DAQ_EVENT VARIABLE /begin DEFAULT_EVENT_LIST EVENT 0x2 EVENT "
         "/end DEFAULT_EVENT_LIST EVENT 3 /end DAQ_EVENT EVENT 65535 EVENT 65536 EVENT X /end IF_DATA"
         " /begin IF_DATA CCP EVENT 9 /end IF_DATA /begin IF_DATA XCPplus 0x104 EVENT 4 /end IF_DATA",
         plain + " x1 mask 0 '' '' '' events 1,2,3,65535,4"},
    };
    for (const auto& row : kRows) {
        const auto d = parsed(fmt::format(
            "/begin MEASUREMENT m \"d\" UWORD NO_COMPU_METHOD 1 2 0 10 {} /end MEASUREMENT", row.optional));
        ASSERT_EQ(d.measurements.size(), 1U) << row.optional << fmt::format("{}", d.warnings);
        EXPECT_EQ(dumped(d, d.measurements[0]), row.dump) << row.optional;
    }
}

TEST(Parser, ReadsTheOtherObjects) {
    const auto d = parsed(R"(
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
/begin GROUP g "" /begin CHARACTERISTIC nested /end CHARACTERISTIC /end GROUP)");
    ASSERT_EQ(fmt::format("{}", d.warnings), "[]");
    const Characteristic& c = *d.findCharacteristic("c");
    EXPECT_EQ(
        fmt::format("{} {} {} {:x}:{} {} {} {} {} [{} {}] [{} {}] x{} {} {} {}", c.name, c.longIdentifier,
                    static_cast<int>(c.type), c.address, c.addressExtension, c.deposit, c.maxDiff,
                    c.conversion, c.bitMask, c.lowerLimit, c.upperLimit, c.extendedLimits->first,
                    c.extendedLimits->second, c.elementCount, c.readOnly, c.isVirtual, c.axes.size()),
        "c d 2 10:1 RL 1.5 CM 0 [-1 1] [-2 2] x3 true false 2");
    EXPECT_EQ(fmt::format("{} {} {} {} {} {} {}", c.axes[0].attribute, c.axes[0].inputQuantity,
                          c.axes[0].conversion, c.axes[0].maxAxisPoints, c.axes[0].lowerLimit,
                          c.axes[0].upperLimit, c.axes[0].axisPointsRef),
              "COM_AXIS in CM2 8 0 7 ax");
    EXPECT_TRUE(d.findCharacteristic("v")->isVirtual);
    EXPECT_EQ(d.findCharacteristic("nested"), nullptr);
    ASSERT_EQ(d.axisPoints.size(), 1U);
    EXPECT_EQ(d.axisPoints[0].address, 0x20U);

    std::string methods;
    for (const CompuMethod& m : d.compuMethods) {
        methods += fmt::format("{} {} {} '{}' '{}' '{}' '{}' '{}'\n", m.name, static_cast<int>(m.type),
                               m.coefficients, m.unit, m.tableRef, m.statusStringRef, m.formula,
                               m.formulaInverse.value_or("-"));
    }
    EXPECT_EQ(methods,
              "lin 1 [2, -1] 'm/s' '' '' '' '-'\n"
              "rat 2 [0, 10, 0, 0, 0, 1] '' '' 's' '' '-'\n"
              "tab 5 [] '' 'COEFFS' '' '' '-'\n"
              "form 6 [] '' '' '' 'X1+4' 'X1-4'\n");
    const CompuTab& t = *d.findCompuTab("t");
    EXPECT_EQ(fmt::format("{} {} {}", t.pairs, *t.defaultNumeric, t.defaultText),
              "[(-3, 98), (-1, 9.5)] 3.5 no");
    std::string texts;
    for (const CompuVtab& table : d.compuVtabs) {
        texts += fmt::format("{} '{}'", table.name, table.defaultText);
        for (const auto& range : table.ranges)
            texts += fmt::format(" {}-{} {}", range.lower, range.upper, range.text);
        texts += '\n';
    }
    EXPECT_EQ(texts, "vt '?' 0-0 off 1-1 on\nvr '' 2-3.5 mid\n");
    const RecordLayout& rl = *d.findRecordLayout("rl");
    EXPECT_EQ(fmt::format("{} {} {} {}", rl.fncValues->position, dataTypeName(rl.fncValues->dataType),
                          rl.fncValues->indexMode, rl.fncValues->addressType),
              "2 SWORD COLUMN_DIR DIRECT");
    EXPECT_EQ(orderName(d.byteOrder), " big");
    EXPECT_EQ(d.systemConstants.size(), 2U);
    EXPECT_EQ(d.systemConstants.at("k1"), "-3.45");
}

TEST(Parser, SkipsWhatItCannotRead) {
    const struct {
        const char* object;
        const char* warning;
    } kRows[] = {
        {"MEASUREMENT", " (line 2): missing name"},
        {"MEASUREMENT \"m\"", " 'm' (line 2): name must not be a string"},
        {"MEASUREMENT m d", " 'm' (line 2): long identifier must be a string"},
        {"MEASUREMENT m \"\" \"UBYTE\"", " 'm' (line 2): data type must not be a string"},
        {"MEASUREMENT m \"\" BYTE", " 'm' (line 2): unknown data type 'BYTE'"},
        {"MEASUREMENT m \"\" UBYTE \"c\"", " 'm' (line 2): conversion must not be a string"},
        {"MEASUREMENT m \"\" UBYTE c x", " 'm' (line 2): resolution must be a number, got 'x'"},
        {"MEASUREMENT m \"\" UBYTE c 0 \"x\"", " 'm' (line 2): accuracy must be a number, got 'x'"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0", " 'm' (line 2): missing upper limit"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0 0 ECU_ADDRESS 0x100000000",
         " 'm' (line 2): ECU_ADDRESS must be a non-negative integer"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0 0 BIT_MASK 0x10000000000000000",
         " 'm' (line 2): BIT_MASK must be a non-negative integer"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0 0 ECU_ADDRESS", " 'm' (line 2): missing ECU_ADDRESS"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0 0 MATRIX_DIM 2 2.5",
         " 'm' (line 2): MATRIX_DIM must be a non-negative integer"},
        {"MEASUREMENT m \"\" UBYTE c 0 0 0 0 BYTE_ORDER MSB_LAST_MSW_FIRST",
         " 'm' (line 2): unknown byte order 'MSB_LAST_MSW_FIRST'"},
        {"CHARACTERISTIC c \"\" STRING", " 'c' (line 2): unknown characteristic type 'STRING'"},
        {"CHARACTERISTIC c \"\" VALUE -1", " 'c' (line 2): address must be a non-negative integer"},
        {"CHARACTERISTIC c \"\" VALUE 0 \"\"", " 'c' (line 2): deposit must not be a string"},
        {"CHARACTERISTIC c \"\" VALUE 0 d x", " 'c' (line 2): max diff must be a number, got 'x'"},
        {"CHARACTERISTIC c \"\" CURVE 0 d 0 c 0 0 /begin AXIS_DESCR \"\" /end AXIS_DESCR",
         " 'c' (line 2): attribute must not be a string"},
        {"CHARACTERISTIC c \"\" CURVE 0 d 0 c 0 0 /begin AXIS_DESCR F i c -1 /end AXIS_DESCR",
         " 'c' (line 2): max axis points must be a non-negative integer"},
        {"AXIS_PTS a \"\" 0 \"\"", " 'a' (line 2): input quantity must not be a string"},
        {"COMPU_METHOD m \"\" POLY", " 'm' (line 2): unknown conversion type 'POLY'"},
        {"COMPU_METHOD m \"\" \"\"", " 'm' (line 2): conversion type must not be a string"},
        {"COMPU_METHOD m \"\" LINEAR 1", " 'm' (line 2): format must be a string"},
        {"COMPU_METHOD m \"\" LINEAR \"\" x", " 'm' (line 2): unit must be a string"},
        {"COMPU_METHOD m \"\" LINEAR \"\" \"\"", " 'm' (line 2): LINEAR without COEFFS_LINEAR"},
        {"COMPU_METHOD m \"\" LINEAR \"\" \"\" COEFFS_LINEAR 1",
         " 'm' (line 2): COEFFS_LINEAR needs 2 numbers"},
        {"COMPU_METHOD m \"\" RAT_FUNC \"\" \"\"", " 'm' (line 2): RAT_FUNC without COEFFS"},
        {"COMPU_METHOD m \"\" RAT_FUNC \"\" \"\" COEFFS 0 1 0 0 0 1 2",
         " 'm' (line 2): COEFFS needs 6 numbers"},
        {"COMPU_METHOD m \"\" FORM \"\" \"\"", " 'm' (line 2): FORM without FORMULA"},
        {"COMPU_METHOD m \"\" TAB_INTP \"\" \"\"", " 'm' (line 2): table conversion without COMPU_TAB_REF"},
        {"COMPU_TAB t \"\" TAB_INTP 2.5",
         " 't' (line 2): number of value pairs must be a non-negative integer"},
        {"COMPU_TAB t \"\" TAB_INTP 4294967295 1 2", " 't' (line 2): missing InVal"},
        {"COMPU_TAB t \"\" TAB_INTP 1 1 \"x\"", " 't' (line 2): OutVal must be a number, got 'x'"},
        {"COMPU_VTAB t \"\" TAB_VERB -1",
         " 't' (line 2): number of value pairs must be a non-negative integer"},
        {"COMPU_VTAB t \"\" TAB_VERB 1 1 2", " 't' (line 2): OutVal must be a string"},
        {"COMPU_VTAB_RANGE t \"\" x", " 't' (line 2): number of entries must be a non-negative integer"},
        {"COMPU_VTAB_RANGE t \"\" 1 1 a", " 't' (line 2): InValMax must be a number, got 'a'"},
        {"RECORD_LAYOUT r FNC_VALUES 1 WORD", " 'r' (line 2): unknown data type 'WORD'"},
        {"MOD_COMMON \"\" BYTE_ORDER MIDDLE", " (line 2): unknown byte order 'MIDDLE'"},
        {"MOD_PAR \"\" SYSTEM_CONSTANT \"k\"", " (line 2): missing SYSTEM_CONSTANT"},
    };
    for (const auto& row : kRows) {
        const std::string object = row.object;
        const std::string keyword = object.substr(0, object.find(' '));
        const auto d = parsed(
            fmt::format("/begin {} /end {}\n/begin MEASUREMENT good \"\" UBYTE c 0 0 0 1 /end MEASUREMENT",
                        object, keyword));
        EXPECT_EQ(fmt::format("{}", fmt::join(d.warnings, "\n")), "skipped: " + keyword + row.warning)
            << object;
        EXPECT_EQ(d.measurements.size() + d.characteristics.size() + d.axisPoints.size() +
                      d.compuMethods.size() + d.compuTabs.size() + d.compuVtabs.size() +
                      d.recordLayouts.size() + d.systemConstants.size(),
                  1U)
            << object;
        EXPECT_NE(d.findMeasurement("good"), nullptr);
    }
}

TEST(Parser, KeepsTheFirstOfEqualNames) {
    std::string content = "/include \"a.a2l\"\n/begin GROUP g /include\n/end GROUP\n";
    for (int i = 0; i < 2000; ++i) {
        content +=
            fmt::format("/begin MEASUREMENT m{} \"{}\" UBYTE c 0 0 0 1 /end MEASUREMENT\n", i % 1999, i);
    }
    content +=
        "/begin CHARACTERISTIC m1 \"\" VALUE 0 d 0 c 0 1 /end CHARACTERISTIC\n"
        "/begin MOD_PAR \"\" SYSTEM_CONSTANT \"k\" \"1\" SYSTEM_CONSTANT \"k\" \"2\" /end MOD_PAR";
    auto first = parsed(content);
    const Description d = std::move(first);  // texts and indices go with it
    EXPECT_EQ(d.warnings, (std::vector<std::string>{
                              "skipped: /include 'a.a2l' (line 2): included files are not read",
                              "skipped: /include (line 3): included files are not read",
                              "skipped: MEASUREMENT 'm0' (line 2004): the name is already used",
                              "skipped: SYSTEM_CONSTANT 'k' (line 2006): the name is already used"}));
    ASSERT_EQ(d.measurements.size(), 1999U);
    for (int i = 0; i < 1999; ++i) {
        const Measurement* found = d.findMeasurement(fmt::format("m{}", i));
        ASSERT_EQ(found, &d.measurements[static_cast<std::size_t>(i)]);
        EXPECT_EQ(found->longIdentifier, std::to_string(i));
    }
    EXPECT_EQ(d.findMeasurement("M1"), nullptr);
    EXPECT_EQ(d.findMeasurement(""), nullptr);
    EXPECT_NE(d.findCharacteristic("m1"), nullptr);
    EXPECT_EQ(d.systemConstants.at("k"), "1");
}

TEST(Parser, ReadsTheFrame) {
    const auto d = parseDescription(
        "ASAP2_VERSION 1 71 /begin PROJECT P \"p\" /begin HEADER \"h\" /end HEADER /begin MODULE M1 \"m\" "
        "/end MODULE "
        "/begin MODULE M2 \"\" /begin MEASUREMENT x \"\" UBYTE c 0 0 0 1 /end MEASUREMENT /end MODULE /end "
        "PROJECT");
    ASSERT_TRUE(d.ok());
    EXPECT_EQ(
        fmt::format("{} {} {} {} {}", *d.value().asap2Version, d.value().projectName,
                    d.value().projectLongIdentifier, d.value().moduleName, d.value().moduleLongIdentifier),
        "(1, 71) P p M1 m");
    EXPECT_TRUE(d.value().measurements.empty());

    const struct {
        const char* text;
        const char* message;
    } kErrors[] = {
        {"", "A2L: no PROJECT block"},
        {"/begin MODULE M \"\" /end MODULE", "A2L: no PROJECT block"},
        {"/begin PROJECT P \"\" /end PROJECT", "A2L: no MODULE block"},
        {"/begin PROJECT P \"\" /begin MODULE M \"\" /end MODULE /end PROJECT\n/end X",
         "A2L line 2: unexpected /end X"},
    };
    for (const auto& row : kErrors) {
        const auto failed = parseDescription(row.text);
        ASSERT_FALSE(failed.ok()) << row.text;
        EXPECT_EQ(failed.error().text(), row.message);
    }
}

std::string utf16(std::string_view ascii, bool bigEndian) {
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : ascii) {
        if (bigEndian) out += '\0';
        out += c;
        if (!bigEndian) out += '\0';
    }
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
        return fmt::format(
            "/begin PROJECT P \"\" /begin MODULE M \"{}\"{:{}} /begin MEASUREMENT m \"\" UBYTE c 0 0 0 1"
            " /end MEASUREMENT /end MODULE /end PROJECT",
            name, "", filler);
    };
    EXPECT_EQ(load1(text("\xC3\xA4", 0)), "1 \xC3\xA4");
    EXPECT_EQ(load1("\xEF\xBB\xBF" + text("\xC3\xA4", 0)), "1 \xC3\xA4");
    EXPECT_EQ(load1(text("\xE4\xC3\xA4", 0)), "1 \xC3\xA4\xC3\x83\xC2\xA4");  // decided for the whole file
    EXPECT_EQ(load1(utf16(text("ab", 0), true)), "1 ab");
    EXPECT_EQ(load1(utf16(text("ab", 0), false)), "1 ab");
    // The odd byte is found long after the first objects went by.
    EXPECT_EQ(load1(text("\xC3\xA4", 3'000'000) + "\xE4"), "1 \xC3\x83\xC2\xA4");
    // A check of the encoding that falls between the two bytes of a character.
    EXPECT_EQ(load1(text("\xC3\xA4", 0) + std::string(3'000'000, ' ') + "/begin \xC3\xA4 /end \xC3\xA4"),
              "1 \xC3\xA4");
    EXPECT_EQ(load1(""), "A2L: no PROJECT block");

    const auto pipe = directory.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::thread writer([&] { std::ofstream(pipe, std::ios::binary) << text("piped", 1'000'000); });
    const auto d = load(pipe);
    writer.join();
    ASSERT_TRUE(d.ok());
    EXPECT_EQ(d.value().moduleLongIdentifier, "piped");

    const auto missing = load(directory.path() / "none");
    EXPECT_EQ(missing.error().text(), "cannot open A2L file " + (directory.path() / "none").string());
    EXPECT_EQ(missing.error().code, ErrorCode::notFound);
    EXPECT_EQ(missing.error().sysErrno, ENOENT);
    EXPECT_EQ(load(directory.path()).error().text(), "cannot open A2L file " + directory.path().string());
}

// Damage anywhere gives the tokenizer's error or a description; never anything else.
TEST(Parser, SurvivesDamage) {
    const std::string sample = inModule(R"(/begin MOD_COMMON "" BYTE_ORDER MSB_LAST /end MOD_COMMON
/begin IF_DATA XCP /begin PROTOCOL_LAYER 0x101 1 2 3 4 5 6 7 8 0xFF BYTE_ORDER_MSB_LAST ADDRESS_GRANULARITY_BYTE OPTIONAL_CMD GET_ID /end PROTOCOL_LAYER
/begin DAQ DYNAMIC 0 1 /begin TIMESTAMP_SUPPORTED 1 SIZE_WORD /end TIMESTAMP_SUPPORTED /begin EVENT "e" "e" 0 DAQ 1 2 3 4 /end EVENT /end DAQ
/begin XCP_ON_CAN 1 CAN_ID_MASTER 0x80000001 /begin CAN_FD MAX_DLC 64 /end CAN_FD /begin DAQ_LIST_CAN_ID 0 FIXED 3 /end DAQ_LIST_CAN_ID /end XCP_ON_CAN
/begin XCP_ON_UDP_IP 1 5555 ADDRESS "h" /end XCP_ON_UDP_IP /begin XCP_ON_SxI 1 9600 /end XCP_ON_SxI /end IF_DATA
/begin MEASUREMENT m "d" UWORD c 1 2 0 10 ECU_ADDRESS 0x10 BIT_MASK 3 MATRIX_DIM 2 2 /begin IF_DATA XCP EVENT 1 /end IF_DATA /end MEASUREMENT
/begin CHARACTERISTIC c "d" CURVE 0x10 RL 1.5 CM -1 1 /begin AXIS_DESCR COM_AXIS in CM2 8 0 7 AXIS_PTS_REF ax /end AXIS_DESCR /end CHARACTERISTIC
/begin COMPU_METHOD lin "" LINEAR "%3.1" "m/s" COEFFS_LINEAR 2 -1 /end COMPU_METHOD
/begin COMPU_METHOD form "" FORM "" "" /begin FORMULA "X1+4" FORMULA_INV "X1-4" /end FORMULA /end COMPU_METHOD
/begin COMPU_TAB t "" TAB_INTP 2 -3 98 -1 9.5 DEFAULT_VALUE_NUMERIC 3.5 /end COMPU_TAB
/begin COMPU_VTAB vt "" TAB_VERB 2 0 "off" 1 "on" DEFAULT_VALUE "?" /end COMPU_VTAB
/begin COMPU_VTAB_RANGE vr "" 1 2 3.5 "mid" /end COMPU_VTAB_RANGE
/begin RECORD_LAYOUT rl FNC_VALUES 2 SWORD COLUMN_DIR DIRECT /end RECORD_LAYOUT
/begin MOD_PAR "" SYSTEM_CONSTANT "k1" "-3.45" /end MOD_PAR)");
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
