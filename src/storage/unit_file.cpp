#include "storage/unit_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "core/durable_file.h"
#include "core/file_lock.h"
#include "storage/recording_meta.h"

namespace lm::storage {
namespace {

constexpr std::uint64_t kBufferSize = 64 * 1024;

struct Opened {
    int descriptor = -1;
    bool isNew = false;
};

/// Closes the file when another program is writing it, or has just removed it.
Result<Opened> claimed(Opened opened, const std::filesystem::path& path) {
    if (lockForWriting(opened.descriptor) && standsAt(opened.descriptor, path)) return opened;
    ::close(opened.descriptor);
    return recordedByAnother(path.parent_path());
}

/// The file under its name, locked; truncated when it existed, which decides later who may remove it.
/// Nothing is written through a link, to where nobody asked for it, nor into a pipe or a device, which wait
/// for, or do, who knows what.
Result<Opened> openForWriting(const std::filesystem::path& path) {
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    const std::string context = "cannot create " + path.string();
    const int made = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
    if (made >= 0) return claimed({made, true}, path);
    if (errno != EEXIST) return Error::fromErrno(errno, context);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, context + ": not a regular file", EINVAL};
    }
    const int found = ::open(path.c_str(), kFlags | O_NOFOLLOW | O_NONBLOCK);
    if (found < 0) return Error::fromErrno(errno, context);
    auto opened = claimed({found, false}, path);
    if (opened && ::ftruncate(found, 0) != 0) {
        const int failure = errno;
        ::close(found);
        return Error::fromErrno(failure, context);
    }
    return opened;
}

struct Written {
    std::uint64_t bytes = 0;
    int systemError = 0;
};

Written writeAt(int descriptor, std::uint64_t offset, const std::uint8_t* data, std::uint64_t size) {
    Written written;
    while (written.bytes < size) {
        const ssize_t count = ::pwrite(descriptor, data + written.bytes, size - written.bytes,
                                       static_cast<off_t>(offset + written.bytes));
        if (count > 0) {
            written.bytes += static_cast<std::uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            // A write of nothing is a full device that does not say so.
            written.systemError = count == 0 ? ENOSPC : errno;
            break;
        }
    }
    return written;
}

Error writeError(const std::filesystem::path& path, int systemError) {
    return Error::fromErrno(systemError, "cannot write " + path.string());
}

}  // namespace

Result<UnitFile> UnitFile::create(const std::filesystem::path& path, const FileHeader& header,
                                  std::uint64_t unitSize) {
    const auto made = openForWriting(path);
    if (!made) return made.error();
    const Opened opened = made.value();
    UnitFile file(path, opened.descriptor, opened.isNew, unitSize);
    const Written written = writeAt(opened.descriptor, 0, header.data(), header.size());
    if (written.systemError != 0) {
        if (opened.isNew) ::unlink(path.c_str());
        return writeError(path, written.systemError);
    }
    return file;
}

UnitFile::UnitFile(std::filesystem::path path, int descriptor, bool isNew, std::uint64_t unitSize)
    : path_(std::move(path)),
      descriptor_(descriptor),
      isNew_(isNew),
      unitSize_(unitSize),
      capacity_(std::max<std::uint64_t>(kBufferSize / unitSize, 1)),
      // Left uninitialised: many groups and levels never fill theirs.
      buffer_(new std::uint8_t[capacity_ * unitSize]) {}

UnitFile::UnitFile(UnitFile&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      isNew_(other.isNew_),
      unitSize_(other.unitSize_),
      capacity_(other.capacity_),
      buffered_(other.buffered_),
      fileEnd_(other.fileEnd_),
      buffer_(std::move(other.buffer_)) {}

UnitFile& UnitFile::operator=(UnitFile&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(descriptor_, other.descriptor_);
    std::swap(isNew_, other.isNew_);
    std::swap(unitSize_, other.unitSize_);
    std::swap(capacity_, other.capacity_);
    std::swap(buffered_, other.buffered_);
    std::swap(fileEnd_, other.fileEnd_);
    std::swap(buffer_, other.buffer_);
    return *this;
}

UnitFile::~UnitFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

std::uint8_t* UnitFile::reserve() {
    return buffered_ < capacity_ ? &buffer_[buffered_ * unitSize_] : nullptr;
}

std::span<const std::uint8_t> UnitFile::buffered() const {
    return {buffer_.get(), buffered_ * unitSize_};
}

UnitFile::Progress UnitFile::writeOut() {
    const Written written = writeAt(descriptor_, fileEnd_, buffer_.get(), buffered_ * unitSize_);
    const std::uint64_t units = written.bytes / unitSize_;
    fileEnd_ += units * unitSize_;
    if (written.bytes % unitSize_ != 0) {
        // Every write goes to fileEnd_, so a torn unit that cannot be cut off is overwritten by the next one.
        [[maybe_unused]] const int cut = ::ftruncate(descriptor_, static_cast<off_t>(fileEnd_));
    }
    return {units, written.systemError};
}

void UnitFile::release(std::size_t units) {
    buffered_ -= units;
    std::memmove(buffer_.get(), &buffer_[0] + units * unitSize_, buffered_ * unitSize_);
}

Result<void> UnitFile::flushToDisk() {
    if (const int failure = lm::flushToDisk(descriptor_); failure != 0) return writeError(path_, failure);
    return {};
}

Result<void> UnitFile::close() {
    if (descriptor_ < 0) return {};
    // After EINTR the descriptor is gone all the same.
    const int failed = ::close(std::exchange(descriptor_, -1));
    if (failed != 0 && errno != EINTR) return writeError(path_, errno);
    return {};
}

}  // namespace lm::storage
