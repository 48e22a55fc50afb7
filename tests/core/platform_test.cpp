#include "core/platform.h"

#include <sys/resource.h>

#include <gtest/gtest.h>

namespace lm {
namespace {

TEST(Platform, KnowsItsOwnPathAndRaisesTheFileLimit) {
    EXPECT_EQ(executablePath().filename(), "core_test");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max / 2;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    raiseOpenFileLimit();
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

}  // namespace
}  // namespace lm
