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
    EXPECT_EQ(parsed({"--reset-delay", "-5", "info"}).resetDelayMs, -5);
    for (const char* seconds : {"nan", "inf", "-1", "1e999", "x"}) {
        for (const char* command : {"measure", "console"}) {
            const auto refused = parse({command, "-t", seconds});
            EXPECT_TRUE(std::holds_alternative<int>(refused) && std::get<int>(refused) > 100) << seconds;
        }
    }
    const Options show = parsed({"recording", "show", "-s", "a*", "dir", "-s", "b", "--from", "-1.5"});
    EXPECT_EQ(show.recording.action, RecordingAction::show);
    EXPECT_EQ(show.recording.directory, "dir");
    EXPECT_EQ(show.recording.signals, (std::vector<std::string>{"a*", "b"}));
    EXPECT_EQ(show.recording.from, "-1.5");
}

}  // namespace
}  // namespace lm::cli
