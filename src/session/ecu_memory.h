// The seam between objects and where their bytes are: the memory of an ECU behind a master, or that of an
// image in a file.
//
// Threads: one at a time. Lifetime: see the implementations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "core/ecu_address.h"
#include "core/result.h"
#include "value/element.h"

namespace lm::session {

struct MemoryPiece {
    xcp::Address address;
    std::size_t size = 0;
};

class IMemory {
  public:
    virtual ~IMemory() = default;

    /// All of the bytes. `name` is that of what lies there, for errors. What was read is certain only within
    /// confirm().
    virtual Result<std::vector<std::uint8_t>> read(std::string_view name, xcp::Address address,
                                                   std::size_t size) = 0;
    virtual Result<void> write(std::string_view name, xcp::Address address,
                               std::span<const std::uint8_t> bytes) = 0;

    /// Whether writeBits() may be used, which leaves the bits beside those of an element as they are at that
    /// moment.
    virtual bool modifiesBits() const = 0;
    /// `bytes` are the element's as they shall be. False, with nothing written, when the memory turns out to
    /// have no such way; modifiesBits() is false from then on.
    virtual Result<bool> writeBits(const value::Element& element, const std::vector<std::uint8_t>& bytes) = 0;

    /// What `step` returns once everything that it read is certain; it may be run several times.
    virtual Result<void> confirm(const std::function<Result<void>()>& step) = 0;

    /// Before the first write of an operation.
    virtual Result<void> openForWriting() = 0;
    /// While the result lives, a stop lets all operations go on: for what must not be left half-way.
    [[nodiscard]] virtual std::shared_ptr<const void> finishing() = 0;

    /// These will be read next, one after the other: a hint.
    virtual void foresee(std::span<const MemoryPiece> /*pieces*/) {}

    /// A gap between bytes that are wanted is read along where that saves a packet of so many bytes; 0: none
    /// is.
    virtual std::size_t bytesPerPacket() const = 0;
};

/// IMemory::confirm() of a step with any result.
template <typename Step>
auto confirmed(IMemory& memory, const Step& step) -> decltype(step()) {
    std::optional<decltype(step())> result;
    const auto sure = memory.confirm([&]() -> Result<void> {
        result.emplace(step());
        if (!*result) return result->error();
        return {};
    });
    if (!sure) return sure.error();
    return std::move(*result);
}

}  // namespace lm::session
