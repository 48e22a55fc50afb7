#include "core/platform.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace lm {
namespace {

TEST(Platform, MapsWholeFilesAndTellsWhyNot) {
    const test::TempDir dir;
    const auto path = dir.path() / "text";
    std::ofstream(path) << "abc";
    auto mapped = MappedFile::open(path);
    ASSERT_TRUE(mapped.ok());
    MappedFile moved = std::move(mapped).value();
    EXPECT_EQ(moved.text(), "abc");
    std::ofstream(dir.path() / "empty");
    EXPECT_EQ(MappedFile::open(dir.path() / "empty").value().size(), 0U);

    const auto missing = MappedFile::open(dir.path() / "missing");
    EXPECT_EQ(missing.error().message, "cannot open " + (dir.path() / "missing").string());
    EXPECT_EQ(missing.error().sysErrno, ENOENT);
    EXPECT_EQ(MappedFile::open(path / "below").error().sysErrno, ENOTDIR);
    EXPECT_EQ(MappedFile::open(dir.path()).error().message, "cannot map " + dir.path().string());
}

TEST(Platform, ConfigurationDirectoryFollowsTheEnvironment) {
    setenv("HOME", "/home/someone", 1);
    setenv("XDG_CONFIG_HOME", "/elsewhere", 1);
    EXPECT_EQ(userConfigDirectory(), "/elsewhere");
    setenv("XDG_CONFIG_HOME", "", 1);
    EXPECT_EQ(userConfigDirectory(), "/home/someone/.config");
    unsetenv("XDG_CONFIG_HOME");
    setenv("HOME", "", 1);
    EXPECT_EQ(userConfigDirectory(), "");
}

}  // namespace
}  // namespace lm
