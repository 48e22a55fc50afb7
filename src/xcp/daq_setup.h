// DAQ of the slave through a connection: a plan is written into lists that are allocated or stand ready;
// start and stop.
//
// Threads: any; each operation holds the line until it is done. Lifetime: the connection is borrowed and must
// outlive this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "xcp/connection.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// Where the first PIDs of the lists come from, which the decoder needs with absolute identification.
enum class FirstPids : std::uint8_t {
    told,     ///< from the slave's answers; the plan's own where it tells none
    planned,  ///< from the plan, whatever the slave tells
};

/// What of a plan the slave refused, beside the error that it gave as the reason.
struct DaqRefusal {
    std::optional<std::size_t> list = std::nullopt;  ///< into DaqPlan::lists
    std::optional<std::size_t> offset =
        std::nullopt;  ///< of the entry in the list's record, as in SignalPlace
};

/// START_STOP_SYNCH for all lists.
Packet buildStopAll();

class DaqSetup {
  public:
    explicit DaqSetup(Connection& connection) : connection_(connection) {}

    /// See Master, which hands these on.
    Result<std::vector<std::uint8_t>> configure(const DaqPlan& plan, FirstPids source, DaqRefusal& refusal);
    Result<void> start();
    Result<void> stop();

  private:
    using Turn = Connection::Turn;

    static Result<void> allocate(Turn& turn, const DaqPlan& plan);
    static Result<void> clear(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal);
    Result<void> writeLists(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal);
    Result<void> writeOdt(Turn& turn, std::uint16_t list, std::uint8_t number, const Odt& odt,
                          DaqRefusal& refusal);
    Result<bool> writeTogether(Turn& turn, const Odt& odt);
    static Result<void> setModes(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal);
    Result<std::vector<std::uint8_t>> select(Turn& turn, const DaqPlan& plan, FirstPids source);

    Connection& connection_;

    // Whoever holds the line.
    std::vector<Packet> selection_;  ///< the commands that selected the lists
    std::uint64_t withoutMultiple_ =
        0;  ///< the connection whose slave refused or did not answer WRITE_DAQ_MULTIPLE
};

}  // namespace lm::xcp
