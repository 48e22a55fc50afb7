#include "exporter/output_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace lm::exporter {
namespace {

Error alreadyExists(const std::filesystem::path& target) {
    return {ErrorCode::alreadyOpen, target.string() + " already exists (--force overwrites it)"};
}

/// The file that a symbolic link stands for, so that replacing keeps the link.
std::filesystem::path resolved(const std::filesystem::path& target) {
    std::error_code failure;
    auto real = std::filesystem::canonical(target, failure);
    return failure ? target : real;
}

bool onlyDigits(std::string_view text) {
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// "FILE.PID.tmp" or, when that was there, "FILE.PID.tmpN".
bool isTemporaryOf(std::string_view file, std::string_view name) {
    if (!name.starts_with(file) || !name.substr(file.size()).starts_with('.')) return false;
    const std::string_view rest = name.substr(file.size() + 1);
    const auto middle = rest.find(".tmp");
    return middle != std::string_view::npos && middle != 0 && onlyDigits(rest.substr(0, middle)) &&
           onlyDigits(rest.substr(middle + 4));
}

/// What exports to the same file left that were killed. Those that still run have locked theirs; what cannot
/// be removed harms nobody.
void removeAbandoned(const std::filesystem::path& target) {
    namespace fs = std::filesystem;
    const std::string file = target.filename().string();
    std::error_code failure;
    std::vector<fs::path> abandoned;
    for (fs::directory_iterator entry(target.has_parent_path() ? target.parent_path() : ".", failure), end;
         !failure && entry != end; entry.increment(failure)) {
        if (isTemporaryOf(file, entry->path().filename().string())) abandoned.push_back(entry->path());
    }
    for (const fs::path& path : abandoned) {
        const int descriptor = ::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (descriptor < 0) continue;
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) ::unlink(path.c_str());
        ::close(descriptor);
    }
}

/// True unless somebody took the file for an abandoned one before it was locked.
bool claim(int descriptor) {
    struct stat status {};
    // A file system without locks is one where nothing can pass for abandoned either.
    const bool lost = ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return !lost && ::fstat(descriptor, &status) == 0 && status.st_nlink != 0;
}

}  // namespace

Result<void> checkTarget(const std::filesystem::path& target, bool replace) {
    struct stat status {};
    if (::stat(target.c_str(), &status) != 0) return {};
    if (!S_ISREG(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, target.string() + " is not a regular file"};
    }
    if (!replace) return alreadyExists(target);
    return {};
}

Result<OutputFile> OutputFile::create(const std::filesystem::path& target, bool replace) {
    if (auto fits = checkTarget(target, replace); !fits) return fits.error();
    const std::filesystem::path real = resolved(target);
    removeAbandoned(real);
    const std::string stem = real.string() + "." + std::to_string(::getpid()) + ".tmp";
    std::string temporary = stem;
    for (int number = 1;; ++number) {
        const int descriptor = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 && claim(descriptor)) {
            OutputFile file(real, temporary, descriptor, replace);
            file.keepMode();
            return file;
        }
        if (descriptor < 0 && errno != EEXIST && errno != EINTR) {
            return Error::fromErrno(errno, "cannot create " + target.string());
        }
        if (descriptor >= 0) ::close(descriptor);
        temporary = stem + std::to_string(number);
    }
}

// Who may read a file does not change because it is written anew. File systems without rights refuse, and
// need not care.
void OutputFile::keepMode() const {
    constexpr mode_t kRights = 0666;
    struct stat status {};
    if (::stat(target_.c_str(), &status) != 0) return;
    [[maybe_unused]] const int done = ::fchmod(descriptor_, status.st_mode & kRights);
}

OutputFile::OutputFile(std::filesystem::path target, std::filesystem::path temporary, int descriptor,
                       bool replace)
    : target_(std::move(target)),
      temporary_(std::move(temporary)),
      descriptor_(descriptor),
      replace_(replace) {}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : target_(std::move(other.target_)),
      temporary_(std::exchange(other.temporary_, {})),
      descriptor_(std::exchange(other.descriptor_, -1)),
      replace_(other.replace_),
      size_(other.size_) {}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
    std::swap(target_, other.target_);
    std::swap(temporary_, other.temporary_);
    std::swap(descriptor_, other.descriptor_);
    std::swap(replace_, other.replace_);
    std::swap(size_, other.size_);
    return *this;
}

OutputFile::~OutputFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

Error OutputFile::writeError(int systemError) const {
    return Error::fromErrno(systemError, "cannot write " + target_.string());
}

Result<void> OutputFile::append(std::span<const std::uint8_t> bytes) {
    auto written = writeAt(size_, bytes);
    if (written) size_ += bytes.size();
    return written;
}

Result<void> OutputFile::append(std::string_view text) {
    return append(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

Result<void> OutputFile::writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return writeError(count < 0 ? errno : EIO);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
    return {};
}

Result<void> OutputFile::commit() {
    if (::close(std::exchange(descriptor_, -1)) != 0) return writeError(errno);
    const int failure = rename();
    if (failure == EEXIST && !replace_) return alreadyExists(target_);
    if (failure != 0) return Error::fromErrno(failure, "cannot create " + target_.string());
    temporary_.clear();
    return {};
}

// Somebody may have made the file meanwhile, so the system itself has to refuse an existing one; only a file
// system that knows no such renaming leaves a moment open.
int OutputFile::rename() const {
    if (!replace_) {
        if (::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) == 0) {
            return 0;
        }
        if (errno != EINVAL && errno != ENOSYS) return errno;
        if (!checkTarget(target_, false)) return EEXIST;
    }
    return std::rename(temporary_.c_str(), target_.c_str()) == 0 ? 0 : errno;
}

}  // namespace lm::exporter
