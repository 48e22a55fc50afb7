// One column of a CSV file: its heading, and its cells from the records of a group.
//
// Threads: one at a time. Lifetime: borrows the signal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "exporter/export_plan.h"

namespace lm::exporter {

/// Appends a field as RFC 4180 wants it: in quotes when it holds a comma, a quote or a line break.
void appendField(std::string& line, std::string_view field);

class CsvColumn {
  public:
    CsvColumn(const storage::SignalInfo& signal, const ExportOptions& options);

    /// Appends the cell of a record; `data` points behind its timestamp.
    void append(std::string& line, const std::uint8_t* data) {
        const std::uint64_t bits = rawBits(data + offset_);
        // Many signals change less often than they are sampled.
        if (bits != lastBits_ || cell_.empty()) makeCell(bits);
        line += cell_;
    }

  private:
    enum class Form : std::uint8_t { number, rawInteger, verbal, formatted };

    static Form formOf(const storage::SignalInfo& signal, const ExportOptions& options);
    std::uint64_t rawBits(const std::uint8_t* bytes) const;
    void makeCell(std::uint64_t bits);
    void setInteger(std::uint64_t bits);
    void setExact(std::uint64_t bits);
    void setNumber(double value);

    const storage::SignalInfo* signal_;
    std::size_t offset_;
    bool raw_;
    Form form_;
    bool exact_;  ///< integers are kept: told by their bits, not by a double
    value::RawDecodeFunction decode_;
    std::uint64_t lastBits_ = 0;
    std::string cell_;
};

}  // namespace lm::exporter
