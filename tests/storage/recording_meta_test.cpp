#include "storage/recording_meta.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "storage/recording_fixture.h"
#include "storage/recording_reader.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using a2l::Conversion;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Without its white space.
const std::string kSmallMeta =
    R"({"formatVersion":2,"source":"XCPonCANcan0","startUtcNs":1700000000000000000,"startHostNs":999000000,)"
    R"("name":"demo","ecu":"ECU1","groups":[{"recordSize":3,"cycleNs":10000000,"name":"10ms","signals":[)"
    R"({"name":"Speed","description":"","displayName":"","type":"UWORD","byteOrder":"MSB_LAST","bitMask":0,)"
    R"("recordOffset":0,"conversion":{"type":"linear","unit":"km/h","format":"%6.1","linear":[0.5,0.0]}},)"
    R"({"name":"Temp","description":"","displayName":"","type":"SBYTE","byteOrder":"MSB_LAST","bitMask":0,)"
    R"("recordOffset":2,"conversion":{"type":"identical"}}]}]})";

std::string withoutSpace(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) != 0; }),
               text.end());
    return text;
}

a2l::Formula formula(const char* text) {
    return a2l::Formula::compile(text, {}).value();
}

TEST(RecordingMeta, WritesEveryKeyInItsPlace) {
    EXPECT_EQ(withoutSpace(metaToJson(test::smallRecording())), kSmallMeta);
}

TEST(RecordingMeta, KeepsEveryKindOfConversion) {
    const double third = 1.0 / 3;
    struct Row {
        Conversion conversion;
        std::string json;
    };
    const Row rows[] = {
        {Conversion(Conversion::Identical{}, "%5.2",
                    "\xC2\xB0"
                    "C"),
         R"({"type":"identical","unit":"°C","format":"%5.2"})"},
        {Conversion(Conversion::Linear{third, -kInf}, "", ""),
         R"({"type":"linear","linear":[0.3333333333333333,"-inf"]})"},
        {Conversion(Conversion::Rational{1, 2, 3, 4, 5, 1e300}, "", ""),
         R"({"type":"ratFunc","ratFunc":[1.0,2.0,3.0,4.0,5.0,1e+300]})"},
        {Conversion(Conversion::NumericTable{true, {{-1, 5}, {2, kNaN}}, 7.5}, "", ""),
         R"({"type":"table","interpolate":true,"table":[[-1.0,5.0],[2.0,"nan"]],"defaultNumeric":7.5})"},
        {Conversion(Conversion::VerbalTable{{{2, kInf, "high"}, {0, 1, "lo\"w"}}, "?"}, "", ""),
         R"({"type":"verbal","verbal":[{"min":2.0,"max":"inf","text":"high"},)"
         R"({"min":0.0,"max":1.0,"text":"lo\"w"}],"defaultText":"?"})"},
        {Conversion(Conversion::Formulas{formula("X*2"), formula("X/2")}, "", ""),
         R"({"type":"formula","formula":"X*2","formulaInv":"X/2"})"},
        {Conversion(Conversion::Formulas{formula("sqrt(X)"), std::nullopt}, "", ""),
         R"json({"type":"formula","formula":"sqrt(X)"})json"},
    };
    for (const Row& row : rows) {
        RecordingInfo info = test::smallRecording();
        SignalInfo& signal = info.groups[0].signals[0];
        signal.conversion = row.conversion;
        signal.coding = {a2l::DataType::int64, ByteOrder::bigEndian, ~std::uint64_t{0}};
        signal.description = "Größe\n\t\x01";
        info.groups[0].recordSize = 8;
        info.startHostNs = std::numeric_limits<std::int64_t>::min();
        const std::string text = metaToJson(info);
        EXPECT_NE(withoutSpace(text).find("\"conversion\":" + row.json + "}"), std::string::npos) << text;
        auto read = metaFromJson(text);
        ASSERT_TRUE(read.ok()) << read.error().text();
        EXPECT_EQ(metaToJson(read.value()), text);
        EXPECT_EQ(read.value().groups[0].signals[0].conversion.kind().index(), row.conversion.kind().index());
        EXPECT_EQ(read.value().groups[0].signals[0].description, signal.description);
    }
}

TEST(RecordingMeta, ReplacesBytesThatAreNotUtf8) {
    RecordingInfo info = test::smallRecording();
    info.name =
        "a\xFF"
        "b";
    EXPECT_EQ(metaFromJson(metaToJson(info)).value().name,
              "a\xEF\xBF\xBD"
              "b");
}

