// What the simulated slave does about calibration pages, identification and checksums.
//
// Threads: one thread at a time. Lifetime: options, catalogue and world must live as long as it does.
#pragma once

#include <cstdint>
#include <optional>

#include "sim/answer.h"
#include "sim/options.h"
#include "sim/world.h"

namespace lm::sim {

/// Where UPLOAD, DOWNLOAD and BUILD_CHECKSUM begin.
struct MemoryPointer {
    std::uint8_t extension = 0;
    std::uint32_t address = 0;
};

class PageCommands {
  public:
    using Refusal = std::optional<Err>;

    PageCommands(const Options& options, const Catalog& catalog, World& world)
        : options_(options), catalog_(catalog), world_(world), pages_(world.pages()) {}

    /// Executes one that is known and long enough.
    Refusal execute(Packet packet, Answer& answer, MemoryPointer& pointer);
    /// Before a DOWNLOAD: the fault that switches pages behind the master's back.
    void beforeWrite();
    /// Bit 0 of the session status: pages are being stored. Asking for it is what time passes by.
    bool storing();

  private:
    Refusal identify(std::uint8_t type, Answer& answer, MemoryPointer& pointer);
    Refusal sumUp(std::uint32_t elements, Answer& answer, MemoryPointer& pointer);
    Refusal request(std::uint8_t mode);
    Refusal setPage(std::uint8_t mode, std::uint8_t segment, std::uint8_t page);
    Refusal getPage(std::uint8_t mode, std::uint8_t segment, Answer& answer) const;
    Refusal segmentInfo(Packet packet, Answer& answer) const;
    Refusal pageInfo(Packet packet, Answer& answer) const;
    Refusal copy(Packet packet);

    const Options& options_;
    const Catalog& catalog_;
    World& world_;
    Pages& pages_;
    int storingFor_ = 0;  ///< how many times the status is still told so
    bool switched_ = false;
};

}  // namespace lm::sim
