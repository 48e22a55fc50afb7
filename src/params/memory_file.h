// A memory image in a file: bytes by address as flashing and calibration tools exchange them, in Intel HEX or
// in Motorola S-records. What stands beside the bytes (header, start address, length of records, line ends)
// is kept, so that an image that was changed differs from its source in the changed bytes alone.
//
// Threads: plain values; reading waits for a pipe. Lifetime: own everything; spans into the bytes live until
// the image goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"

namespace lm::params {

enum class MemoryForm : std::uint8_t { intelHex, sRecord };

/// Bytes side by side.
struct MemoryRun {
    std::uint32_t address = 0;
    std::vector<std::uint8_t> bytes;

    std::uint64_t end() const { return std::uint64_t{address} + bytes.size(); }
    friend bool operator==(const MemoryRun&, const MemoryRun&) = default;
};

/// What a file has beside its bytes.
struct MemoryFileLayout {
    MemoryForm form = MemoryForm::intelHex;
    std::size_t recordSize = 32;   ///< bytes of its longest record
    std::size_t addressBytes = 2;  ///< of the widest S-record: 2 to 4
    bool isSegmented = false;      ///< HEX: its base addresses are all segments
    bool beginsWithBase = false;   ///< HEX: a base stands before the data, be it 0
    bool isCounted = false;        ///< S-records: with the count of them
    bool hasCarriageReturns = false;
    std::vector<std::string> headers = {};           ///< of the S0 records
    std::optional<std::uint32_t> segmentStart = {};  ///< HEX: CS and IP
    std::optional<std::uint32_t> linearStart = {};   ///< HEX: EIP; of S-records one that is not 0
    std::uint16_t endAddress = 0;                    ///< HEX: of the end record
};

class MemoryFile {
  public:
    /// `runs` sorted, none of them empty, touching another or reaching beyond 32 bits of address.
    MemoryFile(std::vector<MemoryRun> runs, MemoryFileLayout layout)
        : runs_(std::move(runs)), layout_(std::move(layout)) {}

    const std::vector<MemoryRun>& runs() const { return runs_; }
    const MemoryFileLayout& layout() const { return layout_; }

    /// The bytes, or none when not all of them are there.
    std::span<const std::uint8_t> at(std::uint32_t address, std::size_t size) const;
    std::span<std::uint8_t> at(std::uint32_t address, std::size_t size);
    /// The first of these addresses at which no byte is; `address + size` when all are there.
    std::uint64_t firstMissing(std::uint32_t address, std::size_t size) const;

  private:
    const MemoryRun* runAt(std::uint32_t address) const;

    std::vector<MemoryRun> runs_;
    MemoryFileLayout layout_;
};

/// The form is seen by the first record. Errors (invalidArgument): "line N: WHAT", with the mend as hint;
/// "neither Intel HEX nor S-records".
Result<MemoryFile> parseMemoryFile(std::string_view text);
/// As a file of that form has it. Addresses get no narrower S-records than `addressBytes`.
std::string memoryFileText(const MemoryFile& file, MemoryForm form, std::size_t addressBytes);

/// The same of a file. Errors: "cannot open PATH", "PATH is larger than 256 MiB", "PATH: ..." as above.
Result<MemoryFile> readMemoryFile(const std::filesystem::path& path, const StopToken& stop);

/// What the ending of a file's name asks for.
struct MemoryFileEnding {
    MemoryForm form = MemoryForm::intelHex;
    std::size_t addressBytes = 2;  ///< the fewest
};
/// Error (invalidArgument): "PATH does not end in ...".
Result<MemoryFileEnding> memoryFileEnding(const std::filesystem::path& path);

/// Error (alreadyOpen): "PATH already exists".
Result<void> checkNewFile(const std::filesystem::path& path);
/// As a file that appears when it is whole and on the disk, in place of one that is there when `replace` says
/// so. Errors: checkNewFile()'s, memoryFileEnding()'s, "cannot create PATH", "cannot write PATH".
Result<void> writeMemoryFile(const std::filesystem::path& path, const MemoryFile& file, bool replace = false);

}  // namespace lm::params
