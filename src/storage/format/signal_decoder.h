// From the bytes of many records to the least and greatest physical value of one signal. The choice by data
// type, byte order, mask and conversion is made once, when the decoder is built; the loop over records only
// loads, converts and compares.
//
// Threads: immutable but for shareTable(). Lifetime: borrows the signal, which must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "storage/format/recording_info.h"
#include "value/raw_value.h"

namespace lm::storage {

/// An interval of physical values; as built it holds none.
struct ValueRange {
    double minimum = std::numeric_limits<double>::infinity();
    double maximum = -std::numeric_limits<double>::infinity();

    bool isEmpty() const { return minimum > maximum; }
};

class SignalDecoder {
  public:
    explicit SignalDecoder(const SignalInfo& signal);

    /// When both convert by the same table, this decoder reads the other's from now on: tables that are many
    /// signals' then stay in the processor's caches. True when it does. The other's signal must outlive this
    /// decoder too.
    bool shareTable(const SignalDecoder& other);
    bool hasTable() const { return pairs_ != nullptr; }

    /// Extends `range` by the values in `count` records that stand `stride` bytes apart; NaN values do not
    /// count. `records` points to the first byte of the first record, behind its timestamp.
    void extend(ValueRange& range, const std::uint8_t* records, std::size_t stride, std::size_t count) const {
        loop_(*this, range, records + offset_, stride, count);
    }

  private:
    struct Loops;
    using Loop = void (*)(const SignalDecoder&, ValueRange&, const std::uint8_t*, std::size_t, std::size_t);

    Loop loop_ = nullptr;
    std::uint32_t offset_ = 0;
    double factor_ = 1;
    double addend_ = 0;
    value::RawCoding coding_;
    value::IntegerField field_;
    value::RawDecodeFunction decode_ = nullptr;
    const value::Conversion* conversion_ = nullptr;
    const value::TablePairs* pairs_ = nullptr;  ///< of a table
};

}  // namespace lm::storage
