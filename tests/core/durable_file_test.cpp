#include "core/durable_file.h"

#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace lm {
namespace {

namespace fs = std::filesystem;

std::string text(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(DurableFile, ReplacingKeepsLinkAndRightsAndLeavesNothingElse) {
    const test::TempDir directory;
    const fs::path file = directory.path() / "a";
    const fs::path link = directory.path() / "b";
    // A killed program that had this one's number left its file.
    const std::string mine = ".xcplumo-" + std::to_string(::getpid()) + ".tmp";
    std::ofstream(directory.path() / ("a" + mine)) << "left";
    ASSERT_EQ(replaceOrWrite(file, "first"), 0);
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    fs::create_symlink("a", link);
    ASSERT_EQ(replaceOrWrite(link, "second"), 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(text(file), "second");
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 3);

    EXPECT_EQ(replaceOrWrite(directory.path() / "none" / "a", "x"), ENOENT);
    EXPECT_EQ(replaceOrWrite("/dev/full", "x"), ENOSPC);
    EXPECT_EQ(replaceOrWrite(directory.path(), "x"), EISDIR);
}

}  // namespace
}  // namespace lm
