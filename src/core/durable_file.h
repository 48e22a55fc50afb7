// Files that have to survive a power failure: flushing to the disk, and replacing a file by another so that
// under its name there is always the whole old one or the whole new one.
//
// Threads: pure functions from any thread; a StagedFile belongs to one at a time. Lifetime: a StagedFile owns
// its temporary file and removes it unless it was put in place.
#pragma once

#include <filesystem>
#include <string_view>
#include <utility>

namespace lm {

/// Flushes the data of an open file, or the names in a directory, to the disk. Returns 0 or an errno. What
/// cannot be flushed (a pipe, some network file systems) counts as 0: it is as safe as it gets.
int flushToDisk(int descriptor);
int flushDirectoryToDisk(const std::filesystem::path& directory);

/// The text of a file to be, under another name until commit(). Each step returns 0 or an errno.
class StagedFile {
  public:
    explicit StagedFile(std::filesystem::path temporary) : temporary_(std::move(temporary)) {}
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    /// Fails with EEXIST when something stands under the temporary name.
    int create();
    /// The whole text, flushed to the disk. Nothing else may follow but commit().
    int write(std::string_view text);
    /// Gives the file its name, in the same directory, and flushes that to the disk too.
    int commit(const std::filesystem::path& target);

    int descriptor() const { return descriptor_; }

  private:
    std::filesystem::path temporary_;
    int descriptor_ = -1;
    bool made_ = false;  ///< stands under its temporary name
};

/// Replaces the file that `path` names (or links to) by a new one, whole and on the disk, with the rights of
/// the old one and its owner as far as the system allows; writes to anything that is not a file, such as a
/// device. Returns 0 or an errno; a file is the whole old or the whole new one in any case.
int replaceOrWrite(const std::filesystem::path& path, std::string_view text);

}  // namespace lm
