// The files of a recording, made and damaged as an input says, and what reads them compared with a plain look
// at the records.
//
// Threads: one. Lifetime: nothing is kept.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "exporter/export_recording.h"
#include "fuzz_input.h"
#include "storage/format/recording_info.h"
#include "storage/read/group_reader.h"

namespace lm::fuzz {

/// Empty when there is no such file.
Bytes readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

/// Groups that get files.
inline constexpr std::size_t kMostGroups = 4;

/// Records in order, with gaps as the input has them; no index and no levels.
void makeRecordFile(const std::filesystem::path& path, const storage::RecordingInfo& info,
                    const storage::GroupInfo& group, Input& input);

/// What stands for a signal in index, levels and ranges: the raw value where the physical one is a text.
inline double plainValue(const storage::SignalInfo& signal, const std::uint8_t* values) {
    const double raw = value::decodeRaw(values + signal.recordOffset, signal.coding);
    return signal.conversion->isVerbal() ? raw : signal.conversion->toPhysical(raw);
}

/// Takes a file of a group and changes, cuts, lengthens, replaces or removes it.
void damageFile(const std::filesystem::path& directory, Input& input);

/// The whole records of a group, read plainly.
struct PlainRecords {
    PlainRecords(const std::filesystem::path& path, const storage::GroupInfo& group);

    bool inOrder() const { return std::is_sorted(times.begin(), times.end()); }

    std::size_t stride;
    Bytes bytes;
    std::vector<std::int64_t> times;
};

/// A record file before a repair. Its own header says how long a record is, as long as its sizes agree with
/// each other; when they do not, `madeSize` does, the size that the records were made with.
struct KeptRecords {
    KeptRecords(const std::filesystem::path& path, std::uint32_t madeSize);
    /// No whole record is lost or changed; a file of another recording is as it was.
    void check(const Bytes& repaired) const;

    Bytes before;
    std::size_t recordsEnd = 0;
    bool ofAnotherRecording = false;
};

/// The first `size` bytes are still there.
bool isKept(const Bytes& before, std::size_t size, const Bytes& now);

/// Search, gaps, extremes and records of a group. While its files are damaged (`sound` is false) each ends
/// with a value or an error; else with what the records give.
void checkReading(const std::filesystem::path& directory, const storage::GroupReader& reader, Input input,
                  bool sound);

/// Exports into the empty directory `to`, as the input says: the files are there, whole, or none is.
void checkExport(const storage::RecordingReader& recording, const std::filesystem::path& to, Input& input);

}  // namespace lm::fuzz
