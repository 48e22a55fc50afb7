#include "storage/recording_reader.h"

#include <string>
#include <system_error>

#include "core/platform.h"
#include "storage/recording_meta.h"

namespace lm::storage {
namespace {

/// Far above what the largest A2L file gives, far below what would hurt: foreign text is not parsed without
/// end.
constexpr std::size_t kMaxMetaSize = std::size_t{64} << 20U;

Result<RecordingInfo> readMeta(const std::filesystem::path& path) {
    auto file = MappedFile::open(path);
    if (!file) return file.error();
    if (file.value().size() > kMaxMetaSize) {
        return Error{ErrorCode::invalidArgument, "meta.json: larger than 64 MiB"};
    }
    return metaFromJson(file.value().text());
}

}  // namespace

Result<RecordingReader> RecordingReader::open(const std::filesystem::path& directory) {
    const std::filesystem::path path = directory / kMetaFileName;
    std::error_code failure;
    const std::filesystem::file_status status = std::filesystem::status(path, failure);
    if (status.type() == std::filesystem::file_type::not_found) {
        return Error{ErrorCode::notFound, "no recording in " + directory.string()};
    }
    // Opening a pipe or a device would wait for, or do, who knows what.
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        return Error{ErrorCode::invalidArgument, "cannot open " + path.string() + ": not a regular file"};
    }
    auto info = readMeta(path);
    if (!info) return info.error();
    return RecordingReader(directory, std::move(info).value());
}

}  // namespace lm::storage
