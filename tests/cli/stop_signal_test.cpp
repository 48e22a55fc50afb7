#include "cli/stop_signal.h"

#include <csignal>
#include <future>

#include <gtest/gtest.h>

namespace lm::cli {
namespace {

TEST(StopSignal, TheFirstAsksALaterOneKills) {
    EXPECT_EXIT(
        {
            if (!installStopHandlers() || stopRequested()) std::exit(1);
            std::promise<void> called;
            const StopCallback onStop(stopToken(), [&called] { called.set_value(); });
            StopWatcher watcher;
            if (!watcher.start()) std::exit(1);
            std::raise(SIGTERM);
            std::raise(SIGINT);  // so close to the first, it belongs to it
            called.get_future().wait();
            if (stopRequested()) std::fputs("asked", stderr);
            for (;;)
                std::raise(SIGINT);
        },
        testing::KilledBySignal(SIGINT), "asked");
}

}  // namespace
}  // namespace lm::cli
