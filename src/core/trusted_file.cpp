#include "core/trusted_file.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "core/file_write.h"
#include "core/sha256.h"

namespace lm {
namespace {

constexpr int kMostLinks = 40;  ///< as many as Linux follows
constexpr std::size_t kMostCopied = std::size_t{256} << 20U;

std::optional<std::string> whyNot(const struct stat& status, const std::string& name) {
    if (status.st_uid != 0 && status.st_uid != ::geteuid())
        return name + " belongs to another user (" + std::to_string(status.st_uid) + ")";
    const bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0 || sticky) return std::nullopt;
    return name + " is writable by others (`chmod go-w` ends that)";
}

/// Empty for what has no place, such as a pipe.
std::filesystem::path placeOf(int descriptor) {
    std::error_code failure;
    const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), failure);
    return failure || !path.is_absolute() ? std::filesystem::path() : path;
}

/// 0 or an errno; `text` is all of the file.
int readAll(int descriptor, std::string& text) {
    std::string block(std::size_t{1} << 20U, '\0');
    for (;;) {
        const ssize_t count = ::read(descriptor, block.data(), block.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        if (count == 0) return 0;
        text.append(block, 0, static_cast<std::size_t>(count));
        if (text.size() > kMostCopied) return EFBIG;
    }
}

/// 0 or an errno.
int sealedCopy(const std::string& bytes, UniqueFd& copy) {
    copy = UniqueFd(::memfd_create("xcplumo", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!copy.valid()) return errno;
    if (const int failure = writeAll(copy.get(), bytes); failure != 0) return failure;
    constexpr int kSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;
    if (::fcntl(copy.get(), F_ADD_SEALS, kSeals) != 0) return errno;
    // Who has it open for writing is not allowed to run it.
    UniqueFd readOnly(::open(("/proc/self/fd/" + std::to_string(copy.get())).c_str(), O_RDONLY | O_CLOEXEC));
    if (!readOnly.valid()) return errno;
    copy = std::move(readOnly);
    return 0;
}

/// Why others can lead a path to another file, of all links and directories on its way; the file itself is
/// not looked at.
std::optional<std::string> whyOthersMayLead(const std::filesystem::path& path) {
    std::error_code failure;
    const auto start = std::filesystem::absolute(path, failure);
    if (failure) return "the directory that it is taken from is not known";
    auto at = start.root_path();
    std::deque<std::filesystem::path> ahead(start.begin(), start.end());
    for (int links = 0; !ahead.empty();) {
        const auto name = ahead.front();
        ahead.pop_front();
        at = name == ".." ? at.parent_path() : name == "." || name.empty() ? at : at / name;
        struct stat status {};
        if (::lstat(at.c_str(), &status) != 0) return "the rights of " + at.string() + " are not known";
        if (S_ISDIR(status.st_mode)) {
            if (auto reason = whyNot(status, at.string())) return reason;
        } else if (S_ISLNK(status.st_mode)) {
            status.st_mode = S_IFLNK;  // its bits mean nothing: who may write to the directory may replace it
            if (auto reason = whyNot(status, at.string())) return reason;
            const auto target = std::filesystem::read_symlink(at, failure);
            if (failure || ++links > kMostLinks) return at.string() + " is a link that cannot be followed";
            ahead.insert(ahead.begin(), target.begin(), target.end());
            at = target.is_absolute() ? target.root_path() : at.parent_path();
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> whyOthersMayWrite(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return "its rights are not known";
    const auto place = placeOf(descriptor);
    if (auto reason = whyNot(status, place.empty() ? "it" : place.string())) return reason;
    for (auto above = place.parent_path(); !above.empty(); above = above.parent_path()) {
        if (::stat(above.c_str(), &status) != 0) return "the rights of " + above.string() + " are not known";
        if (auto reason = whyNot(status, above.string())) return reason;
        if (above == above.root_path()) break;
    }
    return std::nullopt;
}

Result<VouchedFile> vouchFor(const std::filesystem::path& path, std::span<const std::string> digests) {
    // A pipe that no one writes to is not waited for.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) return Error::fromErrno(errno, "cannot open " + path.string());
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return Error::fromErrno(errno, "cannot open " + path.string());
    if (!S_ISREG(status.st_mode))
        return Error{ErrorCode::invalidArgument, path.string() + " is not a regular file"};
    VouchedFile vouched{placeOf(file.get())};
    if (!digests.empty()) {
        std::string bytes;
        int failure = readAll(file.get(), bytes);
        const bool named = failure == 0 && std::ranges::count(digests, sha256Hex(bytes)) != 0;
        if (named) failure = sealedCopy(bytes, vouched.copy);
        if (failure != 0) return Error::fromErrno(failure, "cannot copy " + path.string());
        if (named) return vouched;
    }
    auto reason = whyOthersMayLead(path);
    if (!reason) reason = whyOthersMayWrite(file.get());
    if (reason) return Error{ErrorCode::permissionDenied, path.string() + " is refused: " + *reason};
    return vouched;
}

}  // namespace lm
