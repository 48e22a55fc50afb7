#include "cli/stop_signal.h"

#include <csignal>
#include <future>

#include <gtest/gtest.h>

namespace lm::cli {
namespace {

TEST(StopSignal, TheFirstAsksTheSecondKills) {
    EXPECT_EXIT(
        {
            if (!installStopHandlers() || stopRequested()) std::exit(1);
            std::promise<void> called;
            StopWatcher watcher([&called] { called.set_value(); });
            std::raise(SIGTERM);
            called.get_future().wait();
            watcher.stopNow();  // a second call of the function would throw
            if (stopRequested()) std::fputs("asked", stderr);
            std::raise(SIGINT);
        },
        testing::KilledBySignal(SIGINT), "asked");
}

}  // namespace
}  // namespace lm::cli
