#include "storage/read/recording_reader.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "storage/format/recording_meta.h"
#include "storage/read/input_file.h"

namespace lm::storage {
namespace {

/// Far above what the largest A2L file gives, far below what would hurt: foreign text is not parsed without
/// end.
constexpr std::size_t kMaxMetaSize = std::size_t{64} << 20U;

Result<RecordingInfo> readMeta(const std::filesystem::path& path) {
    auto file = InputFile::open(path);
    if (!file) return file.error();
    if (file.value().size() > kMaxMetaSize) {
        return Error{ErrorCode::invalidArgument, "meta.json: larger than 64 MiB"};
    }
    std::vector<std::uint8_t> bytes(file.value().size());
    if (auto read = file.value().readAt(0, bytes.data(), bytes.size()); !read) return read.error();
    return metaFromJson({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

}  // namespace

Result<RecordingReader> RecordingReader::open(const std::filesystem::path& directory) {
    auto info = readMeta(directory / kMetaFileName);
    if (info) return RecordingReader(directory, std::move(info).value());
    const Error& error = info.error();
    if (error.sysErrno != ENOENT && error.sysErrno != ENOTDIR) return error;
    return Error{ErrorCode::notFound, "no recording in " + directory.string()};
}

TimeSpan RecordingReader::timeSpan() const {
    TimeSpan whole;
    for (std::size_t i = 0; i < info_.groups.size(); ++i) {
        auto group = openGroup(i);
        auto span = group ? group.value().timeSpan() : Result<TimeSpan>(group.error());
        if (span) whole.add(span.value());
    }
    return whole;
}

}  // namespace lm::storage
