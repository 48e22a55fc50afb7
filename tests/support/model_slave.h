// The slave's side of the commands that masters are tested with, in memory: memory with an MTA, two event
// channels with a name of several blocks, dynamic DAQ lists that refuse what is out of order.
//
// Threads: one. Lifetime: owns all.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "core/bytes.h"
#include "xcp/packet.h"

namespace lm::test {

class ModelSlave {
  public:
    using Bytes = std::vector<std::uint8_t>;
    using Entry = std::tuple<unsigned, unsigned, unsigned>;  ///< list, ODT, entry

    static constexpr std::string_view kEventName = "10 ms raster";
    static constexpr std::uint16_t kEvents = 2;
    static constexpr std::uint8_t kMostPackets = 3;

    ByteOrder order = ByteOrder::littleEndian;
    std::size_t granularity = 1;
    std::uint8_t maxCto = 8;
    std::uint16_t maxDto = 8;
    bool synchClearsPointers = false;
    bool blocks = false;  ///< block transfer both ways, writing in up to kMostPackets
    /// How SYNCH is answered; empty: not at all.
    Bytes synchAnswer = {xcp::kPidError, xcp::kErrCmdSynch};

    std::uint8_t memory(std::uint32_t address) const {
        const auto found = written.find(address);
        return found != written.end() ? found->second
                                      : static_cast<std::uint8_t>(address * 31 ^ address >> 8U);
    }
    std::unordered_map<std::uint32_t, std::uint8_t> written;  ///< by address
    std::map<Entry, std::uint32_t> entries;                   ///< addresses of the DAQ configuration
    bool running = false;

    /// Empty: no answer.
    Bytes answer(std::span<const std::uint8_t> command);
    /// What else answers that command.
    std::vector<Bytes> more;

  private:
    Bytes read(std::size_t elements);
    Bytes readBlock(std::size_t elements);
    Bytes write(std::span<const std::uint8_t> command);
    Bytes allocate(std::span<const std::uint8_t> command);
    std::uint16_t word(std::span<const std::uint8_t> command, std::size_t place) const {
        return place + 2 <= command.size() ? readBytes<std::uint16_t>(&command[place], order)
                                           : std::uint16_t{0};
    }
    Bytes packet(Bytes bytes, std::size_t place, std::uint16_t value) const;

    std::uint32_t mta_ = 0;
    std::size_t toCome_ = 0;  ///< elements by DOWNLOAD_NEXT
    bool mtaIsName_ = false;
    Entry pointer_ = {};
    std::vector<std::vector<unsigned>> lists_;  ///< entries of each ODT
    bool freed_ = false;
};

}  // namespace lm::test
