#include "storage/write/append_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "core/durable_file.h"
#include "storage/read/raw_file.h"

namespace lm::storage {
namespace {

constexpr std::uint64_t kBufferSize = 64 * 1024;

Error writeError(const std::filesystem::path& path, int systemError) {
    return Error::fromErrno(systemError, "cannot write " + path.string());
}

}  // namespace

Result<AppendFile> AppendFile::create(const std::filesystem::path& path, const FileHeader& header,
                                      std::uint64_t unitSize) {
    const auto made = claimForWriting(path);
    if (!made) return made.error();
    const ClaimedFile opened = made.value();
    AppendFile file(path, opened.descriptor, opened.isNew, unitSize);
    const Written written = writeAt(opened.descriptor, 0, header.data(), header.size());
    if (written.systemError != 0) {
        if (opened.isNew) ::unlink(path.c_str());
        return writeError(path, written.systemError);
    }
    return file;
}

AppendFile::AppendFile(std::filesystem::path path, int descriptor, bool isNew, std::uint64_t unitSize)
    : path_(std::move(path)),
      descriptor_(descriptor),
      isNew_(isNew),
      unitSize_(unitSize),
      capacity_(std::max<std::uint64_t>(kBufferSize / unitSize, 1)),
      // Left uninitialised: many groups and levels never fill theirs.
      buffer_(new std::uint8_t[capacity_ * unitSize]) {}

AppendFile::AppendFile(AppendFile&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      isNew_(other.isNew_),
      unitSize_(other.unitSize_),
      capacity_(other.capacity_),
      buffered_(other.buffered_),
      fileEnd_(other.fileEnd_),
      buffer_(std::move(other.buffer_)) {}

AppendFile& AppendFile::operator=(AppendFile&& other) noexcept {
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

AppendFile::~AppendFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

std::uint8_t* AppendFile::reserve() {
    return buffered_ < capacity_ ? &buffer_[buffered_ * unitSize_] : nullptr;
}

std::span<const std::uint8_t> AppendFile::buffered() const {
    return {buffer_.get(), buffered_ * unitSize_};
}

AppendFile::Progress AppendFile::writeOut() {
    const Written written = writeAt(descriptor_, fileEnd_, buffer_.get(), buffered_ * unitSize_);
    const std::uint64_t units = written.bytes / unitSize_;
    fileEnd_ += units * unitSize_;
    if (written.bytes % unitSize_ != 0) {
        // Every write goes to fileEnd_, so a torn unit that cannot be cut off is overwritten by the next one.
        [[maybe_unused]] const int cut = ::ftruncate(descriptor_, static_cast<off_t>(fileEnd_));
    }
    return {units, written.systemError};
}

void AppendFile::release(std::size_t units) {
    buffered_ -= units;
    std::memmove(buffer_.get(), &buffer_[0] + units * unitSize_, buffered_ * unitSize_);
}

Result<void> AppendFile::flushToDisk() {
    if (const int failure = lm::flushToDisk(descriptor_); failure != 0) return writeError(path_, failure);
    return {};
}

Result<void> AppendFile::close() {
    if (descriptor_ < 0) return {};
    // After EINTR the descriptor is gone all the same.
    const int failed = ::close(std::exchange(descriptor_, -1));
    if (failed != 0 && errno != EINTR) return writeError(path_, errno);
    return {};
}

}  // namespace lm::storage
