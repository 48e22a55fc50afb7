#include "core/durable_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/file_lock.h"
#include "core/file_write.h"

namespace lm {
namespace {

/// The errno of a flush, or 0 when the system has none for such a file.
int withoutUnsupported(int systemError) {
    const bool unsupported = systemError == EINVAL || systemError == ENOTSUP || systemError == ENOSYS;
    return unsupported ? 0 : systemError;
}

int writeInto(const char* device, std::string_view text) {
    UniqueFd opened(::open(device, O_WRONLY | O_CLOEXEC));
    if (!opened.valid()) return errno;
    const int failure = writeAll(opened.get(), text);
    const int late = opened.close();
    return failure != 0 ? failure : late;
}

constexpr std::string_view kStem = ".xcplumo-";
constexpr std::string_view kEnd = ".tmp";
/// How often a name may be taken away before giving up: each time another program got ahead.
constexpr int kAttempts = 100;

bool hasEnded(std::string_view digits) {
    pid_t process = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, failure] = std::from_chars(digits.data(), end, process);
    return failure == std::errc{} && rest == end && process > 0 && process != ::getpid() &&
           ::kill(process, 0) != 0 && errno == ESRCH;
}

/// "FILE.xcplumo-PID.tmp", or with a number behind it, of a program that has ended.
bool isAbandonedName(std::string_view file, std::string_view name) {
    if (!name.starts_with(file) || !name.substr(file.size()).starts_with(kStem)) return false;
    const std::string_view rest = name.substr(file.size() + kStem.size());
    const std::size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
    if (!rest.substr(digits).starts_with(kEnd)) return false;
    const std::string_view number = rest.substr(digits + kEnd.size());
    return number.find_first_not_of("0123456789") == std::string_view::npos &&
           hasEnded(rest.substr(0, digits));
}

/// Removes what stands under a name unless a program is writing it: EWOULDBLOCK. The lock is held meanwhile,
/// so that no one who waits for the same name loses what he put there.
int removeUnlessLocked(const std::filesystem::path& path) {
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? 0 : errno;
    UniqueFd file;
    if (S_ISREG(status.st_mode)) file = UniqueFd(::open(path.c_str(), O_WRONLY | kFlags));
    // Another user's may be removed, but not locked: whether he writes it can still be seen.
    if (S_ISREG(status.st_mode) && !file.valid()) file = UniqueFd(::open(path.c_str(), O_RDONLY | kFlags));
    if (file.valid() && (!lockForWriting(file.get()) || isLockedByAnother(file.get()))) return EWOULDBLOCK;
    if (file.valid() && !standsAt(file.get(), path)) return 0;
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

/// What cannot be removed harms no one.
void removeAbandoned(const std::filesystem::path& target) {
    namespace fs = std::filesystem;
    const std::string file = target.filename().string();
    std::error_code failure;
    std::vector<fs::path> abandoned;
    for (fs::directory_iterator entry(target.has_parent_path() ? target.parent_path() : ".", failure), end;
         !failure && entry != end; entry.increment(failure)) {
        if (isAbandonedName(file, entry->path().filename().string())) abandoned.push_back(entry->path());
    }
    for (const fs::path& path : abandoned) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid())
            removeUnlessLocked(path);
    }
}

/// Only a file system that knows no renaming without replacing leaves a moment in which one is replaced.
int renameKeeping(const char* from, const char* to) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    struct stat status {};
    if (::lstat(to, &status) == 0) return EEXIST;
    return std::rename(from, to) == 0 ? 0 : errno;
}

int replace(const std::filesystem::path& path, std::string_view text, const struct stat* old) {
    StagedFile file;
    if (const int failure = file.createBeside(path); failure != 0) return failure;
    if (old != nullptr) {
        // Only root can give it to somebody else; everybody else gets a file of their own.
        [[maybe_unused]] const int given = ::fchown(file.descriptor(), old->st_uid, old->st_gid);
        if (::fchmod(file.descriptor(), old->st_mode & 07777U) != 0) return errno;
    }
    if (const int failure = file.write(text); failure != 0) return failure;
    if (const int failure = file.close(); failure != 0) return failure;
    if (const int failure = file.place(path, StagedFile::Existing::replaced); failure != 0) return failure;
    return flushDirectoryToDisk(path.has_parent_path() ? path.parent_path() : ".");
}

}  // namespace

int flushToDisk(int descriptor) {
    while (::fdatasync(descriptor) != 0) {
        if (errno != EINTR) return withoutUnsupported(errno);
    }
    return 0;
}

int flushDirectoryToDisk(const std::filesystem::path& directory) {
    const UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Who may write into a directory need not be allowed to read it.
    if (!opened.valid()) return errno == EACCES ? 0 : errno;
    return ::fsync(opened.get()) == 0 ? 0 : withoutUnsupported(errno);
}

StagedFile::StagedFile(StagedFile&& other) noexcept
    : temporary_(std::exchange(other.temporary_, {})), file_(std::move(other.file_)) {}

StagedFile& StagedFile::operator=(StagedFile&& other) noexcept {
    std::swap(temporary_, other.temporary_);
    std::swap(file_, other.file_);
    return *this;
}

StagedFile::~StagedFile() {
    // Removed while the lock still says whose it is.
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

int StagedFile::createBeside(const std::filesystem::path& target) {
    removeAbandoned(target);
    std::string stem = target.string();
    stem.append(kStem).append(std::to_string(::getpid())).append(kEnd);
    int failure = make(stem);
    for (int number = 1; failure == EEXIST && number < kAttempts; ++number)
        failure = make(stem + std::to_string(number));
    return failure;
}

int StagedFile::createAs(const std::filesystem::path& temporary) {
    int failure = make(temporary);
    for (int attempt = 1; failure == EEXIST && attempt < kAttempts; ++attempt) {
        failure = removeUnlessLocked(temporary);
        if (failure == 0) failure = make(temporary);
    }
    return failure;
}

/// EEXIST also when another program took the new file for an abandoned one before it was locked.
int StagedFile::make(const std::filesystem::path& temporary) {
    UniqueFd made(::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!made.valid()) return errno;
    if (!lockForWriting(made.get()) || !standsAt(made.get(), temporary)) return EEXIST;
    file_ = std::move(made);
    temporary_ = temporary;
    return 0;
}

int StagedFile::write(std::string_view text) {
    const int failure = writeAll(file_.get(), text);
    return failure != 0 ? failure : flushToDisk(file_.get());
}

int StagedFile::close() {
    return file_.close();
}

int StagedFile::place(const std::filesystem::path& target, Existing existing) {
    int failure = 0;
    if (existing == Existing::kept) {
        failure = renameKeeping(temporary_.c_str(), target.c_str());
    } else if (std::rename(temporary_.c_str(), target.c_str()) != 0) {
        failure = errno;
    }
    if (failure == 0) temporary_.clear();
    return failure;
}

int replaceOrWrite(const std::filesystem::path& path, std::string_view text) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return replace(path, text, nullptr);
    if (!S_ISREG(status.st_mode)) return writeInto(path.c_str(), text);
    // A link stays and leads to the new file.
    std::error_code failure;
    const std::filesystem::path real = std::filesystem::canonical(path, failure);
    return failure ? failure.value() : replace(real, text, &status);
}

}  // namespace lm
