// Records that wait until more of them tell when the first was taken.
//
// At the start of a measurement no one knows how late the first packets are: an ECU that sends a bunch now
// and then delivers its first record last. And where the slave's clock wraps within what packets can be held
// up, one behind a silence may have been held, or its event may have paused: the next packets tell, which
// then come at once or at their usual pace.
//
// Threads: whoever decodes, one at a time. Lifetime: owns everything; memory is taken at construction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "xcp/daq_clock.h"

namespace lm::xcp {

/// A record whose time is not known yet.
struct UntimedRecord {
    std::uint32_t list = 0;  ///< index
    std::uint32_t raw = 0;   ///< timestamp
    std::int64_t receiveNs = 0;
    bool overload = false;
    bool regular = false;      ///< of a list whose cycle is short against the wrap of the slave's clock
    std::uint64_t ticks = 0;   ///< of the timestamp, once known
    std::size_t position = 0;  ///< of its bytes
};

class HeldRecords {
  public:
    enum class Reason : std::uint8_t { start, silence };

    explicit HeldRecords(std::size_t lists) : scouts_(lists) {
        records_.reserve(kMostRecords);
        bytes_.reserve(kMostBytes);
    }

    bool begun() const { return begun_; }
    void beginStart(std::int64_t receiveNs);
    /// A record of a regular list so far behind that its counter may have wrapped.
    void beginSilence(const UntimedRecord& first, const ListClock& list, const SlaveClock& clock);

    /// False when there is no room.
    bool add(const UntimedRecord& record, const std::uint8_t* data, std::size_t size);

    /// Whether the first of a silence need wait no longer, once `latest` has been added.
    bool enough(const UntimedRecord& latest, const SlaveClock& clock) const;
    /// The latest records came out of a backlog, which others may still come of.
    bool backlog() const { return backlog_; }
    void endBacklog() { backlog_ = false; }
    bool ofStart() const { return reason_ == Reason::start; }
    /// Whether they have waited long enough by then.
    bool due(std::int64_t nowNs) const { return nowNs - sinceNs_ >= limitNs_; }

    /// To be set to the clock of that list before findTicks().
    ListClock& scout(std::size_t list) { return scouts_[list]; }
    /// Finds the tick counts of all records; at a start it tells the clock what to expect.
    void findTicks(SlaveClock& clock);

    const std::vector<UntimedRecord>& records() const { return records_; }
    const std::uint8_t* bytes(const UntimedRecord& record) const { return bytes_.data() + record.position; }
    void clear();

  private:
    // A burst of this many still fits into the queue of whoever takes the records.
    static constexpr std::size_t kMostRecords = 8192;
    static constexpr std::size_t kMostBytes = std::size_t{512} << 10U;

    Reason reason_ = Reason::start;
    bool begun_ = false;
    bool backlog_ = false;
    std::int64_t sinceNs_ = 0;  ///< receive time of the first
    std::int64_t limitNs_ = 0;

    /// Whether the packets from that record on were held up; nothing when those there are do not tell.
    std::optional<bool> heldUp(std::size_t index, ListClock list, const SlaveClock& clock) const;

    ListClock list_;  ///< of a silence: the clock of the first record's list before it

    std::vector<UntimedRecord> records_;
    std::vector<std::uint8_t> bytes_;
    std::vector<ListClock> scouts_;
};

}  // namespace lm::xcp
