// The data records of a memory image, joined to runs once all are there: in any order, with gaps, and twice
// where they say the same.
//
// Threads: one at a time. Lifetime: owns what it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "params/memory_file.h"
#include "params/record_lines.h"

namespace lm::params {

class DataRecords {
  public:
    /// Bytes that do not reach beyond 32 bits of address; none at all is no record.
    void add(std::size_t line, std::uint32_t address, std::span<const std::uint8_t> bytes);
    std::size_t longest() const { return longest_; }

    /// Once, at the end. Errors (invalidArgument): "line N: 0xADDRESS is 0xNN here and 0xMM in line L"; that
    /// there is no data.
    Result<std::vector<MemoryRun>> join();

  private:
    struct Record {
        std::size_t line = 0;
        std::size_t first = 0;  ///< of its bytes
        std::uint32_t address = 0;
        std::uint32_t size = 0;
    };

    Result<void> checkSame(const MemoryRun& run, const Record& record) const;
    Error contradiction(const Record& record, std::uint64_t address) const;
    const std::uint8_t* bytesOf(const Record& record) const { return bytes_.data() + record.first; }

    std::vector<Record> records_;
    std::vector<std::uint8_t> bytes_;  ///< of all, in the order of the file
    std::size_t longest_ = 0;
};

struct EndRecord {
    std::size_t line = 0;  ///< 0: it did not come
    std::string_view text;
};

/// What the lines and records of a file make, once all were taken. Errors: join()'s; that the end record is
/// missing.
Result<MemoryFile> imageOf(DataRecords& records, const RecordLines& lines, const EndRecord& end,
                           MemoryFileLayout layout);

}  // namespace lm::params
