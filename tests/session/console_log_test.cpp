#include "session/console_log.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

/// The lines behind a position, kind and text, and how many were missed.
std::vector<std::string> texts(const ConsoleLog& log, std::uint64_t& position) {
    constexpr const char* kMarks[] = {"", "> ", "-- "};
    const auto reading = log.read(position);
    std::vector<std::string> lines;
    if (reading.missed != 0) lines.push_back("missed " + std::to_string(reading.missed));
    for (const ConsoleLine& line : reading.lines)
        lines.push_back(kMarks[static_cast<std::size_t>(line.kind)] + line.text);
    return lines;
}

using Lines = std::vector<std::string>;

TEST(ConsoleLog, AReaderGoesOnWhereItStopped) {
    ConsoleLog log;
    std::uint64_t position = 0;
    EXPECT_EQ(texts(log, position), Lines{});
    log.onText("a");
    log.onNotice("b");
    EXPECT_EQ(texts(log, position), (Lines{"a", "-- b"}));
    EXPECT_EQ(texts(log, position), Lines{});
    for (std::size_t i = 0; i < ConsoleLog::kCapacity; ++i)
        log.onText(std::to_string(i));
    log.onText("last");
    const Lines all = texts(log, position);
    EXPECT_EQ(all.size(), ConsoleLog::kCapacity + 1);
    EXPECT_EQ(all[0] + ", " + all[1] + ", " + all.back(), "missed 1, 1, last");
    log.onText("later");
    EXPECT_EQ(texts(log, position), Lines{"later"});
    std::uint64_t other = 0;
    EXPECT_EQ(texts(log, other)[0], "missed 4");
    for (std::size_t i = 0; i < 1030; ++i)
        log.onText(std::string(4096, 'x'));
    other = 0;
    EXPECT_EQ(texts(log, other).size(), 1 + ConsoleLog::kMaxBytes / 4096);
}

TEST(ConsoleLog, ASentLineStandsBeforeItsAnswer) {
    ConsoleLog log;
    std::uint64_t position = 0;
    const auto answered = [&] {
        log.onText("answer");
        EXPECT_EQ(texts(log, position), Lines{});
        return Result<void>();
    };
    EXPECT_TRUE(log.addSent("say \x1b[31m", answered).ok());
    EXPECT_EQ(texts(log, position), (Lines{"> say \\x1B[31m", "answer"}));
    const auto fails = [] { return Result<void>(Error{ErrorCode::notOpen, "no line"}); };
    EXPECT_EQ(log.addSent("never sent", fails).error().text(), "no line");
    EXPECT_EQ(texts(log, position), Lines{});
    // Half a log of text does not wait for a line that takes so long.
    const auto flooded = log.addSent("slow", [&log, &position]() -> Result<void> {
        for (std::size_t i = 0; i < ConsoleLog::kCapacity / 2; ++i)
            log.onText("text");
        EXPECT_EQ(texts(log, position).size(), ConsoleLog::kCapacity / 2);
        return {};
    });
    EXPECT_TRUE(flooded.ok());
    EXPECT_EQ(texts(log, position), Lines{"> slow"});
}

}  // namespace
}  // namespace lm::session