TEST(RecordingMeta, TellsWhatIsWrong) {
    const std::string json = "[json.exception.";
    const std::string from0To = " is not a whole number from 0 to ";
    const std::string rows[][3] = {
        // from, to, message behind "meta.json: "
        {"formatVersion\":2", "formatVersion\":2.0", "\"formatVersion\"" + from0To + "18446744073709551615"},
        {"formatVersion", "version", json + "out_of_range.403] key 'formatVersion' not found"},
        {"recordOffset\":2", "x\":2", json + "out_of_range.403] key 'recordOffset' not found"},
        {"\"demo\"", "5", json + "type_error.302] type must be string, but is number"},
        {"recordSize\":3", "recordSize\":-3", "\"recordSize\"" + from0To + "4294967040"},
        {"recordSize\":3", "recordSize\":4294967299", "\"recordSize\"" + from0To + "4294967040"},
        {"recordSize\":3", "recordSize\":2", "Temp: outside the group record"},
        {"recordOffset\":2", "recordOffset\":4294967295", "Temp: outside the group record"},
        {"1700000000000000000", "1.5", "\"startUtcNs\" is not a whole number of 64 bits"},
        {"1700000000000000000", "9223372036854775808", "\"startUtcNs\" is not a whole number of 64 bits"},
        {"SBYTE", "sbyte", "unknown type sbyte"},
        {"MSB_LAST", "LAST", "unknown byte order LAST"},
        {"\"identical\"", "\"same\"", "unknown conversion same"},
        {"\"identical\"", "\"verbal\",\"verbal\":5", "\"verbal\" is not an array"},
        {"\"identical\"", "\"table\",\"interpolate\":true,\"table\":[]", "conversion table is empty"},
        {"\"identical\"", "\"table\",\"interpolate\":true,\"table\":[[1,0],[0,0]]",
         "\"table\" is not in the order of its inputs"},
        {"\"identical\"", "\"ratFunc\",\"ratFunc\":[1]", "\"ratFunc\" does not hold 6 numbers"},
        {"0.5,", "\"a lot\",", "not a number: \"a lot\""},
        {"\"identical\"", "\"formula\",\"formula\":\"Y\"", "formula 'Y': unknown identifier 'Y'"},
    };
    for (const auto& row : rows) {
        std::string text = kSmallMeta;
        text.replace(text.find(row[0]), row[0].size(), row[1]);
        const auto read = metaFromJson(text);
        ASSERT_FALSE(read.ok()) << row[1];
        EXPECT_EQ(read.error().text(), "meta.json: " + row[2]);
    }
    const std::string unsupported = "unsupported recording format version ";
    EXPECT_EQ(metaFromJson(R"({"formatVersion":1})").error().text(),
              unsupported + "1 (recorded by an older XCP-Lumo)");
    EXPECT_EQ(metaFromJson(R"({"formatVersion":3})").error().text(), unsupported + "3");
}

TEST(RecordingMeta, IgnoresUnknownKeysAndAMissingSource) {
    std::string text = kSmallMeta;
    text.replace(text.find("\"source\""), 8, "\"colour\"");
    EXPECT_TRUE(metaFromJson(text).ok());
}

TEST(RecordingMeta, SurvivesDamage) {
    for (std::size_t length = 0; length < kSmallMeta.size(); ++length) {
        const auto read = metaFromJson(kSmallMeta.substr(0, length));
        ASSERT_FALSE(read.ok()) << length;
        EXPECT_EQ(read.error().text().rfind("meta.json: [json.exception.parse_error", 0), 0U) << length;
    }
    std::size_t refused = 0;
    for (std::size_t at = 0; at < kSmallMeta.size(); ++at) {
        for (const unsigned bits : {0x01U, 0x20U, 0x80U, 0xFFU}) {
            std::string text = kSmallMeta;
            text[at] = static_cast<char>(static_cast<unsigned char>(text[at]) ^ bits);
            const auto read = metaFromJson(text);
            if (!read.ok()) ++refused;
            // A byte above 0x7F can stand nowhere in this text, so these are always found.
            if (bits >= 0x80U) {
                EXPECT_FALSE(read.ok()) << at;
            }
        }
    }
    EXPECT_GT(refused, kSmallMeta.size() * 2);
}

TEST(RecordingReader, OpensWhatIsARecordingAndRefusesTheRest) {
    lm::test::TempDir dir;
    EXPECT_EQ(RecordingReader::open(dir.path()).error().text(), "no recording in " + dir.path().string());
    const auto meta = dir.path() / "meta.json";
    const std::string notRegular = "cannot open " + meta.string() + ": not a regular file";
    ASSERT_EQ(mkfifo(meta.c_str(), 0600), 0);
    EXPECT_EQ(RecordingReader::open(dir.path()).error().text(), notRegular);
    std::filesystem::remove(meta);

    ASSERT_TRUE(writeMeta(dir.path(), test::smallRecording()).ok());
    const auto reader = RecordingReader::open(dir.path());
    ASSERT_TRUE(reader.ok()) << reader.error().text();
    EXPECT_EQ(reader.value().directory(), dir.path());
    EXPECT_EQ(metaToJson(reader.value().info()), metaToJson(test::smallRecording()));

    test::writeFile(meta, "");
    EXPECT_FALSE(RecordingReader::open(dir.path()).ok());
    std::filesystem::resize_file(meta, (std::uintmax_t{64} << 20U) + 1);
    EXPECT_EQ(RecordingReader::open(dir.path()).error().text(), "meta.json: larger than 64 MiB");
}

}  // namespace
}  // namespace lm::storage
