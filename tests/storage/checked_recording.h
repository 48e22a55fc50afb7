// A recording that is checked and repaired, with what that tells as text.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "storage/care/recording_check.h"
#include "storage/care/recording_repair.h"
#include "support/temp_dir.h"

namespace lm::storage::test {

class CheckedRecordingTest : public ::testing::Test {
  protected:
    std::filesystem::path path() const { return dir_.path() / "rec"; }
    std::filesystem::path file(const std::string& name) const { return path() / name; }

    /// The findings, a line each, without the directory.
    std::string check() {
        auto checked = checkRecording(path(), {});
        if (!checked) return withoutPath(checked.error().text());
        std::string text;
        for (const Finding& finding : checked.value().findings)
            text += withoutPath(finding.text) + (finding.mendable() ? "\n" : " !\n");
        return text;
    }
    /// The deeds, then what is left or the error.
    std::string repair() {
        std::string text;
        auto left =
            repairRecording(path(), {}, [&](const std::string& deed) { text += withoutPath(deed) + "\n"; });
        if (!left) return text + withoutPath(left.error().text());
        for (const Finding& finding : left.value())
            text += "left: " + withoutPath(finding.text) + "\n";
        return text;
    }
    std::string withoutPath(std::string text) const {
        const std::string prefix = path().string() + "/";
        for (auto at = text.find(prefix); at != std::string::npos; at = text.find(prefix))
            text.erase(at, prefix.size());
        return text;
    }

    lm::test::TempDir dir_;
};

}  // namespace lm::storage::test
