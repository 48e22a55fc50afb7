// Reads and writes what objects of the ECU hold. What is told was certainly read from where it should be, and
// what was written was read back.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: the memory is borrowed; what is
// returned owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/ecu_memory.h"
#include "session/object_bytes.h"
#include "value/element.h"

namespace lm::session {

/// What an element holds: its bytes, which give the raw value, the physical one and the text.
struct Reading {
    value::Element element;
    std::vector<std::uint8_t> bytes;

    value::Value raw() const { return value::rawValue(element, bytes.data()); }
    value::Value physical() const { return value::physicalValue(element, raw()); }
};

struct ReadOutcome {
    std::vector<Result<Reading>> values;
    bool confirmed = true;  ///< else no value is certain, and all of them are errors
};

/// What became of a write.
struct WriteOutcome {
    Result<Reading> value;  ///< as read back
    /// Only when the write failed after the first command that can change memory: what the ECU held then.
    std::optional<Result<Reading>> held = {};
    // Of a write that was tried: what was asked for, the bytes that it became, and those that were there.
    value::Value asked = {};
    std::vector<std::uint8_t> written = {};  ///< none when it failed
    std::vector<std::uint8_t> before = {};
};

class ValueAccess {
  public:
    /// `stop` is that of the memory's waits.
    ValueAccess(IMemory& memory, StopToken stop) : memory_(memory), stop_(std::move(stop)) {}

    /// Which element is read as the N-th one, or why none is.
    using ElementSource = std::function<Result<value::Element>(std::size_t index)>;

    /// Reads `count` elements in their order, until a twentieth of a second has passed or a stop was
    /// requested, and at least the first: one result for each that was read. Errors of a value: the source's,
    /// the memory's.
    ReadOutcome read(std::size_t count, const ElementSource& source);

    /// Writes a physical value, compares what the ECU then holds, and reads the value once more. A stop
    /// request that comes after the writing has begun waits for all of it. Errors: those of
    /// value::encodePhysical, the memory's, "NAME: stopped", "NAME: read back value differs from the written
    /// value".
    WriteOutcome write(const value::Element& element, const value::Value& physical,
                       const BeforeWriting& beforeWriting = {});

    /// Reads one element. Errors: the memory's.
    Result<Reading> read(const value::Element& element);

  private:
    /// The first elements from there on, of which the memory is told that they will be read.
    std::vector<Result<value::Element>> elementsAhead(std::size_t first, std::size_t count,
                                                      const ElementSource& source);
    Result<Reading> readUnconfirmed(value::Element element);
    Result<void> store(const value::Element& element, const std::vector<std::uint8_t>& bytes);
    Result<Reading> download(const value::Element& element, const std::vector<std::uint8_t>& bytes);

    IMemory& memory_;
    const StopToken stop_;
};

}  // namespace lm::session
