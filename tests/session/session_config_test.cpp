#include "session/session_config.h"

#include <random>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace lm::session {
namespace {

SessionConfig parsed(std::string_view text) {
    auto config = sessionConfigFromJson(text, "/etc/x");
    EXPECT_TRUE(config.ok()) << text << "\n" << (config.ok() ? "" : config.error().text());
    return config.ok() ? config.value() : SessionConfig{};
}

std::string warningsOf(std::string_view text) {
    const lm::test::LogCapture log;
    parsed(text);
    return log.text();
}

TEST(SessionConfig, MissingKeysKeepTheirDefaults) {
    SessionConfig expected;
    expected.can.interface = "can0";
    expected.can.cmdId = 0x7E0;
    expected.can.resId = 0x7E8;
    EXPECT_EQ(parsed(R"({"can":{"interface":"can0","cmdId":"0x7E0","resId":2024}})"), expected);
    for (const char* nothing :
         {"{}", "[]", "3", "null", R"({"can":1,"udp":[],"daq":null})", "/* a */ {} // b", "\xEF\xBB\xBF{}"}) {
        EXPECT_EQ(parsed(nothing), SessionConfig{}) << nothing;
    }
    // A relative A2L is taken from the base directory.
    EXPECT_EQ(parsed(R"({"a2l":"../d/demo.a2l"})").a2l, "/etc/x/../d/demo.a2l");
    EXPECT_EQ(parsed(R"({"a2l":"/abs/demo.a2l"})").a2l, "/abs/demo.a2l");
    EXPECT_EQ(parsed(R"({"a2l":""})").a2l, "");
}

TEST(SessionConfig, WritesKeysInOrderAndOmitsWhatIsAbsent) {
    SessionConfig config;
    config.can.resId = 0x98DAF110;
    config.udp.port = 5555;
    std::string text = sessionConfigToJson(config);
    EXPECT_NE(text.find("\"udp\": {\n    \"host\": \"\",\n    \"port\": 5555"), std::string::npos) << text;
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
    EXPECT_EQ(text,
              R"({"name":"","a2l":"","can":{"interface":"","fd":false,"resId":"0x98DAF110",)"
              R"("maxDlcRequired":false},"udp":{"host":"","port":5555},)"
              R"("xcp":{"useShortUpload":true,"connectAttempts":3},)"
              R"("daq":{"useTimestamps":true,"maxBusLoad":0.8,"defaultEvent":0},"reconnect":)"
              R"({"policy":"abort","attempts":5,"intervalMs":1000,"heartbeatMs":1000},"measurement":[]})");
}

// Every field set at random, written and read again.
TEST(SessionConfig, SurvivesWritingAndReading) {
    std::mt19937 random(7);
    const auto number = [&] { return static_cast<std::uint32_t>(random()); };
    const auto coin = [&] { return number() % 2 == 0; };
    const auto text = [&] {
        return std::array{"", "\"q\\\"\n\t\x01", "\xE2\x82\xAC@3", "//no comment"}.at(number() % 4);
    };
    const auto maybe = [&]() { return coin() ? std::optional<std::uint32_t>(number()) : std::nullopt; };
    for (int round = 0; round < 500; ++round) {
        SessionConfig config;
        config.name = text();
        config.a2l = coin() ? "/a/b c.a2l" : "";
        config.can = {text(), maybe(), maybe(), coin(), maybe(), maybe(), coin()};
        config.udp.host = text();
        if (coin()) config.udp.port = static_cast<std::uint16_t>(number());
        // Without a port the section is not written.
        if (coin()) config.serial = {"/dev/x", maybe(), std::chrono::milliseconds(number())};
        if (coin()) config.xcp.timeoutsMs = {0, 1, 65535, 4, 5, 6, static_cast<std::uint16_t>(number())};
        config.xcp.useShortUpload = coin();
        config.xcp.connectAttempts = number();
        const DefaultEvent events[] = {{0, "", true}, {0, "10 ms"}, {static_cast<std::uint16_t>(number())}};
        config.daq = {coin(), number() / 1e9, events[number() % 3]};
        config.reconnect = {static_cast<ReconnectPolicy>(number() % 3), number(),
                            std::chrono::milliseconds(1 + number() / 2), std::chrono::milliseconds(1)};
        if (coin()) config.security = {"/a/b c.so", {}, std::chrono::milliseconds(number() / 2), {}, ""};
        if (number() % 3 == 0) config.security = {"", {"x", text()}, {}, {std::string(64, 'a')}, ""};
        config.security.timeout += std::chrono::milliseconds(1);
        if (!config.security.configured()) config.security = {};
        config.measurement.assign(number() % 4, text());
        config.display.exact = coin();
        config.onReset = static_cast<SessionConfig::OnReset>(number() % 3);
        config.identityCheck = static_cast<SessionConfig::IdentityCheck>(number() % 3);
        ASSERT_EQ(parsed(sessionConfigToJson(config)), config) << sessionConfigToJson(config);
    }
}

TEST(SessionConfig, RefusesWithThePlace) {
    const char* const rows[][2] = {
        {R"({"can":{"cmdId":4294967296}})",
         "can.cmdId: 4294967296 is not a whole number from 0 to 4294967295"},
        {R"({"udp":{"port":5555.5}})", "udp.port: 5555.5 is not a whole number from 0 to 65535"},
        {R"({"udp":{"port":"5555"}})", "udp.port: must be a number, but is string"},
        {R"({"xcp":{"timeoutsMs":[1,2,3,4,5,6,-7]}})",
         "xcp.timeoutsMs: -7 is not a whole number from 0 to 65535"},
        {R"({"can":{"fd":1}})", "can.fd: must be true or false, but is number"},
        {R"({"can":{"interface":null}})", "can.interface: must be text, but is null"},
        {R"({"can":{"resId":true}})", "can.resId: must be a number or text, but is boolean"},
        {R"({"xcp":{"timeoutsMs":[1,2,3,4,5,6]}})", "xcp.timeoutsMs: needs 7 numbers, but has 6"},
        {R"({"daq":{"maxBusLoad":-0.1}})", "daq.maxBusLoad: -0.1 is negative"},
        {R"({"daq":{"defaultEvent":65536}})",
         "daq.defaultEvent: 65536 is not a whole number from 0 to 65535"},
        {R"({"daq":{"defaultEvent":""}})",
         "daq.defaultEvent: must be a number, the name of an event, or \"auto\""},
        {R"({"security":{"library":"a","command":["b"]}})",
         "security.command: there is a library, too: one of them computes the keys"},
        {R"({"security":{"library":"","command":[]}})",
         "security.library: neither a library nor a command is named, so nothing computes keys"},
        {R"({"security":{"sha256":[7]}})", "security.sha256: must be an array of texts, but is number"},
        {R"({"security":"key.so"})", "security: must be an object, but is string"},
        {R"({"security":{"library":"a","sha256":["12"]}})",
         "security.sha256: '12' is not a SHA-256 of 64 hexadecimal digits"},
        {R"({"identity":{"check":""}})", "identity.check: '' is none of \"refuse\", \"warn\" and \"off\""},
        {R"({"calibration":{"onReset":"no"}})",
         "calibration.onReset: 'no' is none of \"tell\", \"stop\" and \"reapply\""},
        {R"({"measurement":["a",1]})", "measurement: must be an array of texts, but is number"},
        {R"({"ecus":[]})", "ecus: must be an array of objects, but is array"},
        {R"({"ecus":[{"name":"a"},7]})", "ecus[1]: must be an object, but is number"},
        {R"({"udp":{"host":"x"},"ecus":[{"name":"a"}]})",
         "udp: stands in each of the \"ecus\", not beside them"},
        {R"({"ecus":[{"name":"a"},{"name":"a"}]})", "ecus[1].name: another ECU is called 'a', too"},
        {R"({"ecus":[{"name":"a","ecus":[]}]})", "ecus[0].ecus: an ECU holds no others"},
        {R"({"ecus":[{"name":"a","can":{"fd":1}}]})", "ecus[0].can.fd: must be true or false, but is number"},
        {R"({"ecus":[{"name":"a/b"}]})",
         "ecus[0].name: 'a/b' is no name for one of several ECUs: blanks and / @ * ? = \" have no place in "
         "it"},
    };
    for (const auto& row : rows) {
        const auto config = configDocumentFromJson(row[0], "");
        ASSERT_FALSE(config.ok()) << row[0];
        EXPECT_EQ(config.error().message, std::string("configuration: ") + row[1]);
        EXPECT_EQ(config.error().code, ErrorCode::invalidArgument);
    }
}

TEST(SessionConfig, GivesEachEcuWhatStandsBesideThem) {
    const auto document = configDocumentFromJson(R"({
        "a2l": "both.a2l", "can": {"interface": "can0", "bitrate": 500000}, "xcp": {"connectAttempts": 7},
        "security": {"library": "key.so"},
        "ecus": [{"name": "a", "can": {"cmdId": 1}, "xcp": {"modifyBits": true}},
                 {"a2l": "b.a2l", "udp": {"host": "h"}, "security": {"command": ["key"]}}]})",
                                                 "/base");
    ASSERT_TRUE(document.ok()) << document.error().text();
    const auto& ecus = document.value().ecus;
    ASSERT_EQ(ecus.size(), 2U);
    EXPECT_EQ(ecus[0].a2l, "/base/both.a2l");
    EXPECT_EQ(ecus[1].a2l, "/base/b.a2l");
    EXPECT_EQ(ecus[0].can.interface + std::to_string(*ecus[0].can.bitrate), "can0500000");
    EXPECT_TRUE(ecus[0].can.cmdId == 1U && ecus[0].xcp.modifyBits && ecus[0].xcp.connectAttempts == 7);
    // An ECU on another medium, with another key.
    EXPECT_EQ(ecus[1].can, SessionConfig::Can());
    EXPECT_TRUE(ecus[1].security.library.empty() && !ecus[0].security.library.empty());
    const auto again = configDocumentFromJson(configDocumentToJson(document.value()), "/other");
    ASSERT_TRUE(again.ok()) << again.error().text();
    EXPECT_EQ(again.value(), document.value());
}

