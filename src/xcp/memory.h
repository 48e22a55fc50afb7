// The slave's memory through a connection: any length, split into the commands that fit its MAX_CTO.
//
// Threads: any; each operation holds the line until it is done. Lifetime: the connection is borrowed and must
// outlive this.
#pragma once

#include <atomic>
#include <chrono>
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
    /// Whether an upload that fits one answer is one command, as far as is known.
    bool usesShortUpload() const {
        return connection_.options().useShortUpload && withoutShortUpload_ != connection_.number();
    }
    /// Errors (invalidArgument) "download size must be a non-zero multiple of AG", and the connection's; what
    /// was written before a failure stays written.
    Result<void> download(Address address, std::span<const std::uint8_t> bytes);
    /// As upload() and download(), in block transfer as far as the slave has it and it saves commands. What
    /// it refuses so, or answers with too few packets, is read or written once more packet by packet, and
    /// after a refusal, silence or the third loss of a packet all else on this connection, too.
    Result<std::vector<std::uint8_t>> uploadBlocks(Address address, std::size_t size);
    Result<void> downloadBlocks(Address address, std::span<const std::uint8_t> bytes);
    /// Whether uploadBlocks() would use block transfer, as far as is known.
    bool readsBlocks() const;
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
    static constexpr std::size_t kMostElements = 255;  ///< of one command

    static Address advanced(Address address, std::size_t bytes) {
        return {address.address + static_cast<std::uint32_t>(bytes), address.extension};
    }
    static Result<void> point(Connection::Turn& turn, Address address);
    static std::size_t bytesPerDownload(const ConnectInfo& slave);
    Result<void> readPacket(Connection::Turn& turn, const Packet& command,
                            const std::function<Result<void>()>& beforeRepeat,
                            std::vector<std::uint8_t>& bytes);
    Result<std::vector<std::uint8_t>> readPackets(Connection::Turn& turn, Address address,
                                                  std::size_t elements);
    Result<std::vector<std::uint8_t>> readPlain(Connection::Turn& turn, Address address,
                                                std::size_t elements);

    // block_memory.cpp
    std::size_t elementsPerBlock(const ConnectInfo& slave) const;
    Result<bool> readParts(Connection::Turn& turn, Address address, std::size_t elements,
                           std::vector<std::uint8_t>& bytes);
    void judgeReadBlock(const Connection::Turn& turn, const TransferAnswer& block, std::size_t wanted);
    Result<void> learnWriteBlocks(Connection::Turn& turn);
    Result<bool> writeParts(Connection::Turn& turn, Address address, std::span<const std::uint8_t> bytes);

    // memory.cpp
    Result<void> writePlain(Connection::Turn& turn, Address address, std::span<const std::uint8_t> bytes);

    /// How blocks are written on one connection.
    struct WriteBlocks {
        std::uint64_t connection = 0;
        std::size_t bytes = 0;  ///< most in one, 0: there are none
        std::chrono::microseconds pause{0};
    };

    Connection& connection_;
    WriteBlocks writeBlocks_;                          ///< of a turn
    std::atomic<std::uint64_t> withoutReadBlocks_{0};  ///< the connection on which blocks failed
    std::uint64_t lossesOn_ = 0;                       ///< of a turn: the connection that lost packets of
    int losses_ = 0;                                   ///< so many blocks
    /// The connection on which the slave said that it has no SHORT_UPLOAD; they count from 1.
    std::atomic<std::uint64_t> withoutShortUpload_{0};
};

}  // namespace lm::xcp
