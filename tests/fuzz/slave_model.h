// A slave in memory for fuzz targets: a transport whose other end answers each command rightly, and an input
// that says how the answers are lost, delayed, doubled, damaged or replaced.
//
// Threads: one, under a virtual clock. Lifetime: borrows the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "fuzz_input.h"
#include "xcp/packet.h"
#include "xcp/transport.h"

namespace lm::fuzz {

class SlaveModel final : public xcp::ITransport {
  public:
    explicit SlaveModel(Input& input);
    ~SlaveModel() override;

    void setSink(xcp::IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override { coming_.clear(); }
    std::size_t maxPacketSize() const override { return 254; }
    Result<void> send(const std::uint8_t* data, std::size_t length) override;

    /// A packet of the input comes now.
    void sendRaw();

    /// A byte of the slave's memory; addresses count bytes.
    std::uint8_t memory(std::uint32_t address) const;

    /// A little less than a timeout and as long again, for which the master promises to wait.
    static constexpr std::int64_t kLatestNs = 190'000'000;

    std::uint64_t packets() const { return packets_; }  ///< both ways
    /// Every answer so far was the right one, in order, once or never, and by kLatestNs late at most. (Of two
    /// answers to one command the second cannot be told from the next command's when that one's is lost.)
    bool honest() const { return honest_; }
    /// Every answer so far was the right one, in order, by kLatestNs late at most; those to SYNCH once,
    /// others at least once; and none was under way at a CONNECT.
    bool complete() const { return complete_; }

  private:
    Bytes answer(std::span<const std::uint8_t> command);
    Bytes read(std::size_t elements);
    void disturb(std::uint8_t kind, Bytes answer);
    void deliver(const Bytes& packet);
    /// Not before the answers that are on their way already.
    void answerIn(std::int64_t milliseconds, const Bytes& packet);

    Input& input_;
    xcp::IPacketSink* sink_ = nullptr;
    ByteOrder order_;
    std::size_t granularity_;
    std::uint8_t maxCto_;
    std::uint16_t maxDto_;
    std::uint32_t mta_ = 0;
    bool mtaIsName_ = false;
    bool honest_ = true;
    bool complete_ = true;
    std::uint64_t packets_ = 0;
    std::unordered_map<std::uint32_t, std::uint8_t> written_;  ///< by address
    std::multimap<std::int64_t, Bytes> coming_;                ///< by time
};

}  // namespace lm::fuzz
