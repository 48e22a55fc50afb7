// The DAQ commands of the simulated slave: from their packets to its lists, and what it tells about them.
//
// Threads: one thread at a time. Lifetime: options, catalogue and lists must live as long as it does.
#pragma once

#include <cstdint>

#include "sim/answer.h"
#include "sim/catalog.h"
#include "sim/daq.h"
#include "sim/options.h"

namespace lm::sim {

class DaqCommands {
  public:
    using Refusal = DaqLists::Refusal;

    DaqCommands(const Options& options, const Catalog& catalog, DaqLists& lists)
        : options_(options), catalog_(catalog), lists_(lists) {}

    /// Executes one that is known and long enough. `ticks` is the slave's clock.
    Refusal execute(Packet packet, std::uint64_t ticks, Answer& answer);

  private:
    Refusal allocate(Packet packet, const Answer& answer);
    Refusal configure(Packet packet, const Answer& answer);
    Refusal writeMultiple(Packet packet, const Answer& answer);
    Refusal run(Packet packet, Answer& answer);
    Refusal identify(Packet packet, Answer& answer);
    Refusal tell(Packet packet, std::uint64_t ticks, Answer& answer);
    void processorInfo(Answer& answer) const;
    void resolutionInfo(Answer& answer) const;
    Refusal eventInfo(std::uint16_t event, Answer& answer) const;
    Refusal listInfo(std::uint16_t list, Answer& answer) const;
    Refusal listMode(std::uint16_t list, Answer& answer) const;
    Refusal readEntry(Answer& answer);

    const Options& options_;
    const Catalog& catalog_;
    DaqLists& lists_;
};

}  // namespace lm::sim
