// The protocol engine of the simulated XCP slave: a command packet in, an answer out. No I/O and no clock of
// its own: time is an argument.
//
// Threads: one thread at a time. Lifetime: options, catalogue, world and fault plan must live as long as the
// slave.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "sim/answer.h"
#include "sim/daq.h"
#include "sim/daq_commands.h"
#include "sim/options.h"
#include "sim/outbox.h"
#include "sim/page_commands.h"
#include "sim/protocol.h"
#include "sim/security.h"
#include "sim/world.h"

namespace lm::sim {

class Slave {
  public:
    Slave(const Options& options, const Catalog& catalog, World& world, FaultPlan& faults);

    /// Executes a command and appends its answer; before CONNECT everything else stays unanswered. `ticks` is
    /// the slave's clock.
    void command(std::span<const std::uint8_t> packet, std::uint64_t ticks, Outbox& out);

    /// Samples the running DAQ lists of an event.
    void sample(std::uint8_t event, std::uint64_t ticks, Outbox& out) { daq_.sample(event, ticks, out); }

    /// Forgets connection and DAQ configuration.
    void reset();
    bool connected() const { return connected_; }
    bool daqRunning() const { return daq_.running(); }
    /// How often memory was written by command.
    std::uint64_t writes() const { return writes_; }
    const DaqCounters& daqCounters() const { return daq_.counters(); }

  private:
    using Refusal = DaqLists::Refusal;

    Refusal execute(Packet packet, std::uint64_t ticks);
    Refusal executeSecurity(Packet packet);
    Refusal executeMemory(Packet packet);
    void connect();
    void clearPointers();
    void status();
    void commModeInfo();
    Refusal upload(std::size_t elements, bool inBlocks);
    void sendRestOfBlock(Outbox& out);
    Refusal download(Packet packet);
    Refusal modifyBits(Packet packet);
    /// To where the memory pointer stands.
    Refusal write(std::span<const std::uint8_t> bytes);

    const Options& options_;
    const Catalog& catalog_;
    World& world_;
    DaqLists daq_;
    DaqCommands daqCommands_;
    PageCommands pageCommands_;
    Security security_;
    Answer answer_;
    bool connected_ = false;
    MemoryPointer mta_;
    std::size_t toSend_ = 0;  ///< elements of the block that UPLOAD asked for
    std::size_t toCome_ = 0;  ///< elements that DOWNLOAD_NEXT is to bring
    std::uint64_t writes_ = 0;
};

}  // namespace lm::sim
