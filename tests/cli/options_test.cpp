#include "cli/options.h"

#include <gtest/gtest.h>

namespace lm::cli {
namespace {

std::variant<Options, int> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "xcplumo-cli");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

Options parsed(const std::vector<const char*>& arguments) {
    auto result = parse(arguments);
    EXPECT_TRUE(std::holds_alternative<Options>(result));
    return std::holds_alternative<Options>(result) ? std::get<Options>(result) : Options{};
}

template <typename T>
std::string shown(const Result<T>& target, const std::string& text) {
    return target ? text : target.error().text();
}

std::string shownUdp(const char* text) {
    const auto target = splitUdpTarget(text);
    if (!target) return target.error().text();
    return target.value().host + "|" + (target.value().port ? std::to_string(*target.value().port) : "-");
}

std::string shownSerial(const char* text) {
    const auto target = splitSerialTarget(text);
    if (!target) return target.error().text();
    const auto& baudrate = target.value().baudrate;
    return target.value().port + "|" + (baudrate ? std::to_string(*baudrate) : "-");
}

TEST(Options, UdpTargetsAreSplit) {
    const char* const rows[][2] = {
        {"10.0.0.2", "10.0.0.2|-"},
        {"10.0.0.2:5555", "10.0.0.2|5555"},
        {"ecu:0", "ecu|0"},
        {"[fe80::1]:5555", "fe80::1|5555"},
        {"[fe80::1%eth0]", "fe80::1%eth0|-"},
        {"fe80::1", "fe80::1|-"},
        {"::1", "::1|-"},
        {"[fe80::1", "[fe80::1|-"},
        {"[", "[|-"},
        {"", "|-"},
        {":5555", "|5555"},
        {"ecu:", "stoul: '' is not a number from 0 to 65535"},
        {"ecu:5x", "stoul: '5x' is not a number from 0 to 65535"},
        {"ecu:0x10", "stoul: '0x10' is not a number from 0 to 65535"},
        {"[::1]:65536", "stoul: '65536' is not a number from 0 to 65535"},
        {"[::1]:", "stoul: '' is not a number from 0 to 65535"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(shownUdp(row[0]), row[1]) << row[0];
}

TEST(Options, SerialTargetsAreSplit) {
    const char* const rows[][2] = {
        {"/dev/ttyUSB0", "/dev/ttyUSB0|-"},
        {"/dev/ttyUSB0:115200", "/dev/ttyUSB0|115200"},
        {"/dev/serial/by-path/pci-0:1.0:9600", "/dev/serial/by-path/pci-0:1.0|9600"},
        {"/dev/serial/by-path/usb-0:1.0", "/dev/serial/by-path/usb-0:1.0|-"},
        {"/dev/x:", "/dev/x:|-"},
        {"/dev/x:9600 ", "/dev/x:9600 |-"},
        {"/dev/x:4294967296", "stoul: '4294967296' is not a number from 0 to 4294967295"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(shownSerial(row[0]), row[1]) << row[0];
}

TEST(Options, GlobalOptionsStandBeforeAndBehindTheSubcommand) {
    for (const Options& options :
         {parsed({"-v", "--a2l", "x.a2l", "-b", "500000", "measure", "-s", "A", "-s", "B@1", "-p", "0"}),
          parsed({"measure", "-s", "A", "-s", "B@1", "-p", "0", "--a2l", "x.a2l", "-b", "500000", "-v"})}) {
        EXPECT_EQ(options.command, Command::measure);
        EXPECT_EQ(options.a2l, "x.a2l");
        EXPECT_EQ(options.bitrate, 500000U);
        EXPECT_TRUE(options.verbose);
        EXPECT_EQ(options.signals, (std::vector<std::string>{"A", "B@1"}));
        EXPECT_EQ(options.printEvery, 0U);
    }
    EXPECT_EQ(parsed({}).command, Command::none);
    // The names of subcommands are names of objects too, and a bracket does not make a list.
    EXPECT_EQ(parsed({"get", "info", "list"}).names, (std::vector<std::string>{"info", "list"}));
    EXPECT_EQ(parsed({"list", "get", "-p"}).pattern, "get");
    EXPECT_EQ(parsed({"info", "--udp", "[::1]"}).udp, "[::1]");
    EXPECT_EQ(parsed({"set", "A=1", "B=-2", "-m"}).assignments, (std::vector<std::string>{"A=1", "B=-2"}));
    EXPECT_EQ(parsed({"--reset-delay", "-5", "info"}).resetDelayMs, -5);
    EXPECT_EQ(parsed({"console", "-t", "0.5"}).durationSeconds, 0.5);
}

TEST(Options, ParseErrorsAndHelpHaveTheLibrarysExitCodes) {
    const struct {
        std::vector<const char*> arguments;
        bool success;
        const char* text;
    } rows[] = {
        {{"--version"}, true, "xcplumo-cli 0.1.0\n"},
        {{"--help"}, true, "abort | retry | retry_forever"},
        {{"measure", "--help"}, true, "Print every n-th record per DAQ list (0 = none)"},
        {{"--nonsense"}, false, "--nonsense"},
        {{"frobnicate"}, false, "frobnicate"},
        {{"get"}, false, "names is required"},
        {{"set"}, false, "assignments is required"},
        {{"save-config"}, false, "file is required"},
        {{"-b", "-1"}, false, "--bitrate"},
        {{"-b", "4294967296"}, false, "--bitrate"},
        {{"measure", "-t", "1s"}, false, "--duration"},
        {{"list", "a", "b"}, false, "b"},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto result = parse(row.arguments);
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        ASSERT_TRUE(std::holds_alternative<int>(result)) << row.text;
        EXPECT_EQ(std::get<int>(result) == 0, row.success) << row.text;
        EXPECT_NE((row.success ? out : err).find(row.text), std::string::npos) << out << err;
        EXPECT_EQ(row.success ? err : out, "");
    }
}

TEST(Options, OverridesReplaceAndClear) {
    session::SessionConfig base;
    base.can.interface = "can0";
    base.udp.host = "old";
    base.udp.port = 1;
    base.serial.port = "/dev/old";
    base.serial.baudrate = 9600;
    const struct {
        std::vector<const char*> arguments;
        std::string can, udp, serial;
    } rows[] = {
        {{}, "can0", "old:1", "/dev/old:9600"},
        {{"-i", "can1"}, "can1", "old:1", "/dev/old:9600"},
        {{"--udp", "new:2"}, "", "new:2", "/dev/old:9600"},
        {{"--udp", "new", "-i", "can1"}, "", "new:1", "/dev/old:9600"},
        {{"--serial", "/dev/new"}, "", ":1", "/dev/new:9600"},
        {{"--serial", "/dev/new:300", "--udp", "new"}, "", ":1", "/dev/new:300"},
    };
    for (const auto& row : rows) {
        session::SessionConfig config = base;
        ASSERT_TRUE(applyOverrides(parsed(row.arguments), config).ok());
        EXPECT_EQ(config.can.interface, row.can);
        EXPECT_EQ(config.udp.host + ":" + std::to_string(*config.udp.port), row.udp);
        EXPECT_EQ(config.serial.port + ":" + std::to_string(*config.serial.baudrate), row.serial);
    }

    session::SessionConfig config;
    const Options all =
        parsed({"--a2l", "rel/x.a2l", "--reset-delay", "0", "--cmd-id", "0x98DA10F1", "--res-id", "010", "-b",
                "250000", "--no-short-upload", "--reconnect", "retry_forever"});
    ASSERT_TRUE(applyOverrides(all, config).ok());
    session::SessionConfig expected;
    expected.a2l = "rel/x.a2l";
    expected.serial.resetDelay = std::chrono::milliseconds(0);
    expected.can.cmdId = 0x98DA10F1;
    expected.can.resId = 8;
    expected.can.bitrate = 250000;
    expected.xcp.useShortUpload = false;
    expected.reconnect.policy = session::ReconnectPolicy::retryForever;
    EXPECT_EQ(config, expected);
}

TEST(Options, BadOverridesGiveOneLine) {
    const struct {
        std::vector<const char*> arguments;
        const char* message;
    } rows[] = {
        {{"--reconnect", "Retry"}, "unknown reconnect policy Retry"},
        {{"--cmd-id", "7E0"}, "stoul: '7E0' is not a number from 0 to 4294967295"},
        {{"--res-id", "0x100000000"}, "stoul: '0x100000000' is not a number from 0 to 4294967295"},
        {{"--udp", "h:p"}, "stoul: 'p' is not a number from 0 to 65535"},
    };
    for (const auto& row : rows) {
        session::SessionConfig config;
        const auto applied = applyOverrides(parsed(row.arguments), config);
        EXPECT_EQ(shown(applied, "applied"), row.message);
    }
}

}  // namespace
}  // namespace lm::cli
