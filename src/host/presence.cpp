#include "host/presence.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/file_lock.h"
#include "core/file_write.h"
#include "core/printable_text.h"
#include "host/protocol.h"
#include "host/runtime_folder.h"

namespace lm::host {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "xcplumo-ecu-";
constexpr std::string_view kEnding = ".json";

/// The same for all users and programs, whatever TMPDIR says.
fs::path folder() {
    return "/tmp";
}

std::string prefixOf(const std::string& place) {
    return std::string(kPrefix) + fileNameOf(place) + "-";
}

/// Of a file that its owner holds the lock of.
std::optional<Holder> read(const fs::path& path, const std::string& place) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat about {};
    if (!file.valid() || ::fstat(file.get(), &about) != 0 || !S_ISREG(about.st_mode)) return std::nullopt;
    if (!isLockedForWriting(file.get())) return std::nullopt;
    std::array<char, 4096> bytes{};
    const ssize_t count = ::pread(file.get(), bytes.data(), bytes.size(), 0);
    if (count <= 0) return std::nullopt;
    const auto json = nlohmann::json::parse(bytes.data(), bytes.data() + count, nullptr, false);
    Holder holder{numberAt(json, "pid").value_or(0), userName(about.st_uid),
                  printableText(textAt(json, "command").value_or("")), textAt(json, "place").value_or("")};
    if (holder.place != place || holder.pid == ::getpid()) return std::nullopt;
    return holder;
}

}  // namespace

std::string Holder::text() const {
    return fmt::format("pid {} ({}: {})", pid, user, command);
}

Result<Presence> Presence::announce(const Holder& holder) {
    const fs::path path = folder() / fmt::format("{}{}{}", prefixOf(holder.place), holder.pid, kEnding);
    // What stands there is of a program that has ended, or of someone who may not be followed.
    ::unlink(path.c_str());
    constexpr mode_t kReadable = 0644;
    UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kReadable));
    if (!file.valid()) return Error::fromErrno(errno, "cannot create " + path.string());
    Presence presence(path, std::move(file));
    lockForWriting(presence.file_.get());
    ::fchmod(presence.file_.get(), kReadable);
    const nlohmann::json json = {{"pid", holder.pid}, {"command", holder.command}, {"place", holder.place}};
    using Json = nlohmann::json;
    const int failure =
        writeAll(presence.file_.get(), json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + path.string());
    return presence;
}

Presence::~Presence() {
    if (file_.valid()) ::unlink(path_.c_str());
}

std::optional<Holder> Presence::find(const std::string& place) {
    const std::string prefix = prefixOf(place);
    std::error_code failure;
    for (fs::directory_iterator at(folder(), failure), end; !failure && at != end; at.increment(failure)) {
        const std::string name = at->path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        if (auto holder = read(at->path(), place)) return holder;
    }
    return std::nullopt;
}

}  // namespace lm::host
