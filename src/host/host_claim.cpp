#include "host/host_claim.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/file_lock.h"
#include "core/file_write.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "host/protocol.h"
#include "host/runtime_folder.h"

namespace lm::host {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kOwner = 0600;

Holder holderIn(int descriptor, const std::string& place) {
    std::array<char, 4096> bytes{};
    const ssize_t count = ::pread(descriptor, bytes.data(), bytes.size(), 0);
    const auto json =
        nlohmann::json::parse(bytes.data(), bytes.data() + std::max<ssize_t>(count, 0), nullptr, false);
    return {numberAt(json, "pid").value_or(0), userName(::geteuid()),
            printableText(textAt(json, "command").value_or("")), place};
}

Result<void> writeHolder(int descriptor, const Holder& holder, const fs::path& path) {
    using Json = nlohmann::json;
    const Json json = {{"pid", holder.pid}, {"command", holder.command}};
    int failure = ::ftruncate(descriptor, 0) != 0 || ::lseek(descriptor, 0, SEEK_SET) != 0 ? errno : 0;
    if (failure == 0)
        failure = writeAll(descriptor, json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + path.string());
    return {};
}

}  // namespace

Result<HostClaim> HostClaim::take(const Holder& holder) {
    const auto folder = runtimeFolder(Make::yes);
    if (!folder) return folder.error();
    const fs::path base = folder.value() / fileNameOf(holder.place);
    const fs::path lockPath = base.string() + ".lock";
    UniqueFd lock;
    bool isMine = false;
    // Who held the lock before removes the file with it.
    do {
        lock = UniqueFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kOwner));
        if (!lock.valid()) return Error::fromErrno(errno, "cannot create " + lockPath.string());
        isMine = lockForWriting(lock.get());
    } while (isMine && !standsAt(lock.get(), lockPath));
    if (!isMine) {
        const Holder other = holderIn(lock.get(), holder.place);
        Error error{ErrorCode::alreadyOpen, fmt::format("{} is held by {}", holder.place, other.text())};
        error.hint =
            "get, set and others go through that program; --direct goes past it, which may end its "
            "measurement";
        return error;
    }
    HostClaim claim(base.string() + ".sock", lockPath, std::move(lock));
    if (auto written = writeHolder(claim.lock_.get(), holder, lockPath); !written) return written.error();
    if (::unlink(claim.socket_.c_str()) != 0 && errno != ENOENT)
        return Error::fromErrno(errno, "cannot remove " + claim.socket_.string());
    auto presence = Presence::announce(holder);
    if (presence) {
        claim.presence_.emplace(std::move(presence).value());
    } else {
        log::info("other users cannot see who holds the ECU: {}", presence.error().text());
    }
    return claim;
}

HostClaim::~HostClaim() {
    if (!lock_.valid()) return;
    ::unlink(socket_.c_str());
    ::unlink(lockPath_.c_str());
}

Result<std::optional<FoundHost>> findHost(const std::string& place) {
    const auto folder = runtimeFolder(Make::no);
    if (!folder && folder.error().sysErrno == ENOENT) return std::optional<FoundHost>();
    if (!folder) return folder.error();
    const fs::path base = folder.value() / fileNameOf(place);
    const std::string lockPath = base.string() + ".lock";
    const UniqueFd lock(::open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock.valid() || !isLockedForWriting(lock.get())) return std::optional<FoundHost>();
    return std::optional(FoundHost{holderIn(lock.get(), place), base.string() + ".sock"});
}

}  // namespace lm::host
