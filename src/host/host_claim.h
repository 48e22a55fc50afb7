// The right to be the program that holds an ECU and shares it, among the programs of one user.
//
// The right is a lock on a file that is named by the ECU's address; the system drops it however the program
// ends. The socket beside it belongs to who holds the lock, so one that an ended program left is simply
// replaced.
//
// Threads: one at a time. Lifetime: socket and presence go with the claim.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "core/result.h"
#include "core/unique_fd.h"
#include "host/presence.h"

namespace lm::host {

class HostClaim {
  public:
    /// Errors: alreadyOpen "PLACE is held by pid N (USER: COMMAND)"; those of runtimeFolder(), by errno
    /// "cannot create PATH: REASON": there is no sharing then.
    static Result<HostClaim> take(const Holder& holder);
    HostClaim(HostClaim&&) noexcept = default;
    HostClaim& operator=(HostClaim&&) = delete;
    /// Removes the socket while the lock is still held.
    ~HostClaim();

    const std::filesystem::path& socketPath() const { return socket_; }

  private:
    HostClaim(std::filesystem::path socket, UniqueFd lock)
        : socket_(std::move(socket)), lock_(std::move(lock)) {}

    std::filesystem::path socket_;
    UniqueFd lock_;
    std::optional<Presence> presence_;
};

/// Who of this user's programs holds the ECU, and where it listens.
struct FoundHost {
    Holder holder;
    std::filesystem::path socket;
};
/// Errors: those of runtimeFolder(). None: nobody.
Result<std::optional<FoundHost>> findHost(const std::string& place);

}  // namespace lm::host
