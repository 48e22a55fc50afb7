#include "storage/write/append_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lm::storage {
namespace {

constexpr std::uint64_t kBufferSize = 64 * 1024;

}  // namespace

Result<AppendFile> AppendFile::create(const std::filesystem::path& path, const FileHeader& header,
                                      std::uint64_t unitSize, ClaimedFile::Begin begin) {
    auto made = ClaimedFile::create(path, header.data(), header.size(), begin);
    if (!made) return made.error();
    return AppendFile(std::move(made).value(), unitSize);
}

AppendFile::AppendFile(ClaimedFile file, std::uint64_t unitSize)
    : file_(std::move(file)),
      unitSize_(unitSize),
      capacity_(std::max<std::uint64_t>(kBufferSize / unitSize, 1)),
      // Left uninitialised: many groups and levels never fill theirs.
      buffer_(new std::uint8_t[capacity_ * unitSize]) {}

std::uint8_t* AppendFile::reserve() {
    return buffered_ < capacity_ ? &buffer_[buffered_ * unitSize_] : nullptr;
}

std::span<const std::uint8_t> AppendFile::buffered() const {
    return {buffer_.get(), buffered_ * unitSize_};
}

AppendFile::Progress AppendFile::writeOut() {
    const auto whole = [this](std::uint64_t bytes) { return bytes - bytes % unitSize_; };
    const Written written = file_.append(buffer_.get(), buffered_ * unitSize_, whole);
    return {written.bytes / unitSize_, written.systemError};
}

void AppendFile::release(std::size_t units) {
    buffered_ -= units;
    std::memmove(buffer_.get(), &buffer_[0] + units * unitSize_, buffered_ * unitSize_);
}

}  // namespace lm::storage
