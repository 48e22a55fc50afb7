#include "core/trusted_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "core/file_write.h"
#include "core/sha256.h"

namespace lm {
namespace {

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
    if (auto reason = whyOthersMayWrite(file.get()))
        return Error{ErrorCode::permissionDenied, path.string() + " is refused: " + *reason};
    return vouched;
}

}  // namespace lm
