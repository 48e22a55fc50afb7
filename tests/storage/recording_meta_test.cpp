#include "storage/format/recording_meta.h"

#include <algorithm>
#include <cctype>

#include <gtest/gtest.h>

#include "storage/recording_fixture.h"

namespace lm::storage {
namespace {

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

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
}

TEST(RecordingMeta, WritesEveryKeyInItsPlace) {
    EXPECT_EQ(withoutSpace(metaToJson(test::smallRecording())), kSmallMeta);
}

TEST(RecordingMeta, KeepsWhatEarlierVersionsDidNotTell) {
    std::string text = replaced(
        kSmallMeta, R"("ecu":"ECU1",)",
        R"("ecu":"ECU1","utcOffsetMin":-210,"a2lName":"a.a2l","a2lSha256":"0f","ecuEpk":"e","a2lEpk":"a",)");
    text = replaced(text, R"("recordOffset":2,)", R"("recordOffset":2,"limits":["-inf",63.5],)");
    EXPECT_EQ(withoutSpace(metaToJson(metaFromJson(text).value())), text);
}

TEST(RecordingMeta, KeepsEveryKindOfConversionAndText) {
    for (const char* conversion : {
             R"({"type":"linear","unit":"°C","format":"%5.2","linear":[0.3333333333333333,"-inf"]})",
             R"({"type":"ratFunc","ratFunc":[1.0,2.0,3.0,4.0,5.0,1e+300]})",
             R"({"type":"table","interpolate":true,"table":[[-1.0,5.0],[2.0,"nan"]],"defaultNumeric":7.5})",
             R"({"type":"verbal","verbal":[{"min":2.0,"max":"inf","text":"lo\"w"}],"defaultText":"?"})",
             R"({"type":"formula","formula":"X*2","formulaInv":"X/2"})",
         }) {
        std::string text = replaced(kSmallMeta, R"({"type":"identical"})", conversion);
        text = replaced(
            text, R"("displayName":"","type":"SBYTE","byteOrder":"MSB_LAST","bitMask":0)",
            R"("displayName":"d","type":"UBYTE","byteOrder":"MSB_FIRST","bitMask":18446744073709551615)");
        text = replaced(text, "999000000", "-9223372036854775808");
        EXPECT_EQ(withoutSpace(metaToJson(metaFromJson(text).value())), text);
    }
}

TEST(RecordingMeta, TellsWhatIsWrong) {
    const std::string json = "[json.exception.";
    const std::string from0To = " is not a whole number from 0 to ";
    const std::string rows[][3] = {
        // from, to, message behind "meta.json: "
        {"formatVersion\":2", "formatVersion\":2.0", "\"formatVersion\"" + from0To + "18446744073709551615"},
        {"formatVersion", "version", json + "out_of_range.403] key 'formatVersion' not found"},
        {"\"demo\"", "5", json + "type_error.302] type must be string, but is number"},
        {"recordSize\":3", "recordSize\":-3", "\"recordSize\"" + from0To + "4294967040"},
        {"recordSize\":3", "recordSize\":4294967299", "\"recordSize\"" + from0To + "4294967040"},
        {"recordOffset\":2", "recordOffset\":4294967295", "Temp: outside the group record"},
        {"1700000000000000000", "1.5", "\"startUtcNs\" is not a whole number of 64 bits"},
        {"1700000000000000000", "9223372036854775808", "\"startUtcNs\" is not a whole number of 64 bits"},
        {"\"ecu\"", "\"utcOffsetMin\":1440,\"ecu\"", "\"utcOffsetMin\" is a day or more"},
        {"\"bitMask\"", "\"limits\":[1],\"bitMask\"", "\"limits\" does not hold 2 numbers"},
        {"SBYTE", "sbyte", "unknown type sbyte"},
        {"MSB_LAST", "LAST", "unknown byte order LAST"},
        {"\"identical\"", "\"same\"", "unknown conversion same"},
        {"\"identical\"", "\"verbal\",\"verbal\":5", "\"verbal\" is not an array"},
        {"\"identical\"", "\"table\",\"interpolate\":true,\"table\":[]", "conversion table is empty"},
        {"\"identical\"", "\"table\",\"interpolate\":true,\"table\":[[1,0],[0,0]]",
         "\"table\" is not in the order of its inputs"},
        {"\"identical\"", "\"table\",\"interpolate\":true,\"table\":[[1,0],[\"nan\",0]]",
         "\"table\" is not in the order of its inputs"},
        {"\"identical\"", "\"ratFunc\",\"ratFunc\":[1]", "\"ratFunc\" does not hold 6 numbers"},
        {"0.5,", "\"a lot\",", "not a number: \"a lot\""},
        {"0.5,", "[[0]],", "not a number: array"},
        {"0.5,", std::string(1000, '['), "nested deeper than 64 levels"},
        {"\"identical\"", "\"formula\",\"formula\":\"Y\"", "formula 'Y': unknown identifier 'Y'"},
    };
    for (const auto& row : rows) {
        const auto read = metaFromJson(replaced(kSmallMeta, row[0], row[1]));
        ASSERT_FALSE(read.ok()) << row[1];
        EXPECT_EQ(read.error().text(), "meta.json: " + row[2]);
    }
    const std::string unsupported = "unsupported recording format version ";
    EXPECT_EQ(metaFromJson(R"({"formatVersion":1})").error().text(),
              unsupported + "1 (recorded by an older XCP-Lumo)");
    EXPECT_EQ(metaFromJson(R"({"formatVersion":3})").error().text(), unsupported + "3");
}

}  // namespace
}  // namespace lm::storage
