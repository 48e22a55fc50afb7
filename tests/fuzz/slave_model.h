// A slave in memory for fuzz targets: a transport whose other end answers each command rightly, and an input
// that says how the answers are lost, delayed, doubled, damaged or replaced, and when the whole slave halts.
//
// Threads: one, under a virtual clock. Lifetime: borrows the input and the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "support/model_slave.h"
#include "support/virtual_clock.h"
#include "xcp/transport.h"

namespace lm::fuzz {

constexpr std::int64_t kT1 = 100;  ///< milliseconds, of the master too

class SlaveModel final : public xcp::ITransport {
  public:
    SlaveModel(Input& input, test::VirtualClock& clock);

    void setSink(xcp::IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override { clock_.forget(); }
    std::size_t maxPacketSize() const override { return 254; }
    Result<void> send(const std::uint8_t* data, std::size_t length) override;

    /// A packet of the input comes now.
    void sendRaw();

    /// A byte of the slave's memory; addresses count bytes.
    std::uint8_t memory(std::uint32_t address) const { return slave_.memory(address); }

    std::uint64_t packets() const { return packets_; }  ///< both ways
    /// Every answer so far was the right one, in order, however late, once or never; and none to a CONNECT
    /// was under way at the next one: no one can tell the two apart.
    bool honest() const { return honest_; }
    /// Every answer so far was the right one, in order, however late; those to SYNCH once,
    /// others at least once; and none was under way at a CONNECT. Nor did it stand still for t1 beside
    /// answers that came twice: no one can tell such copies from answers.
    bool complete() const { return complete_; }

  private:
    void disturb(std::uint8_t kind, Bytes answer);
    void deliver(const Bytes& packet);
    /// Not before the answers that are on their way already.
    void answerIn(std::int64_t milliseconds, const Bytes& packet);

    Input& input_;
    test::VirtualClock& clock_;
    xcp::IPacketSink* sink_ = nullptr;
    test::ModelSlave slave_;
    bool honest_ = true;
    bool complete_ = true;
    bool doubled_ = false;
    bool stoodStill_ = false;
    std::int64_t connectAnsweredNs_ = 0;
    std::uint64_t packets_ = 0;
};

}  // namespace lm::fuzz
