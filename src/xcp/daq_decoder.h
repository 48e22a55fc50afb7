// Takes DTOs apart: finds list and ODT, joins the ODTs of one sampling cycle into a record, gives it a time,
// counts every kind of loss, and hands complete records to a sink.
//
// Threads: onDto runs on one thread, the transport's receive thread; setSink, holdBack and the constructor
// before the decoder is installed at the master; counters() and settle() from any thread. The sink is called
// on the receive thread, or, for records that were held back, inside settle(), never on two at a time. onDto
// allocates nothing, and takes a lock only while records are held back and a few times a second. Lifetime:
// the plan and the capabilities are copied as far as needed; the sink is borrowed and must outlive the last
// onDto; the bytes of a record are valid during the sink's call only.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "xcp/clock_fit.h"
#include "xcp/counter.h"
#include "xcp/daq_clock.h"
#include "xcp/daq_plan.h"
#include "xcp/dto_fit.h"
#include "xcp/held_records.h"
#include "xcp/transport.h"

namespace lm::xcp {

/// Receives every DTO (packets whose first byte is below 0xFC) on the transport's receive thread. It must
/// neither issue a command of the master nor wait for one.
class IDtoSink {
  public:
    virtual ~IDtoSink() = default;
    virtual void onDto(const std::uint8_t* data, std::size_t length, ReceiveTime time) = 0;
};

/// One complete sampling cycle of one DAQ list.
struct DaqRecord {
    std::uint16_t listNumber = 0;    ///< as on the wire
    std::size_t listIndex = 0;       ///< in DaqPlan::lists
    std::int64_t receiveTimeNs = 0;  ///< of the record's first DTO, host steady clock
    std::int64_t slaveTimeNs = 0;    ///< the slave's timestamp on the host steady clock, if hasSlaveTime
    bool hasSlaveTime = false;
    bool overload = false;               ///< the slave signalled an overload since the list's last record
    const std::uint8_t* data = nullptr;  ///< ODT payloads back to back
    std::size_t size = 0;

    /// The best time there is, host steady clock.
    std::int64_t timeNs() const { return hasSlaveTime ? slaveTimeNs : receiveTimeNs; }
};

class IDaqRecordSink {
  public:
    virtual ~IDaqRecordSink() = default;
    virtual void onRecord(const DaqRecord& record) = 0;
};

struct DaqDecoderCounters {
    std::uint64_t dtos = 0;
    std::uint64_t records = 0;
    std::uint64_t lostOdts = 0;
    std::uint64_t incompleteRecords = 0;
    std::uint64_t missedCycles = 0;
    std::uint64_t overloads = 0;
    std::uint64_t unknownDtos = 0;
    std::uint64_t malformedDtos = 0;
};

class DaqDecoder final : public IDtoSink {
  public:
    /// `firstPids` is what Master::configureDaq returned for the plan: the first absolute PID of each list.
    /// It matters with absolute identification only; when empty, the plan's own PIDs hold.
    DaqDecoder(const DaqPlan& plan, const DaqCapabilities& capabilities,
               std::span<const std::uint8_t> firstPids = {});

    void setSink(IDaqRecordSink* sink) { sink_ = sink; }
    /// A count of the places where the line is known to have lost packets, raised on the receive thread
    /// before the first packet behind such a place. No record is joined across one. Borrowed.
    void setHoles(const std::atomic<std::uint64_t>* holes) {
        holes_ = holes;
        holesSeen_ = holes->load();
    }
    /// Looks at the DTOs for as long as it wants to. Borrowed.
    void setFit(DtoFit* fit) { fit_ = fit; }
    /// From now on records whose time is uncertain are handed on some time later, in order, once those that
    /// follow have told it (see HeldRecords). Needs calls of settle() lest none follow.
    void holdBack();
    /// Hands on what has been held back for long enough by `nowNs` on the host's steady clock.
    void settle(std::int64_t nowNs);

    void onDto(const std::uint8_t* data, std::size_t length, ReceiveTime time) override;
    /// What is held back counts as received.
    DaqDecoderCounters counters() const;
    /// How the slave's clock ran so far, from any thread; none without timestamps, and in the first moments.
    std::optional<ClockFigures> clockFigures() const { return clockFit_.figures(); }
    /// Records of DaqPlan::lists[index].
    std::uint64_t recordsOf(std::size_t index) const { return lists_[index].records.get(); }

  private:
    struct OdtLayout {
        std::uint32_t payloadSize;
        std::uint32_t recordOffset;
    };
    struct List {
        std::uint16_t number = 0;
        bool timestamp = false;
        bool mayHide = false;  ///< a silence may hide wraps of the timestamp's counter from a regular event
        bool hasPrevious = false;  ///< `previousNs` is set
        bool overload = false;
        std::uint32_t clockGeneration = 0;  ///< SlaveClock's at the last record
        std::uint32_t nextOdt = 0;          ///< 0: no record is open
        std::int64_t periodNs = 0;          ///< between two records, 0 when not cyclic
        std::int64_t receiveNs = 0;         ///< of the open record
        std::uint32_t raw = 0;              ///< and its timestamp
        std::int64_t previousNs = 0;
        ListClock clock = {};
        Counter records = {};  ///< read by any thread
        std::vector<OdtLayout> odts = {};
        std::vector<std::uint8_t> record = {};
    };
    struct PidEntry {
        std::uint16_t list = 0;
        std::uint8_t odt = 0;
        bool valid = false;
    };
    struct Place {
        List* list;
        std::uint32_t odt;
    };

    void decode(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    void examine(const std::uint8_t* data, std::size_t length, const Place& place, std::int64_t hostNs);
    void numberLists();
    void numberPids(const DaqPlan& plan, std::span<const std::uint8_t> firstPids);
    Place find(const std::uint8_t* data, std::uint8_t pid);
    bool beginRecord(List& list, const std::uint8_t* data, std::size_t length, std::int64_t receiveNs);
    void abandon(List& list, std::uint64_t lostOdts);
    void endOpenRecords();
    void finishRecord(List& list);
    std::uint64_t ticksOf(const List& list) const;
    bool late(const List& list) const;
    bool holding() const { return holding_.load(std::memory_order_relaxed); }
    bool heldBack(const List& list, const UntimedRecord& record);
    void release();
    void deliver(const UntimedRecord& record, const std::uint8_t* data);
    void checkCycle(List& list, std::int64_t timeNs);

    // Constant after construction (the sink: after installation).
    DaqIdentification identification_;
    std::uint8_t identificationSize_;
    std::uint8_t timestampSize_;
    bool overloadInPid_;
    std::uint16_t firstListNumber_ = 0;
    std::vector<std::uint16_t> listsByNumber_ = {};  ///< from firstListNumber_ on: indices of lists_
    std::array<PidEntry, 256> pids_ = {};
    IDaqRecordSink* sink_ = nullptr;
    const std::atomic<std::uint64_t>* holes_ = nullptr;
    DtoFit* fit_ = nullptr;

    // Receive thread only; while records are held back, under holdMutex_.
    std::uint64_t holesSeen_ = 0;
    SlaveClock clock_;
    ClockFit clockFit_;
    std::vector<List> lists_;
    std::unique_ptr<HeldRecords> held_;  ///< none without holdBack()

    std::atomic<bool> holding_{false};
    std::mutex holdMutex_;

    // Written by the receive thread.
    Counter dtos_, lostOdts_, incompleteRecords_, missedCycles_, overloads_, unknownDtos_, malformedDtos_;
};

}  // namespace lm::xcp
