// What a change of an object is in bytes of the ECU: which bits of which bytes, as they were and as they
// become. It is what an undo file holds, and what takes a change back without knowing what the bytes mean.
//
// Threads: one at a time. Lifetime: the memory is borrowed for the call; results own everything.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "a2l/object_content.h"
#include "core/ecu_address.h"
#include "core/result.h"
#include "session/ecu_memory.h"

namespace lm::session {

/// Bytes side by side; all three are as long. Bits outside the mask belong to others.
struct BytePiece {
    xcp::Address address;
    std::vector<std::uint8_t> before;
    std::vector<std::uint8_t> after;
    std::vector<std::uint8_t> mask;
};

struct ObjectBytes {
    std::string name;
    std::vector<BytePiece> pieces;  ///< by address
};

/// Called when all is checked, before the first write, with what is about to change.
using BeforeWriting = std::function<void(const std::vector<ObjectBytes>&)>;

/// The bytes of a piece of memory that the image holds.
std::vector<std::uint8_t> bytesAt(const a2l::MemoryImage& image, const a2l::MemorySpan& span);

/// Called with the values of the object and the points that are its own, one after the other.
void forEachOwnElement(const a2l::PlacedObject& placed,
                       const std::function<void(const value::Element&)>& take);

/// What differs between what an object holds and what it shall.
ObjectBytes bytesOfChange(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted);

/// Likewise of one element, whose bytes these are; without pieces when its bits are the same.
ObjectBytes bytesOfChange(const value::Element& element, const std::vector<std::uint8_t>& before,
                          const std::vector<std::uint8_t>& after);

/// What the object shall be, of what it holds now. Error (protocolError): "NAME: changed meanwhile" when the
/// bits that shall change are not what they were.
Result<a2l::MemoryImage> changedNow(const ObjectBytes& change, const a2l::ObjectContent& now);

struct PutBack {
    enum class State : std::uint8_t {
        unchanged,  ///< it held what it did before
        restored,
        others,   ///< it holds bytes of neither, which stay
        unknown,  ///< see the error
    };

    std::string name;
    State state = State::unknown;
    std::optional<Error> error = {};
};

/// Gives the object what it held before, if it holds that, the change, or as much of both as a write leaves
/// that was cut off, and reads it back.
PutBack putBack(IMemory& memory, const ObjectBytes& change);

/// Whether all the changed bits are there. Errors: the memory's.
Result<bool> holdsChange(IMemory& memory, const ObjectBytes& change);

/// Gives the object the changed bits, whatever it holds, and reads them back. Returns the change from what
/// was there, without pieces when it held them already. Errors: the memory's, "NAME: read back value ...".
Result<ObjectBytes> writeAgain(IMemory& memory, const ObjectBytes& change);

}  // namespace lm::session
