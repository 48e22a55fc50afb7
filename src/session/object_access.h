// Reads and writes whole objects of the ECU: curves, maps, blocks, texts, axes. What is told was certainly
// read from where it should be; what was written was read back.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: the memory is borrowed; what is
// returned owns everything.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "a2l/object_content.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/ecu_memory.h"

namespace lm::session {

/// What the ECU held in one of the pieces that a failed write meant to change.
struct HeldSpan {
    enum class State : std::uint8_t { before, after, other, unknown };

    a2l::MemorySpan span;
    State state = State::unknown;
    std::vector<std::uint8_t> bytes;  ///< none when unknown
};

struct ObjectWriteOutcome {
    Result<a2l::ObjectContent> content;         ///< as read back
    std::vector<a2l::MemorySpan> written = {};  ///< what had to change; nothing when all was so already
    /// Only when the write failed after the first command that can change memory.
    std::vector<HeldSpan> held = {};
};

class ObjectAccess {
  public:
    /// `stop` is that of the memory's waits.
    ObjectAccess(IMemory& memory, StopToken stop) : memory_(memory), stop_(std::move(stop)) {}

    /// Reads counts and pointers, then all bytes in as few packets as they need. Errors: those of
    /// a2l::readObject, the memory's.
    Result<a2l::ObjectContent> read(const a2l::Object& object);
    /// Not more than the element, and what it takes to find it. Errors: likewise, of a2l::readElement.
    Result<a2l::ObjectContent> readElement(const a2l::Object& object, const a2l::ChooseElement& choose);

    /// While it lives, reads find the bytes that are planned where the ECU still holds others, counts and
    /// pointers included. Nothing is to be written meanwhile. Borrows the access.
    class Assumed {
      public:
        explicit Assumed(ObjectAccess& access) : access_(access) {}
        ~Assumed() { access_.assumed_.clear(); }
        Assumed(const Assumed&) = delete;
        Assumed& operator=(const Assumed&) = delete;
        /// All in which the wanted bytes differ from what the object holds.
        void add(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted);

      private:
        ObjectAccess& access_;
    };

    /// What the memory shall be, of what the object holds: a2l::changed() and a2l::changedText() make it.
    using Change = std::function<Result<a2l::MemoryImage>(const a2l::ObjectContent&)>;

    /// Reads the object, writes the pieces that `change` makes differ, and reads the object back. A stop
    /// request that comes after the writing has begun waits for all of it. Errors: those of read() and
    /// `change`, the memory's, "NAME: stopped", "NAME: read back value differs from the written value",
    /// "NAME: its place or size changed meanwhile" when the wanted bytes are those of another place.
    ObjectWriteOutcome write(const a2l::Object& object, const Change& change);

  private:
    struct Piece {
        a2l::MemorySpan span;
        std::vector<std::uint8_t> bytes;
    };

    a2l::ReadMemory reader(const std::string& name);
    Result<a2l::ObjectContent> readUnconfirmed(const a2l::Object& object);
    Result<a2l::ObjectContent> download(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted,
                                        const std::vector<a2l::MemorySpan>& spans);
    std::vector<HeldSpan> held(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted,
                               const std::vector<a2l::MemorySpan>& spans);

    IMemory& memory_;
    const StopToken stop_;
    std::vector<Piece> assumed_;
};

}  // namespace lm::session
