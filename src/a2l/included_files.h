// The files that an A2L file includes, read when the directive comes.
//
// A relative name means a file beside the including one, else beside the first; the working directory plays
// no part. Only regular files are opened: reading a device may do things, and a pipe may never end.
//
// Threads: one at a time. Lifetime: owns the texts. The stop token is a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "a2l/file_text.h"
#include "a2l/source_texts.h"
#include "core/stop_token.h"

namespace lm::a2l {

class IncludedFiles : public SourceTexts {
  public:
    IncludedFiles(std::filesystem::path first, StopToken stop);

    /// What the first file is and how many bytes it has, before the first enter().
    void begin(const struct stat& status, std::size_t size);

    /// Errors: "included file NAME not found in DIRECTORY[ or DIRECTORY]" (notFound), "included file PATH: is
    /// not a regular file", "included file PATH: includes itself", "included file PATH: REASON", "included
    /// files are nested deeper than 16", "more than 1000 included files", "with the included file PATH the
    /// text is larger than 2 GiB".
    Result<Source> enter(std::string_view name) override;
    void leave() override { open_.pop_back(); }

  private:
    struct Open {
        std::filesystem::path path;
        dev_t device = 0;
        ino_t inode = 0;
    };

    Result<std::filesystem::path> find(std::string_view name) const;
    Result<Source> read(Open file);

    StopToken stop_;
    std::deque<FileText> texts_;  // a deque: they stay where they are
    std::vector<Open> open_;      // innermost last
    std::size_t size_ = 0;        // of all texts
};

}  // namespace lm::a2l
