// The memory of an ECU, through the master.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: the master is borrowed.
#pragma once

#include "session/ecu_memory.h"
#include "xcp/master.h"

namespace lm::session {

struct MasterMemoryOptions {
    /// Where one address stands for several bytes, those around are read along; else such places are refused.
    bool wholeUnits = false;
    /// Elements with a bit mask are written by MODIFY_BITS, as long as the slave has it.
    bool modifiesBits = false;
    /// What takes several packets is written in block transfer, as far as the slave has it.
    bool writesBlocks = false;
};

/// IMemory::foresee() for reads that take one command each.
void foreseeReads(xcp::Master& master, std::span<const MemoryPiece> pieces);

/// Errors: those of xcp::Master::upload, download and modifyBits, and of xcp::inStep.
class MasterMemory final : public IMemory {
  public:
    MasterMemory(xcp::Master& master, MasterMemoryOptions options) : master_(master), options_(options) {}

    Result<std::vector<std::uint8_t>> read(std::string_view name, xcp::Address address,
                                           std::size_t size) override;
    Result<void> write(std::string_view name, xcp::Address address,
                       std::span<const std::uint8_t> bytes) override;
    bool modifiesBits() const override { return options_.modifiesBits; }
    Result<bool> writeBits(const value::Element& element, const std::vector<std::uint8_t>& bytes) override;
    Result<void> confirm(const std::function<Result<void>()>& step) override;
    Result<void> openForWriting() override;
    std::shared_ptr<const void> finishing() override;
    void foresee(std::span<const MemoryPiece> pieces) override { foreseeReads(master_, pieces); }
    std::size_t bytesPerPacket() const override;

  private:
    xcp::Master& master_;
    MasterMemoryOptions options_;
};

}  // namespace lm::session
