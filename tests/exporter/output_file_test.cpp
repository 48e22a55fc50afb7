#include "exporter/output_file.h"

#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace lm::exporter {
namespace {

TEST(OutputFile, RemovesWhatAKilledExportLeftAndNothingElse) {
    const test::TempDir directory;
    const auto named = [&](const std::string& name) { return directory.path() / name; };
    // No process has the number 4194305, process 1 is always there.
    const std::set<std::string> others = {"x.csv.tmp",
                                          "x.csv.2024.tmp",
                                          "x.csv.xcplumo-1.tmp",
                                          "x.csv.xcplumo-4194305a.tmp",
                                          "x.csv.xcplumo-4194305.tmpa",
                                          "x.csv.xcplumo-.tmp",
                                          "y.csv.xcplumo-4194305.tmp"};
    for (const std::string& name : others)
        std::ofstream(named(name)) << name;
    for (const char* name : {"x.csv.xcplumo-4194305.tmp", "x.csv.xcplumo-4194305.tmp12"})
        std::ofstream(named(name)) << name;

    auto running = OutputFile::create(named("x.csv"), false);
    ASSERT_TRUE(running.ok());
    auto later = OutputFile::create(named("x.csv"), true);
    ASSERT_TRUE(later.ok());
    EXPECT_TRUE(running.value().commit().ok());
    EXPECT_TRUE(later.value().commit().ok());

    std::set<std::string> expected = others;
    expected.insert("x.csv");
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
        left.insert(entry.path().filename().string());
    EXPECT_EQ(left, expected);
}

}  // namespace
}  // namespace lm::exporter
