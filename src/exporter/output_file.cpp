#include "exporter/output_file.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include "core/file_write.h"

namespace lm::exporter {
namespace {

Error alreadyExists(const std::filesystem::path& target) {
    return {ErrorCode::alreadyOpen, target.string() + " already exists (--force overwrites it)"};
}

/// The file that a symbolic link stands for, so that replacing keeps the link.
std::filesystem::path resolved(const std::filesystem::path& target) {
    std::error_code failure;
    auto real = std::filesystem::canonical(target, failure);
    return failure ? target : real;
}

}  // namespace

Result<void> checkTarget(const std::filesystem::path& target, bool replace) {
    struct stat status {};
    if (::stat(target.c_str(), &status) != 0) return {};
    if (!S_ISREG(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, target.string() + " is not a regular file"};
    }
    if (!replace) return alreadyExists(target);
    return {};
}

Result<OutputFile> OutputFile::create(const std::filesystem::path& target, bool replace) {
    if (auto fits = checkTarget(target, replace); !fits) return fits.error();
    OutputFile file(resolved(target), replace);
    if (const int failure = file.file_.createBeside(file.target_); failure != 0) {
        return Error::fromErrno(failure, "cannot create " + target.string());
    }
    file.keepMode();
    return file;
}

// Who may read a file does not change because it is written again. File systems without rights refuse, and
// need not care.
void OutputFile::keepMode() const {
    constexpr mode_t kRights = 0666;
    struct stat status {};
    if (::stat(target_.c_str(), &status) != 0) return;
    [[maybe_unused]] const int done = ::fchmod(file_.descriptor(), status.st_mode & kRights);
}

Error OutputFile::writeError(int systemError) const {
    return Error::fromErrno(systemError, "cannot write " + target_.string());
}

Result<void> OutputFile::append(std::span<const std::uint8_t> bytes) {
    auto written = writeAt(size_, bytes);
    if (written) size_ += bytes.size();
    return written;
}

Result<void> OutputFile::append(std::string_view text) {
    return append(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

Result<void> OutputFile::writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    const Written written = lm::writeAt(file_.descriptor(), offset, bytes.data(), bytes.size());
    if (written.systemError != 0) return writeError(written.systemError);
    return {};
}

Result<void> OutputFile::commit() {
    if (const int failure = file_.close(); failure != 0) return writeError(failure);
    const auto existing = replace_ ? StagedFile::Existing::replaced : StagedFile::Existing::kept;
    const int failure = file_.place(target_, existing);
    if (failure == EEXIST && !replace_) return alreadyExists(target_);
    if (failure != 0) return Error::fromErrno(failure, "cannot create " + target_.string());
    return {};
}

}  // namespace lm::exporter
