#include "host/runtime_folder.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

#include "core/printable_text.h"
#include "core/sha256.h"
#include "session/state_folder.h"

namespace lm::host {
namespace {

namespace fs = std::filesystem;

/// Made, or found as nobody else can have made it. Links are not followed.
Result<fs::path> ownFolder(fs::path folder) {
    constexpr mode_t kOwner = 0700;
    constexpr mode_t kOthers = 0077;
    if (::mkdir(folder.c_str(), kOwner) != 0 && errno != EEXIST)
        return Error::fromErrno(errno, "cannot create " + folder.string());
    struct stat found {};
    if (::lstat(folder.c_str(), &found) != 0) return Error::fromErrno(errno, "cannot use " + folder.string());
    const char* reason = nullptr;
    if (!S_ISDIR(found.st_mode)) reason = "it is no folder";
    if (found.st_uid != ::geteuid()) reason = "it belongs to another user";
    if (reason == nullptr && (found.st_mode & kOthers) != 0)
        reason = "others than its owner have rights in it";
    if (reason == nullptr) return folder;
    return Error{ErrorCode::permissionDenied, fmt::format("{} is not used: {}", folder.string(), reason)};
}

}  // namespace

Result<fs::path> runtimeFolder() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/') return ownFolder(fs::path(runtime) / "xcplumo");
    std::error_code failure;
    fs::path temporary = fs::temp_directory_path(failure);
    if (failure) temporary = "/tmp";
    return ownFolder(temporary / fmt::format("xcplumo-{}", ::geteuid()));
}

std::string fileNameOf(std::string_view place) {
    constexpr std::size_t kSum = 12;
    constexpr std::size_t kLetters = 40;  // the path of a socket has 107 bytes
    return session::fileNamePart(place.substr(0, kLetters)) + "-" + sha256Hex(place).substr(0, kSum);
}

std::string userName(unsigned uid) {
    std::vector<char> room(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &entry, room.data(), room.size(), &found) == 0 && found != nullptr)
        return entry.pw_name;
    return std::to_string(uid);
}

std::string commandOf(long long pid) {
    constexpr std::size_t kLongest = 200;
    std::ifstream file(fmt::format("/proc/{}/cmdline", pid), std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string> words;
    for (std::size_t at = 0; at < all.size(); at += words.back().size() + 1)
        words.emplace_back(all.c_str() + at);
    if (!words.empty()) words.front() = fs::path(words.front()).filename().string();
    std::string text = commandText(words);
    if (text.size() > kLongest) text = printableText(text.substr(0, kLongest)) + " ...";
    return text;
}

}  // namespace lm::host
