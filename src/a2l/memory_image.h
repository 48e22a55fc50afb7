// Bytes of ECU memory by address, from whatever they were taken from: uploaded pieces, a file.
//
// Threads: one at a time. Lifetime: owns its bytes; pointers into them live until the next change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "core/ecu_address.h"
#include "core/result.h"

namespace lm::a2l {

/// A piece of ECU memory, which does not reach beyond 32 bits of address.
struct MemorySpan {
    xcp::Address address;
    std::size_t size = 0;

    std::uint64_t end() const { return std::uint64_t{address.address} + size; }
    friend bool operator==(const MemorySpan&, const MemorySpan&) = default;
};

/// Reads that many bytes of ECU memory, all of them or none.
using ReadMemory = std::function<Result<std::vector<std::uint8_t>>(xcp::Address, std::size_t)>;

/// Sorted; those that touch or overlap are one. A gap is bridged where that saves a packet of
/// `bytesPerPacket`; 0 bridges none.
std::vector<MemorySpan> merged(std::vector<MemorySpan> spans, std::size_t bytesPerPacket);

class MemoryImage {
  public:
    /// Adds bytes over what is already there.
    void add(xcp::Address address, std::span<const std::uint8_t> bytes);
    /// Reads the spans one after the other. Errors: the reader's, and protocolError when it gave fewer bytes.
    Result<void> load(std::span<const MemorySpan> spans, const ReadMemory& read);

    /// The bytes, or nullptr when not all of them are there.
    const std::uint8_t* at(xcp::Address address, std::size_t size) const;
    std::uint8_t* at(xcp::Address address, std::size_t size);

  private:
    using Key = std::pair<std::uint8_t, std::uint32_t>;  ///< extension, address
    std::map<Key, std::vector<std::uint8_t>> pieces_;    ///< none touches another
};

}  // namespace lm::a2l
