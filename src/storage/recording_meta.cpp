#include "storage/recording_meta.h"

#include <string>
#include <unistd.h>

namespace lm::storage {

MetaFile::MetaFile(const std::filesystem::path& directory)
    : path_(directory / kMetaFileName), temporary_(path_.string() + ".tmp"), file_(temporary_) {}

Result<void> MetaFile::stage(const RecordingInfo& info) {
    // What a crash left behind, or somebody put there, is replaced and not written through.
    ::unlink(temporary_.c_str());
    if (const int failure = file_.create(); failure != 0) {
        return Error{codeFromErrno(failure), "cannot write " + temporary_.string(), failure};
    }
    if (const int failure = file_.write(metaToJson(info)); failure != 0) {
        return Error::fromErrno(failure, "cannot write meta.json");
    }
    return {};
}

Result<void> MetaFile::commit() {
    if (const int failure = file_.commit(path_); failure != 0) {
        return Error{codeFromErrno(failure), "cannot write " + path_.string(), failure};
    }
    return {};
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
