#include "storage/format/recording_meta.h"

#include <cerrno>
#include <string>
#include <system_error>

namespace lm::storage {
namespace {

/// Even a dangling link may be somebody's recording on a disk that is not there.
bool isThere(const std::filesystem::path& path) {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

}  // namespace

Error recordedByAnother(const std::filesystem::path& directory) {
    return {ErrorCode::wouldBlock, directory.string() + " is being recorded to by another program"};
}

Error stillRecorded(const std::filesystem::path& directory) {
    return {ErrorCode::wouldBlock,
            directory.string() + " is still being recorded: stop the measurement first"};
}

Error alreadyRecorded(const std::filesystem::path& directory) {
    return {ErrorCode::alreadyOpen, directory.string() + " already contains a recording"};
}

Result<void> MetaFile::stage(const RecordingInfo& info) {
    const std::filesystem::path path = directory_ / kMetaFileName;
    const std::string temporary = path.string() + ".tmp";
    if (isThere(path)) return alreadyRecorded(directory_);
    const int refused = file_.createAs(temporary);
    if (refused == EWOULDBLOCK) return recordedByAnother(directory_);
    if (refused != 0)
        return Error::withReasonAsHint(codeFromErrno(refused), refused, "cannot write " + temporary);
    // Asked again now that no one else can put one in place.
    if (isThere(path)) return alreadyRecorded(directory_);
    if (const int failure = file_.write(metaToJson(info)); failure != 0) {
        return Error::fromErrno(failure, "cannot write meta.json");
    }
    return {};
}

Result<void> MetaFile::commit() {
    const std::filesystem::path path = directory_ / kMetaFileName;
    int failure = file_.place(path, StagedFile::Existing::kept);
    inPlace_ = failure == 0;
    if (failure == EEXIST) return alreadyRecorded(directory_);
    if (failure == 0) failure = file_.close();
    if (failure == 0) failure = flushDirectoryToDisk(directory_.empty() ? "." : directory_);
    if (failure == 0) return {};
    return Error::withReasonAsHint(codeFromErrno(failure), failure, "cannot write " + path.string());
}

Result<void> checkSignalPlaces(const GroupInfo& group) {
    for (const SignalInfo& signal : group.signals) {
        if (signal.recordOffset + std::uint64_t{signal.coding.size()} > group.recordSize) {
            return Error{ErrorCode::invalidArgument, signal.name + ": outside the group record"};
        }
    }
    return {};
}

}  // namespace lm::storage
