#include "cli/command_list.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace lm::cli {
namespace {

constexpr const char* kA2l = R"(ASAP2_VERSION 1 60
/begin PROJECT P ""
/begin MODULE M ""
/begin COMPU_METHOD CM_RPM "" LINEAR "%4.1" "rpm" COEFFS_LINEAR 1 0 /end COMPU_METHOD
/begin MEASUREMENT Engine.Speed "" UWORD CM_RPM 0 0 0 8000 ECU_ADDRESS 0x20001ABC READ_WRITE
  PHYS_UNIT "own" /end MEASUREMENT
/begin MEASUREMENT noAddress "" FLOAT32_IEEE NO_COMPU_METHOD 0 0 0 1 /end MEASUREMENT
/begin CHARACTERISTIC SpeedLimit "" VALUE 0x10 RL 0 CM_RPM 0 8000 READ_ONLY /end CHARACTERISTIC
/begin CHARACTERISTIC Map "" MAP 0xFFFFFFFF RL 0 missing 0 1 /end CHARACTERISTIC
/end MODULE
/end PROJECT
)";

const std::string kSpeed =
    "M  Engine.Speed                                       UWORD         rpm      0x20001ABC  rw\n";
const std::string kNoAddress =
    "M  noAddress                                          FLOAT32_IEEE           0x00000000\n";
const std::string kLimit =
    "P  SpeedLimit                                         VALUE         rpm      0x00000010  read-only\n";
const std::string kMap =
    "P  Map                                                CURVE/MAP...           0xFFFFFFFF\n";

TEST(CommandList, PrintsWhatMatches) {
    const auto description = a2l::parseDescription(kA2l);
    ASSERT_TRUE(description.ok());
    const struct {
        const char* pattern;
        bool parameters, measurements;
        std::string expected;
    } rows[] = {
        {"", false, false, kSpeed + kNoAddress + kLimit + kMap},
        {"", true, true, kSpeed + kNoAddress + kLimit + kMap},
        {"", true, false, kLimit + kMap},
        {"", false, true, kSpeed + kNoAddress},
        {"sPEED", false, false, kSpeed + kLimit},
        {"e.s", false, false, kSpeed},
        {"engine.speeds", false, false, ""},
    };
    for (const auto& row : rows) {
        const test::TempDir directory;
        const auto path = directory.path() / "out";
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
        Options options;
        options.pattern = row.pattern;
        options.onlyParameters = row.parameters;
        options.onlyMeasurements = row.measurements;
        Output output(file);
        const std::size_t count = printObjects(description.value(), options, output);
        EXPECT_EQ(output.finish(0), 0);
        ::close(file);
        std::ifstream stream(path);
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        EXPECT_EQ(text, row.expected);
        EXPECT_EQ(count, static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
    }
}

TEST(Output, TellsFailedWritesButNotAReaderThatWentAway) {
    std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    const int full = ::open("/dev/full", O_WRONLY);
    const struct {
        int descriptor, exitCode, expected;
        const char* message;
    } rows[] = {{ends[1], 0, 0, ""}, {ends[1], 1, 1, ""}, {full, 0, 1, "output: No space left on device\n"}};
    for (const auto& row : rows) {
        testing::internal::CaptureStderr();
        Output output(row.descriptor);
        output.append("text");
        EXPECT_FALSE(output.flush());
        EXPECT_EQ(output.finish(row.exitCode), row.expected);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.message);
    }
    ::close(ends[1]);
    ::close(full);
}

}  // namespace
}  // namespace lm::cli
