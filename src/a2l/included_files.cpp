#include "a2l/included_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/stoppable_input.h"

namespace lm::a2l {
namespace {

constexpr std::size_t kMaxIncludeDepth = 16;
constexpr std::size_t kMaxFiles = 1000;

Error refused(ErrorCode code, std::string message, int systemError = 0) {
    return Error{code, std::move(message), systemError, Error::kNoDetail};
}

Error unusable(const std::filesystem::path& path, const std::string& reason) {
    return refused(ErrorCode::invalidArgument, "included file " + path.string() + ": " + reason);
}

Error failed(const std::filesystem::path& path, int systemError) {
    return Error::fromErrno(systemError, "included file " + path.string());
}

std::string shown(const std::filesystem::path& directory) {
    return directory.empty() ? std::string("the directory of the A2L file") : directory.string();
}

}  // namespace

IncludedFiles::IncludedFiles(std::filesystem::path first, StopToken stop) : stop_(std::move(stop)) {
    open_.push_back({std::move(first), 0, 0});
}

void IncludedFiles::begin(const struct stat& status, std::size_t size) {
    open_.front().device = status.st_dev;
    open_.front().inode = status.st_ino;
    size_ = size;
}

// Files that were made on other systems name their parts with backslashes.
Result<std::filesystem::path> IncludedFiles::find(std::string_view name) const {
    std::string plain(name);
    std::replace(plain.begin(), plain.end(), '\\', '/');
    const std::filesystem::path beside = open_.back().path.parent_path();
    const std::filesystem::path first = open_.front().path.parent_path();
    for (const std::filesystem::path& directory : {beside, first}) {
        if (plain.find('\0') != std::string::npos) break;
        const std::filesystem::path path = (directory / plain).lexically_normal();
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0) return path;
        if (errno != ENOENT && errno != ENOTDIR) return failed(path, errno);
    }
    std::string message = "included file " + std::string(name) + " not found";
    if (plain.front() != '/') message += " in " + shown(beside);
    if (plain.front() != '/' && first != beside) message += " or in " + shown(first);
    return refused(ErrorCode::notFound, std::move(message), ENOENT);
}

Result<SourceTexts::Source> IncludedFiles::enter(std::string_view name) {
    if (open_.size() > kMaxIncludeDepth)
        return refused(ErrorCode::invalidArgument,
                       "included files are nested deeper than " + std::to_string(kMaxIncludeDepth));
    if (texts_.size() == kMaxFiles)
        return refused(ErrorCode::invalidArgument,
                       "more than " + std::to_string(kMaxFiles) + " included files");
    Result<std::filesystem::path> path = find(name);
    if (!path) return path.error();
    return read({std::move(path).value(), 0, 0});
}

Result<SourceTexts::Source> IncludedFiles::read(Open file) {
    struct stat status {};
    // Before it is opened, for what opening alone may do.
    if (::stat(file.path.c_str(), &status) != 0) return failed(file.path, errno);
    if (!S_ISREG(status.st_mode)) return unusable(file.path, "is not a regular file");
    const UniqueFd opened = openForReading(file.path);
    if (!opened.valid()) return failed(file.path, errno);
    if (::fstat(opened.get(), &status) != 0) return failed(file.path, errno);
    if (!S_ISREG(status.st_mode)) return unusable(file.path, "is not a regular file");
    file.device = status.st_dev;
    file.inode = status.st_ino;
    for (const Open& open : open_) {
        if (open.device == file.device && open.inode == file.inode)
            return unusable(file.path, "includes itself");
    }
    const std::size_t left = kMaxText - std::min(size_, kMaxText);
    const auto size = static_cast<std::size_t>(status.st_size);
    FileText& text = texts_.emplace_back(size > left ? 0 : size + FileText::kReadStep);
    const int failure = size > left ? EFBIG : text.read(opened.get(), left, stop_);
    if (failure == EFBIG)
        return refused(ErrorCode::invalidArgument,
                       "with the included file " + file.path.string() + " the text is larger than 2 GiB");
    if (failure != 0) return failed(file.path, failure);
    size_ += text.text().size();
    Source source{text.decoded(), file.path.string()};
    open_.push_back(std::move(file));
    return source;
}

}  // namespace lm::a2l
