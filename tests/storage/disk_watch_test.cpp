#include "storage/write/disk_watch.h"

#include <gtest/gtest.h>

namespace lm::storage {
namespace {

TEST(DiskForecast, WarnsOnceOfADiskThatIsTooSmallAndOnceAnHourBeforeItIsFull) {
    struct Look {
        double seconds;
        std::uint64_t freeMegabytes;
        std::string told;
    };
    const struct {
        double megabytesPerSecond;
        double duration;
        std::vector<Look> looks;
    } rows[] = {
        {1, 0, {{0, 3700, ""}, {100, 3590, "is full in about 54 min, 3.6 GB are free"}, {200, 3400, ""}}},
        {1,
         9000,
         {{0, 8000, "will not hold the measurement: it is full in about 2 h, 8.0 GB are free"},
          {5, 7995, ""},
          {4500, 3500, "will not hold the measurement: it is full in about 58 min, 3.5 GB are free"}}},
        {1, 60, {{0, 61, ""}, {50, 11, ""}}},
        {1,
         60,
         {{0, 59, "will not hold the measurement: it is full in about 59 s, 59.0 MB are free"}, {5, 54, ""}}},
        // Others wrote much for a minute, and their files went again: the warning that was wrong comes again.
        {1,
         9000,
         {{0, 20000, ""},
          {60, 8000, "will not hold the measurement: it is full in about 40 s, 8.0 GB are free"},
          {120, 20000, ""},
          {180, 8000, "will not hold the measurement: it is full in about 40 s, 8.0 GB are free"},
          {190, 7990, ""}}},
        // No cycle tells what the recording will need: what the disk loses does.
        {0,
         0,
         {{0, 9000, ""},
          {60, 8940, ""},
          {119, 100, "is full in about 100 s, 100.0 MB are free"},
          {120, 50, ""}}},
        {0, 0, {{0, 9000, ""}, {60, 9500, ""}, {120, 9500, ""}}},
    };
    for (const auto& row : rows) {
        DiskForecast forecast(row.megabytesPerSecond * 1e6, DiskForecast::Seconds(row.duration));
        for (const Look& look : row.looks)
            EXPECT_EQ(forecast.look(DiskForecast::Seconds(look.seconds), look.freeMegabytes * 1'000'000),
                      look.told)
                << row.megabytesPerSecond << " " << look.seconds;
    }
}

}  // namespace
}  // namespace lm::storage
