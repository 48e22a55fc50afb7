// Who holds an ECU, for all users of the machine to read: a small file among the temporary files, locked by
// the program that holds the ECU for as long as it lives. What others put there is believed as far as the
// system vouches for it: the owner of the file, and that the lock is held.
//
// Threads: pure functions; a Presence belongs to one thread at a time. Lifetime: the file goes with the
// Presence.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm::host {

/// Of a program that holds an ECU.
struct Holder {
    std::int64_t pid = 0;
    std::string user;
    std::string command;
    std::string place;  ///< the ECU's address, see session::MediumTexts

    /// "pid 4711 (alice: xcplumo-cli measure)"
    std::string text() const;
};

class Presence {
  public:
    /// Errors: by errno "cannot create PATH: REASON".
    static Result<Presence> announce(const Holder& holder);
    Presence(Presence&& other) noexcept = default;
    Presence& operator=(Presence&&) = delete;
    ~Presence();

    /// A program other than this one that lives and holds the ECU.
    static std::optional<Holder> find(const std::string& place);

  private:
    Presence(std::filesystem::path path, UniqueFd file) : path_(std::move(path)), file_(std::move(file)) {}

    std::filesystem::path path_;
    UniqueFd file_;
};

}  // namespace lm::host
