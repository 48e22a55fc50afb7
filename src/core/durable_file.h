// Files that appear under their name only when they are whole: made under a temporary name, put in place at
// the end; and flushing to the disk, for those that have to survive a power failure.
//
// Threads: pure functions from any thread; a StagedFile belongs to one at a time. Lifetime: a StagedFile owns
// its temporary file and removes it unless it was put in place.
#pragma once

#include <filesystem>
#include <string_view>

#include "core/unique_fd.h"

namespace lm {

/// Flushes the data of an open file, or the names in a directory, to the disk. Returns 0 or an errno. What
/// cannot be flushed (a pipe, some network file systems) counts as 0: it is as safe as it gets.
int flushToDisk(int descriptor);
int flushDirectoryToDisk(const std::filesystem::path& directory);

/// A file to be, under a temporary name in the directory of its target until place(). Its lock tells others
/// that it is not abandoned. Each step returns 0 or an errno.
class StagedFile {
  public:
    StagedFile() = default;
    StagedFile(StagedFile&& other) noexcept;
    StagedFile& operator=(StagedFile&& other) noexcept;
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;
    ~StagedFile();

    /// As "TARGET.xcplumo-PID.tmp", with a number behind it when that is taken. Removes what programs of this
    /// user that have ended left under such names for the same target.
    int createBeside(const std::filesystem::path& target);
    /// Under this very name. What stands there is removed; EWOULDBLOCK when another program is staging it.
    int createAs(const std::filesystem::path& temporary);

    /// The whole text, flushed to the disk.
    int write(std::string_view text);
    /// Gives up the lock with the descriptor; tells late failures of writes.
    int close();

    enum class Existing { replaced, kept };
    /// Gives the file its name; it may still be open. EEXIST when something has that name that is to be kept.
    int place(const std::filesystem::path& target, Existing existing);

    int descriptor() const { return file_.get(); }

  private:
    int make(const std::filesystem::path& temporary);

    std::filesystem::path temporary_;  ///< empty unless it stands there
    UniqueFd file_;
};

/// Replaces the file that `path` names (or links to) by a new one, whole and on the disk, with the rights of
/// the old one and its owner as far as the system allows; writes to anything that is not a file, such as a
/// device. Returns 0 or an errno; a file is the whole old or the whole new one in any case.
int replaceOrWrite(const std::filesystem::path& path, std::string_view text);

}  // namespace lm