TEST(SessionConfig, RefusesWhatIsCutOrNoJson) {
    const std::string good = R"({"name":"x","can":{"cmdId":"0x7E0"},"xcp":{"timeoutsMs":[1,2,3,4,5,6,7]}})";
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(sessionConfigFromJson(good.substr(0, length), "").ok()) << length;
    }
    EXPECT_EQ(sessionConfigFromJson(std::string(1000, '['), "").error().message,
              "configuration: nested deeper than 64 levels");
    EXPECT_EQ(loadSessionConfig("/").error().message, "cannot read configuration /");
    SessionConfig unwritable;
    unwritable.name = "\xFF";
    EXPECT_FALSE(saveSessionConfig("/dev/null", unwritable).ok());
    EXPECT_EQ(loadSessionConfig("/dev/zero").error().message,
              "configuration /dev/zero is larger than 16 MiB");
}

TEST(SessionConfig, WarnsAboutWhatItDoesNotUse) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"can":{"bitrate":500000,"fd":true},"udp":{"host":"a"}})", ""},
        {R"({"a2L":"x"})", "warning configuration: unknown key a2L\n"},
        {R"({"can":{"bitRate":1}})", "warning configuration: unknown key can.bitRate\n"},
        {R"({"can":[]})", "warning configuration: can is not an object and is ignored\n"},
        {R"({"name":"a","can":{"fd":true},"name":"b"})",
         "warning configuration: key name stands twice, the last one counts\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(warningsOf(row.first), row.second) << row.first;
}

}  // namespace
}  // namespace lm::session
