// Where the signals of a group stand in the records of an MDF file, and how a stored record becomes one.
//
// A stored record is a timestamp and the bytes of the ECU, so it is a record of MDF as it lies, but for the
// origin of its time, when all its signals are exported and MDF can express each of them. Otherwise the
// records are packed again.
//
// Threads: immutable. Lifetime: borrows the ExportGroup and its signals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"
#include "exporter/mf4_conversion.h"

namespace lm::exporter {

struct Mf4Channel {
    const storage::SignalInfo* signal = nullptr;
    std::string name;
    Mf4Conversion conversion;
    bool isRawBeside = false;      ///< the raw values of the channel before, which holds physical ones
    std::uint8_t dataType = 0;     ///< of MDF
    std::uint8_t bitOffset = 0;    ///< 0 to 7
    std::uint32_t byteOffset = 0;  ///< in the record of MDF
    std::uint32_t bitCount = 0;
};

class Mf4Layout {
  public:
    /// Times count from `startNs`: a double holds the nanoseconds of a measurement, but not those since the
    /// host was switched on. Errors: unsupported "GROUP: record too large for MDF".
    static Result<Mf4Layout> make(const ExportGroup& group, std::int64_t startNs);

    const std::vector<Mf4Channel>& channels() const { return channels_; }
    /// Bytes of a record, with its timestamp.
    std::size_t stride() const { return stride_; }
    /// True when the stored records need no packing but for their times.
    bool isAsStored() const { return asStored_; }
    /// What is subtracted from the times.
    std::int64_t startNs() const { return startNs_; }

    /// Writes stride() bytes: the record of MDF for a stored one.
    void pack(const std::uint8_t* stored, std::uint8_t* to) const;

  private:
    enum class Form : std::uint8_t {
        copied,    ///< the ECU's bytes
        single,    ///< a half as the same number in 4 bytes
        integer,   ///< the value behind a mask with holes
        physical,  ///< float64
    };
    struct Field {
        Form form = Form::copied;
        std::size_t from = 0;  ///< in the stored record
        std::size_t to = 0;
        std::size_t size = 0;
        const storage::SignalInfo* signal = nullptr;
    };

    void addChannels(const ExportGroup& group);
    static Form formOf(const Mf4Channel& channel);
    void describe(Mf4Channel& channel, Form form) const;
    void packField(Mf4Channel& channel, Form form);

    std::vector<Mf4Channel> channels_;
    std::vector<Field> fields_;
    std::size_t stride_ = 0;
    bool asStored_ = false;
    std::int64_t startNs_ = 0;
};

}  // namespace lm::exporter
