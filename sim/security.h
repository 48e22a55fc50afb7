// Seed & key of the simulated slave: which groups of commands are locked, and how they are unlocked.
//
// The key of a seed, for a resource (bit of Resource): byte i is ((seed[i % seed size] ^ 0x5A) + resource +
// i) modulo 256.
//
// Threads: one thread at a time. Lifetime: the options must live as long as it does.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sim/options.h"
#include "sim/protocol.h"

namespace lm::sim {

std::vector<std::uint8_t> keyOf(std::span<const std::uint8_t> seed, std::uint8_t resource, std::size_t size);

class Security {
  public:
    using Refusal = std::optional<Err>;

    Security(const LockOptions& options, std::uint8_t maxCto);

    /// As after CONNECT: all that can be locked is, and no seed is open.
    void lockAll();
    /// What is told of the groups that are locked.
    std::uint8_t toldLocked() const { return options_.statusIsSilent ? std::uint8_t{0} : locked_; }
    /// Whether the command may be executed now; uses up a grant that serves one command alone.
    bool admit(std::uint8_t code);

    /// GET_SEED: mode 0 draws a new seed (an empty one for what is not locked), 1 goes on with it.
    Refusal requestSeed(std::uint8_t mode, std::uint8_t resource);
    /// What the answer tells: bytes to come (up to 255), this part included, and the part itself.
    std::uint8_t seedLeft() const { return static_cast<std::uint8_t>(seed_.size() - sent_); }
    std::vector<std::uint8_t> seedPart() const;
    void seedPartSent() { sent_ += seedPart().size(); }

    /// UNLOCK: `left` bytes of the key are to come, these included. accessLocked: the key was wrong.
    Refusal unlock(std::uint8_t left, std::span<const std::uint8_t> part);

  private:
    void forgetSeed();
    std::uint8_t resourceOf(std::uint8_t code) const;

    const LockOptions& options_;
    std::size_t room_;  ///< bytes of a seed or key in one packet
    std::uint8_t locked_ = 0;
    std::uint8_t resource_ = 0;  ///< that the seed is for, 0: none is open
    std::vector<std::uint8_t> seed_;
    std::size_t sent_ = 0;           ///< bytes of the seed that the master has
    std::size_t keySize_ = 0;        ///< as the first UNLOCK told, 0: none came
    std::vector<std::uint8_t> key_;  ///< what has come of it
};

}  // namespace lm::sim
