#include "hal/serial_port.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "hal/line_settings.h"
#include "support/pseudo_terminal.h"
#include "support/temp_dir.h"

namespace lm::hal {
namespace {

using test::PseudoTerminal;

const std::uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

/// "CODE MESSAGE", or nothing.
template <typename T>
std::string outcome(const Result<T>& result) {
    if (result.ok()) return "";
    return std::string(errorName(result.error().code)) + " | " + result.error().text();
}

/// What opening gives for a user without rights, and what a program that knows no locks is told.
std::string openAsNobody(const std::string& path) {
    int ends[2];
    if (::pipe(ends) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        std::string text = "still root";
        if (::getuid() != 0 || (::setgid(65534) == 0 && ::setuid(65534) == 0)) {
            text =
                ::open(path.c_str(), O_RDWR | O_NOCTTY) < 0 ? std::string(std::strerror(errno)) + "; " : "";
            SerialPort port;
            text += outcome(port.open(path, 115200));
        }
        const ssize_t written = ::write(ends[1], text.data(), text.size());
        ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    ::close(ends[1]);
    std::string text(1000, '\0');
    const ssize_t count = ::read(ends[0], text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    ::close(ends[0]);
    int status = 0;
    EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0);
    return text;
}

TEST(SerialPort, TellsWhyItDoesNotOpen) {
    const test::TempDir directory;
    const std::string none = directory.path() / "ttyUSB0";
    PseudoTerminal terminal;
    PseudoTerminal taken;
    SerialPort owner;
    ASSERT_TRUE(owner.open(taken.path(), 115200).ok());
    const struct {
        std::string path;
        std::uint32_t baud;
        std::string expected;
    } rows[] = {
        {none, 115200, "not found | cannot open " + none + ": No such file or directory"},
        {directory.path(), 115200,
         "I/O error | cannot open " + directory.path().string() + ": Is a directory"},
        {"/dev/null", 115200, "I/O error | /dev/null is not a serial port"},
        {taken.path(), 115200, "I/O error | cannot open " + taken.path() + ": Device or resource busy"},
        {terminal.path(), 0, "invalid argument | cannot configure " + terminal.path() + ": baud rate 0"},
        {terminal.path(), 115200, ""},
    };
    SerialPort port;
    for (const auto& row : rows) {
        EXPECT_EQ(outcome(port.open(row.path, row.baud)), row.expected);
        EXPECT_EQ(port.isOpen(), row.expected.empty());
    }
    port.close();
    std::uint8_t byte = 0;
    EXPECT_EQ(outcome(port.read(&byte, 1, 0)), "not open | serial port not open");
    EXPECT_EQ(outcome(port.write(&byte, 1)), "not open | serial port not open");
    EXPECT_EQ(outcome(port.setBaud(9600)), "not open | serial port not open");
}

TEST(SerialPort, TellsAUserWithoutAccessWhatToDoAndKeepsProgramsOutThatKnowNoLocks) {
    PseudoTerminal terminal;
    const std::string context = "cannot open " + terminal.path() + ": ";
    ASSERT_EQ(::chmod(terminal.path().c_str(), 0), 0);
    EXPECT_EQ(openAsNobody(terminal.path()),
              "Permission denied; permission denied | " + context +
                  "no access to serial ports. Add your user to the group dialout in a terminal, then log "
                  "out and in again: `sudo usermod -aG dialout $USER`");
    ASSERT_EQ(::chmod(terminal.path().c_str(), 0666), 0);
    const int holder = ::open(terminal.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    SerialPort port;
    ASSERT_TRUE(port.open(terminal.path(), 115200).ok());
    EXPECT_EQ(openAsNobody(terminal.path()),
              "Device or resource busy; I/O error | " + context + "Device or resource busy");
    port.close();
    EXPECT_EQ(openAsNobody(terminal.path()), "");
    ::close(holder);
}

TEST(SerialPort, SetsEveryRateExactly) {
    PseudoTerminal terminal;
    SerialPort port;
    for (const std::uint32_t baud :
         {19200U,   38400U,   57600U,   115200U,  230400U,  460800U, 500000U, 576000U, 921600U,  1000000U,
          1152000U, 1500000U, 2000000U, 3000000U, 4000000U, 9600U,   10400U,  250000U, 1234567U, 12000000U}) {
        const bool opened = port.isOpen() ? port.setBaud(baud).ok() : port.open(terminal.path(), baud).ok();
        ASSERT_TRUE(opened) << baud;
        const bool standard = baud >= 19200 && baud != 250000 && baud != 1234567 && baud != 12000000;
        const std::string rate = std::to_string(baud);
        EXPECT_EQ(test::lineSpeed(terminal.descriptor()),
                  (standard ? "standard " : "other ") + rate + " " + rate);
    }
}

TEST(SerialPort, PassesEveryByteAndContinuesPartialWrites) {
    std::string sent;
    for (int i = 0; i < 200'000; ++i) {
        sent += static_cast<char>(i * 7 + i / 256);
    }
    PseudoTerminal terminal;
    SerialPort port;
    std::uint8_t buffer[4096];
    ASSERT_TRUE(port.open(terminal.path(), 115200).ok());
    terminal.write("stale");
    ASSERT_EQ(port.read(buffer, 1, 10'000).value(), 1U);
    ASSERT_TRUE(port.open(terminal.path(), 115200).ok());  // discards the rest
    auto reader = std::async(std::launch::async, [&] { return terminal.read(sent.size()); });
    ASSERT_EQ(outcome(port.write(bytesOf(sent), sent.size())), "");
    EXPECT_TRUE(reader.get() == sent);

    auto writer = std::async(std::launch::async, [&] { terminal.write(sent); });
    std::string received;
    while (received.size() < sent.size()) {
        const auto count = port.read(buffer, sizeof buffer, 10'000);
        ASSERT_TRUE(count.ok() && count.value() > 0);
        received.append(reinterpret_cast<const char*>(buffer), count.value());
    }
    EXPECT_TRUE(received == sent);
    writer.get();
    EXPECT_EQ(port.read(buffer, sizeof buffer, 1).value(), 0U);
}

TEST(SerialPort, TellsThatOutputIsBlockedAndThatThePortIsGone) {
    const std::string flood(1'000'000, 'x');
    for (const bool pulled : {false, true}) {
        PseudoTerminal terminal;
        SerialPort port;
        ASSERT_TRUE(port.open(terminal.path(), 115200).ok());
        auto write =
            std::async(std::launch::async, [&] { return outcome(port.write(bytesOf(flood), flood.size())); });
        EXPECT_EQ(terminal.read(1), "x");  // the writer is at work
        if (!pulled) {
            EXPECT_EQ(write.get(), "timeout | " + terminal.path() + ": output blocked");
            continue;
        }
        std::uint8_t byte = 0;
        auto read = std::async(std::launch::async, [&] { return outcome(port.read(&byte, 1, 60'000)); });
        terminal.pull();
        const std::string gone = "closed | " + terminal.path() + ": port gone";
        const std::string failed = "I/O error | " + terminal.path() + ": write: Input/output error";
        const std::string told = write.get();
        EXPECT_TRUE(told == gone || told == failed) << told;
        EXPECT_EQ(read.get(), gone);
        EXPECT_EQ(outcome(port.write(bytesOf(flood), 1)), failed);
    }
}

TEST(SerialPort, ListsAdaptersByDeviceAndByStableName) {
    const test::TempDir directory;
    const auto& root = directory.path();
    std::filesystem::create_directories(root / "serial" / "by-id");
    for (const char* name : {"ttyUSB1", "ttyACM0", "ttyUSB0", "ttyS0", "xttyUSB0", "serial/by-id/note"}) {
        std::ofstream(root / name) << "";
    }
    std::filesystem::create_symlink("../../ttyUSB1", root / "serial" / "by-id" / "usb-Adapter-if00");
    EXPECT_EQ(listPorts(root),
              (std::vector<std::string>{root / "serial" / "by-id" / "usb-Adapter-if00", root / "ttyACM0",
                                        root / "ttyUSB0", root / "ttyUSB1"}));
    EXPECT_TRUE(listPorts(root / "none").empty());
}

}  // namespace
}  // namespace lm::hal
