// The whole simulated ECU without its medium: the world, its event schedule, the XCP slave, and what goes
// wrong on order. Time is the steady clock in nanoseconds and always an argument.
//
// Threads: one thread at a time. Lifetime: the options must live as long as the ECU.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "sim/faults.h"
#include "sim/options.h"
#include "sim/outbox.h"
#include "sim/slave.h"
#include "sim/world.h"

namespace lm::sim {

class Ecu {
  public:
    Ecu(const Options& options, FaultPlan faults, std::int64_t nowNs);
    Ecu(const Ecu&) = delete;
    Ecu& operator=(const Ecu&) = delete;

    /// One command packet; appends what is answered at once.
    void receive(std::span<const std::uint8_t> packet, std::int64_t nowNs, Outbox& out);

    /// Runs every event that is due, in the order of nominal times, and appends its DTOs and the answers
    /// whose delay is over. Returns false when a batch is full and more is due: send it and call again.
    bool advance(std::int64_t nowNs, Outbox& out);

    /// Carries out what a halt has left to be done, for the sake of the memory.
    void workOff(std::int64_t nowNs, Outbox& out);
    bool hasBacklog() const { return !backlog_.empty(); }

    /// When advance() has something to do next.
    std::int64_t nextDueNs() const;

    /// Power off and on: RAM, counters, clock, connection and DAQ configuration begin again.
    void restart(std::int64_t nowNs);
    /// How often it has started, 1 for an ECU that has never restarted.
    std::uint64_t starts() const { return starts_; }
    /// Hears and sends nothing until then.
    void silenceUntil(std::int64_t untilNs) { silentUntilNs_ = untilNs; }
    bool silent(std::int64_t nowNs) const { return nowNs < silentUntilNs_; }

    const World& world() const { return world_; }
    const Slave& slave() const { return slave_; }
    const Catalog& catalog() const { return catalog_; }
    /// For the medium, which does the faults of datagrams.
    FaultPlan& faults() { return faults_; }
    std::uint64_t commands() const { return commands_; }
    /// Of these, those with that code.
    std::uint64_t commands(std::uint8_t code) const { return commandsOfCode_[code]; }
    /// When it (last) started.
    std::int64_t startNs() const { return startNs_; }

  private:
    struct Delayed {
        std::int64_t dueNs;
        std::vector<std::uint8_t> packet;
        bool inOrder;  ///< answers that come after it wait for it
    };
    struct Waiting {
        std::vector<std::uint8_t> packet;
        Fault fault;
    };

    std::uint64_t ticks(std::int64_t ecuNs) const;
    std::int64_t ecuTime(std::int64_t hostNs) const;
    std::int64_t hostTime(std::int64_t ecuNs) const;
    void jump(std::uint32_t milliseconds, std::int64_t ecuNs);
    bool halted(std::int64_t nowNs) const { return nowNs < haltedUntilNs_; }
    void execute(std::span<const std::uint8_t> packet, const Fault& fault, std::int64_t nowNs, Outbox& out);
    void answerAll(const Fault& fault, std::int64_t nowNs, Outbox& out);
    void answer(std::span<const std::uint8_t> packet, const Fault& fault, std::int64_t nowNs, Outbox& out);
    void send(std::span<const std::uint8_t> packet, std::int64_t nowNs, Outbox& out);
    void delay(std::span<const std::uint8_t> packet, std::int64_t dueNs, bool inOrder);
    void sendDelayed(std::int64_t nowNs, Outbox& out);
    void runEvent(std::uint8_t event, std::int64_t nowNs, Outbox& out);
    std::uint8_t nextEvent() const;
    void onSampleFault(const Fault& fault, std::int64_t sampleNs, std::int64_t nowNs, Outbox& out);
    void terminate(Outbox& out);
    void silence(std::uint32_t milliseconds, std::int64_t nowNs);

    const Options& options_;
    FaultPlan faults_;
    Catalog catalog_;
    World world_;
    Slave slave_;
    std::int64_t startNs_;
    std::int64_t silentUntilNs_;
    std::int64_t lastCommandNs_ = 0;
    std::int64_t stalledUntilNs_;
    double drift_;                                   ///< nanoseconds that the ECU's clock gains per one
    double wanderNs_;                                ///< of the host, after which the drift turns round
    std::array<std::int64_t, kEventCount> dueNs_{};  ///< next nominal times, ECU time since its start
    std::int64_t tickNs_ = 1;
    std::uint64_t clockStart_ = 0;  ///< ticks that the clock would have shown at the start
    std::vector<Delayed> delayed_;  ///< ascending by time
    std::vector<std::vector<std::uint8_t>> overtaken_;  ///< answers that the next one overtakes
    std::deque<Waiting> backlog_;                       ///< commands that came during a halt
    std::int64_t haltedUntilNs_ = 0;
    std::int64_t backlogDueNs_ = 0;  ///< when the next of them is carried out
    std::int64_t pauseNs_ = 0;
    std::int64_t pendingEveryNs_ = 0;  ///< between EV_CMD_PENDING without end, 0: none
    std::int64_t pendingDueNs_ = 0;
    Outbox scratch_;
    std::uint64_t commands_ = 0;
    std::array<std::uint64_t, 256> commandsOfCode_{};
    std::uint64_t starts_ = 0;
};

}  // namespace lm::sim
