#include "cli/options.h"

#include <gtest/gtest.h>

#include "cli/command_line.h"
#include "cli/command_list.h"
#include "cli/command_measure.h"
#include "cli/command_recording.h"
#include "cli/command_values.h"

namespace lm::cli {
namespace {

std::variant<CommandLine, int> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "xcplumo-cli");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

CommandLine parsed(const std::vector<const char*>& arguments) {
    return std::get<CommandLine>(parse(arguments));
}

template <typename Command>
const Command& as(const CommandLine& line) {
    return dynamic_cast<const Command&>(*line.command);
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
    for (const CommandLine& line :
         {parsed({"-v", "--a2l", "x.a2l", "-b", "500000", "measure", "-s", "A", "-s", "B@1", "-p", "0"}),
          parsed({"measure", "-s", "A", "-s", "B@1", "-p", "0", "--a2l", "x.a2l", "-b", "500000", "-v"})}) {
        EXPECT_EQ(line.name, "measure");
        EXPECT_EQ(line.options.a2l, "x.a2l");
        EXPECT_EQ(line.options.bitrate, 500000U);
        EXPECT_TRUE(line.options.verbose);
        EXPECT_EQ(as<MeasureCommand>(line).options().signals, (std::vector<std::string>{"A", "B@1"}));
        EXPECT_EQ(as<MeasureCommand>(line).options().printEvery, 0U);
    }
    EXPECT_EQ(parsed({}).name, "");
    // The names of subcommands are names of objects too, and a bracket does not make a list.
    EXPECT_EQ(as<GetCommand>(parsed({"get", "info", "list"})).names(),
              (std::vector<std::string>{"info", "list"}));
    EXPECT_EQ(as<ListCommand>(parsed({"list", "get", "-p"})).options().pattern, "get");
    EXPECT_EQ(parsed({"--reset-delay", "-5", "info"}).options.resetDelayMs, -5);
    for (const char* seconds : {"nan", "inf", "-1", "1e999", "x"}) {
        for (const char* command : {"measure", "console"}) {
            const auto refused = parse({command, "-t", seconds});
            EXPECT_TRUE(std::holds_alternative<int>(refused) && std::get<int>(refused) > 100) << seconds;
        }
    }
    const auto line = parsed({"recording", "show", "-s", "a*", ".", "-s", "b", "--from", "-1.5"});
    const auto& show = as<RecordingShowCommand>(line);
    EXPECT_EQ(line.name, "recording show");
    EXPECT_EQ(show.directories(), std::vector<std::string>{"."});
    EXPECT_EQ(show.options().signals, (std::vector<std::string>{"a*", "b"}));
    EXPECT_EQ(show.options().from, "-1.5");
}

}  // namespace
}  // namespace lm::cli
