// The subcommand `snapshot`: the parameters of the ECU as a file.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/image_source.h"
#include "session/parameter_reading.h"

namespace lm::cli {

/// Of an ECU or image beside a file: what the file names, and what was typed without a pattern. All others
/// are counted.
struct OnlyNamed {
    const params::ParameterSet& file;
    const std::vector<std::string>& typed;
    std::size_t others = 0;

    bool takes(const std::string& name) const;
};

/// What `snapshot` and `diff` read of the ECU, with a line of progress on a terminal, or of an image. What
/// was left out has been told; of what can be read nothing is missing but what `only` does not take.
/// `outside` gets the names of what a pattern takes and the image does not hold.
Result<session::ParameterReading> readFromEcu(Workplace& place, const std::vector<std::string>& patterns,
                                              const session::FolderFilter& folders,
                                              OnlyNamed* only = nullptr);
Result<session::ParameterReading> readFromImage(Workplace& place, session::ImageValues& image,
                                                const std::vector<std::string>& patterns,
                                                const session::FolderFilter& folders,
                                                std::vector<std::string>& outside, OnlyNamed* only = nullptr);

/// The text of a whole snapshot, as a file NAME.json holds it. Likewise.
Result<std::string> snapshotText(Workplace& place);

/// A parameter that cannot be read is named and left out; the rest is written. An error and a stop request
/// leave no file.
class SnapshotCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;
    session::SessionOptions sessionOptions() const override { return {.digest = true}; }
    Needs needs(Needs most) const override { return image_.needs(most); }
    int unansweredCode() const override { return 4; }
    int run(Workplace& place) override;

  private:
    bool isImage() const;
    int keepMemory(Workplace& place, session::ImageValues* image) const;
    Result<session::ParameterReading> read(Workplace& place, session::ImageValues* image) const;

    ImageSource image_;
    std::filesystem::path file_;
    std::vector<std::string> patterns_;
    std::vector<std::string> groups_;
    std::vector<std::string> functions_;
    bool force_ = false;
};

}  // namespace lm::cli
