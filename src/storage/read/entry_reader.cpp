#include "storage/read/entry_reader.h"

#include <algorithm>
#include <string>
#include <utility>

namespace lm::storage {
namespace {

constexpr std::size_t kReadBufferSize = 64 * 1024;
/// Bytes of a header that mean something: the rest is reserved.
constexpr std::size_t kIndexHeaderUsed = 20;
constexpr std::size_t kLevelHeaderUsed = 24;

}  // namespace

Result<EntryReader> EntryReader::open(const std::filesystem::path& directory, std::size_t groupNumber,
                                      const GroupInfo& group, std::size_t number) {
    auto file = InputFile::open(SummaryFile::path(directory, groupNumber, number));
    if (!file) return file.error();
    const std::string path = file.value().path().string();
    if (file.value().size() < kHeaderSize) {
        return Error{ErrorCode::invalidArgument, path + ": shorter than its header"};
    }
    FileHeader header{};
    if (auto read = file.value().readAt(0, header.data(), header.size()); !read) return read.error();
    const FileHeader expected = SummaryFile::header(number, group);
    const std::size_t used = number == SummaryFile::kIndex ? kIndexHeaderUsed : kLevelHeaderUsed;
    const auto usedEnd = header.begin() + static_cast<std::ptrdiff_t>(used);
    const auto different = std::mismatch(header.begin(), usedEnd, expected.begin()).first;
    if (different != usedEnd) {
        return Error{ErrorCode::invalidArgument, path + ": header does not fit (byte " +
                                                     std::to_string(different - header.begin()) + ")"};
    }
    return EntryReader(std::move(file).value(), SummaryFile::entrySize(number, group));
}

EntryReader::EntryReader(InputFile file, std::size_t entrySize)
    : file_(std::move(file)), entrySize_(entrySize) {}

std::uint64_t EntryReader::count() const {
    return entrySize_ == 0 || file_.size() < kHeaderSize ? 0 : (file_.size() - kHeaderSize) / entrySize_;
}

std::uint64_t EntryReader::tornBytes() const {
    return file_.size() - offsetOf(count());
}

Result<std::span<const std::uint8_t>> EntryReader::read(std::uint64_t first, std::uint64_t most) {
    const std::uint64_t fitting = std::max<std::size_t>(kReadBufferSize / entrySize_, 1);
    const auto size = static_cast<std::size_t>(std::min(most, fitting)) * entrySize_;
    if (buffer_.size() < size) buffer_.resize(size);
    if (auto read = file_.readAt(offsetOf(first), buffer_.data(), size); !read) return read.error();
    return std::span<const std::uint8_t>(buffer_.data(), size);
}

}  // namespace lm::storage
