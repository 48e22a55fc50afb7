#include "serve/layouts.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "core/durable_file.h"
#include "core/stop_token.h"
#include "core/whole_file.h"
#include "http/target.h"

namespace lm::serve {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostBytes = 256U << 10U;
constexpr std::size_t kMostLayouts = 1000;
constexpr std::size_t kDepth = 32;
constexpr std::string_view kEnding = ".json";
/// Names have no dot, so that it is none.
constexpr const char* kLastFile = ".last";

bool isLayoutName(std::string_view name) {
    constexpr std::size_t kMostName = 64;
    return !name.empty() && name.size() <= kMostName && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '_';
    });
}

bool isPlainFile(const fs::path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type() == fs::file_type::regular;
}

Error layoutError(int systemError) {
    if (systemError != EACCES && systemError != EROFS && systemError != EPERM)
        return Error::fromErrno(systemError, "cannot keep the layout");
    Error error{ErrorCode::permissionDenied, "the folder of the recordings cannot be written to"};
    error.hint = "the page keeps the layout as long as it is open";
    return error;
}

}  // namespace

Layouts::Layouts(const fs::path& folder) : folder_(folder.empty() ? fs::path() : folder / kLayoutsFolder) {}

Result<fs::path> Layouts::pathOf(const std::string& name) const {
    if (!kept()) {
        return Error{ErrorCode::unsupported, "this server keeps no layouts (`serve --recordings DIR`)"};
    }
    if (!isLayoutName(name)) {
        return Error{ErrorCode::invalidArgument,
                     "the name of a layout has letters, digits, '-' and '_', 64 at most"};
    }
    // Behind a link lies what is not this server's.
    std::error_code ignored;
    const fs::file_type type = fs::symlink_status(folder_, ignored).type();
    if (type != fs::file_type::directory && type != fs::file_type::not_found)
        return Error{ErrorCode::permissionDenied, folder_.string() + " is no folder"};
    return folder_ / (name + std::string(kEnding));
}

nlohmann::json Layouts::list() const {
    std::vector<std::string> names;
    std::error_code failure;
    if (kept() && fs::symlink_status(folder_, failure).type() == fs::file_type::directory) {
        for (fs::directory_iterator at(folder_, failure), end; !failure && at != end; at.increment(failure)) {
            const fs::path path = at->path();
            const std::string name = path.stem().string();
            if (path.extension() == kEnding && isLayoutName(name) && isPlainFile(path)) names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    const std::string lastOne = last();
    const bool isThere = std::binary_search(names.begin(), names.end(), lastOne);
    return {{"layouts", names}, {"last", isThere ? nlohmann::json(lastOne) : nlohmann::json()}};
}

std::string Layouts::last() const {
    const fs::path path = folder_ / kLastFile;
    if (!kept() || !isPlainFile(path)) return {};
    const Result<std::string> text = readWholeFile(path, kMostBytes, {});
    return text ? text.value() : std::string();
}

Result<std::string> Layouts::read(const std::string& name) const {
    const Result<fs::path> path = pathOf(name);
    if (!path) return path.error();
    if (!isPlainFile(path.value()))
        return Error{ErrorCode::notFound, fmt::format("there is no layout '{}'", name)};
    return readWholeFile(path.value(), kMostBytes, {});
}

Result<void> Layouts::makeFolder() const {
    std::error_code failure;
    fs::create_directory(folder_, failure);
    if (failure) return layoutError(failure.value());
    return {};
}

Result<void> Layouts::write(const std::string& name, const std::string& text) {
    const Result<fs::path> path = pathOf(name);
    if (!path) return path.error();
    if (text.size() > kMostBytes) return Error{ErrorCode::invalidArgument, "a layout has 256 KiB at most"};
    const Result<nlohmann::json> layout = http::parseBody(text, kDepth);
    if (!layout) return layout.error();
    if (layout.value().value("schema", 0) != 1)
        return Error{ErrorCode::invalidArgument, "a layout has \"schema\": 1"};
    const std::lock_guard lock(mutex_);
    if (Result<void> made = makeFolder(); !made) return made;
    if (!isPlainFile(path.value()) && list()["layouts"].size() >= kMostLayouts)
        return Error{ErrorCode::invalidArgument, fmt::format("there are {} layouts already", kMostLayouts)};
    for (const auto& [file, content] :
         {std::pair(path.value(), text), std::pair(folder_ / kLastFile, name)}) {
        StagedFile staged;
        int failure = staged.createBeside(file);
        if (failure == 0) failure = staged.write(content);
        if (failure == 0) failure = staged.place(file, StagedFile::Existing::replaced);
        if (failure != 0) return layoutError(failure);
    }
    return {};
}

Result<void> Layouts::remove(const std::string& name) {
    const Result<fs::path> path = pathOf(name);
    if (!path) return path.error();
    const std::lock_guard lock(mutex_);
    if (!isPlainFile(path.value()))
        return Error{ErrorCode::notFound, fmt::format("there is no layout '{}'", name)};
    std::error_code failure;
    fs::remove(path.value(), failure);
    if (failure) return layoutError(failure.value());
    return {};
}

}  // namespace lm::serve
