#include "storage/recording_meta.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace lm::storage {
namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The whole text and its way to the disk; 0, or the errno of the first step that failed.
int writeDurably(const std::string& path, const std::string& text, bool& opened) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wbe"));
    opened = file != nullptr;
    if (!opened) return errno;
    if (std::fwrite(text.data(), 1, text.size(), file.get()) != text.size()) return errno;
    if (std::fflush(file.get()) != 0) return errno;
    // What cannot be synchronised (a pipe, some network file systems) says EINVAL and is as safe as it gets.
    if (::fsync(::fileno(file.get())) != 0 && errno != EINVAL) return errno;
    return std::fclose(file.release()) == 0 ? 0 : errno;
}

/// Makes the new name itself survive a power failure. When the system cannot do that, the recording is as
/// good as before.
void syncDirectory(const std::filesystem::path& directory) {
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    ::fsync(descriptor);
    ::close(descriptor);
}

}  // namespace

Result<void> writeMeta(const std::filesystem::path& directory, const RecordingInfo& info) {
    const std::string path = (directory / kMetaFileName).string();
    const std::string temporary = path + ".tmp";
    bool opened = false;
    if (const int failure = writeDurably(temporary, metaToJson(info), opened); failure != 0) {
        if (!opened) return Error{codeFromErrno(failure), "cannot write " + temporary, failure};
        std::remove(temporary.c_str());
        return Error::fromErrno(failure, "cannot write meta.json");
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int failure = errno;
        std::remove(temporary.c_str());
        return Error{codeFromErrno(failure), "cannot write " + path, failure};
    }
    syncDirectory(directory);
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
