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
    const std::set<std::string> others = {"x.csv.tmp", "x.csv.1a.tmp", "x.csv.1.tmpa", "x.csv.1.tm",
                                          "y.csv.1.tmp"};
    for (const std::string& name : others)
        std::ofstream(named(name)) << name;
    for (const char* name : {"x.csv.1.tmp", "x.csv.4194303.tmp12"})
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
