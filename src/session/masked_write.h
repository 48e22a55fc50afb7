// The bits of an element that MODIFY_BITS is to set, so that those beside them stay as the ECU has them at
// that moment.
//
// Threads: pure functions; writeUnder() as its memory. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/ecu_address.h"
#include "session/ecu_memory.h"
#include "value/element.h"

namespace lm::session {

/// Bits of one aligned word of 32 bits, as the slave reads it.
struct MaskedWord {
    xcp::Address address;
    std::uint32_t mask = 0;  ///< which bits
    std::uint32_t bits = 0;  ///< what they become; none beside the mask
};

/// Whether a write changes some bits of an element and leaves others.
bool isMasked(const value::Element& element);

/// Which bytes and bits of an element a write changes.
std::vector<std::uint8_t> maskBytes(const value::Element& element);

/// `bytes` are the element's as they shall be. One result for each word with such bits.
std::vector<MaskedWord> maskedWords(const value::Element& element, std::span<const std::uint8_t> bytes,
                                    ByteOrder slaveOrder);

/// Whether two have the same bits where the mask has them; all three are as long.
bool sameBits(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b,
              std::span<const std::uint8_t> mask);

/// Writes bytes of which those bits count that the mask has: the others stay as the memory has them at that
/// moment where it can do that, else they become what they are in `bytes`. Errors: the memory's.
Result<void> writeUnder(IMemory& memory, const std::string& name, xcp::Address address,
                        const std::vector<std::uint8_t>& bytes, const std::vector<std::uint8_t>& mask);

}  // namespace lm::session
