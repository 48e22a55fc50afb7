// What a measurement's signals were last, at least and at most, and how many records their lists had: of all
// samples, cheaply enough for the thread that receives them.
//
// Threads: setPlan before the records, once; onRecord on the receive thread; copyTo from any, under a mutex
// that is held only to copy some bytes for each signal. Lifetime: nothing of the plan is kept.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "session/measurement_types.h"
#include "value/element.h"
#include "xcp/daq_decoder.h"

namespace lm::cli {

class SignalExtremes final : public xcp::IDaqRecordSink {
  public:
    using Bytes = std::array<std::uint8_t, 8>;

    /// The bytes as the ECU sent them: who shows them converts them.
    struct Signal {
        bool seen = false;    ///< `last` is set
        bool ranged = false;  ///< the others are: a sample was a number
        Bytes last = {};
        Bytes least = {};  ///< by the physical value, of texts by the raw one
        Bytes greatest = {};
    };
    struct List {
        std::uint64_t records = 0;
        std::int64_t firstNs = 0;  ///< when the first one was received, host steady clock
        std::int64_t lastNs = 0;
        std::int64_t beforeNs = 0;
    };
    struct Snapshot {
        std::vector<Signal> signals;  ///< as in MeasurementPlan::planned
        std::vector<List> lists;      ///< as in DaqPlan::lists
    };

    void setPlan(const session::MeasurementPlan& plan);
    void onRecord(const xcp::DaqRecord& record) override;
    void copyTo(Snapshot& snapshot) const;

  private:
    /// What tells which of two samples is less: one of both, always the same of a signal.
    struct Key {
        double number = 0;
        std::uint64_t integer = 0;  ///< of integers that a double does not hold

        bool operator<(const Key& other) const {
            return number < other.number || (number == other.number && integer < other.integer);
        }
    };
    struct Column {
        std::size_t signal = 0;
        std::size_t offset = 0;
        value::Element element = {};
        value::RawDecodeFunction decode = nullptr;
        bool isWide = false;      ///< compared as an integer
        bool isReversed = false;  ///< the least raw value is the greatest physical one
        bool isCurved = false;    ///< what the raw values' order is not known to tell: compared converted
        Key least = {};
        Key greatest = {};
    };

    static Column columnOf(const session::PlannedSignal& signal, std::size_t index);
    static Key keyOf(const Column& column, const std::uint8_t* bytes);
    static void add(Column& column, Signal& signal, const std::uint8_t* bytes);

    mutable std::mutex mutex_;                  // everything below
    std::vector<std::vector<Column>> columns_;  ///< by list
    Snapshot now_;
};

}  // namespace lm::cli
