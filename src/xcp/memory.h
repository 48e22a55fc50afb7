// The slave's memory through a connection: any length, split into the commands that fit its MAX_CTO.
//
// Threads: any; each operation holds the line until it is done. Lifetime: the connection is borrowed and must
// outlive this.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "xcp/connection.h"

namespace lm::xcp {

class Memory {
  public:
    explicit Memory(Connection& connection) : connection_(connection) {}

    /// `size` bytes. Errors (invalidArgument) "upload size must be a non-zero multiple of AG",
    /// (protocolError) "UPLOAD response shorter than requested", and the connection's.
    Result<std::vector<std::uint8_t>> upload(Address address, std::size_t size);
    /// Errors (invalidArgument) "download size must be a non-zero multiple of AG", and the connection's; what
    /// was written before a failure stays written.
    Result<void> download(Address address, std::span<const std::uint8_t> bytes);
    /// The bits of `mask` in the word of 32 bits at an address become those of `bits`, up to 16 side by side
    /// in one step of the slave (MODIFY_BITS). Errors: the connection's.
    Result<void> modifyBits(Address address, std::uint32_t mask, std::uint32_t bits);
    Result<void> setMta(Address address);

    /// Address elements that an answer to UPLOAD or SHORT_UPLOAD holds.
    static std::size_t elementsPerResponse(const ConnectInfo& slave);
    /// Appends the data of an answer to UPLOAD or SHORT_UPLOAD of `elements` to `bytes`.
    static Result<void> append(const Packet& answer, std::size_t elements, const ConnectInfo& slave,
                               std::vector<std::uint8_t>& bytes);
    /// Bytes of such an answer.
    static std::size_t answerLength(std::size_t elements, const ConnectInfo& slave);

  private:
    Result<void> readBlock(Connection::Turn& turn, const Packet& command,
                           const std::function<Result<void>()>& beforeRepeat,
                           std::vector<std::uint8_t>& bytes);
    Result<std::vector<std::uint8_t>> readBlocks(Connection::Turn& turn, Address address,
                                                 std::size_t elements);

    Connection& connection_;
    /// The connection on which the slave said that it has no SHORT_UPLOAD; they count from 1.
    std::atomic<std::uint64_t> withoutShortUpload_{0};
};

}  // namespace lm::xcp
