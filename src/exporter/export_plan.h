// What an export takes out of a recording: which groups, signals and records; and how far it has come.
//
// Threads: one at a time. Lifetime: borrows the RecordingReader, which must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "storage/read/group_reader.h"
#include "storage/read/recording_reader.h"

namespace lm::exporter {

enum class Format : std::uint8_t { mf4, csv };

struct ExportOptions {
    std::filesystem::path output;
    /// CSV, one table: takes the text piece by piece, and no file is written. Its error ends the export.
    std::function<Result<void>(std::string_view)> stream = {};
    Format format = Format::mf4;
    bool force = false;                ///< overwrite existing files
    std::vector<std::string> signals;  ///< patterns with '*' and '?'; none: all signals
    std::optional<std::string> from;   ///< seconds from the start or ISO 8601; records from here
    std::optional<std::string> to;     ///< ... up to, but without, here
    std::uint64_t every = 1;           ///< the first and then every n-th record; at least 1

    bool compress = true;  ///< MF4

    bool merge = false;      ///< CSV: all groups in one file, on one time axis
    bool raw = false;        ///< CSV: raw values
    bool absolute = false;   ///< CSV: times in UTC
    bool a2lFormat = false;  ///< CSV: numbers with the decimals of the A2L
    bool gaps = false;       ///< CSV: one more file that lists outages and gaps
};

/// Told now and then: bytes of records done and to do.
using ProgressFunction = std::function<void(std::uint64_t done, std::uint64_t total)>;

class Progress {
  public:
    Progress(ProgressFunction function, std::uint64_t total, StopToken stop)
        : function_(std::move(function)), total_(total), stop_(std::move(stop)) {}

    /// Error: Error::stopped "stopped".
    Result<void> advance(std::uint64_t bytes);

  private:
    ProgressFunction function_;
    std::uint64_t done_ = 0;
    std::uint64_t total_;
    StopToken stop_;
};

struct ExportGroup {
    storage::GroupReader reader;
    std::vector<const storage::SignalInfo*> signals;  ///< at least one, in the order of the recording
    storage::RecordRange range;
    std::uint64_t every = 1;

    /// Records that are exported.
    std::uint64_t recordCount() const { return range.count() == 0 ? 0 : (range.count() - 1) / every + 1; }
    /// Bytes that are read for them.
    std::uint64_t sourceBytes() const { return range.count() * reader.stride(); }
    bool isWhole() const { return every == 1 && signals.size() == reader.info().signals.size(); }
};

/// The times that the options leave. Errors: those of parseRecordingTime().
Result<storage::TimeRange> exportedTimes(const storage::RecordingInfo& info, const ExportOptions& options);

/// The groups that hold selected signals, in the order of the recording. Errors: those of selectSignals(),
/// parseRecordingTime(), GroupReader::open() and find(); notFound "DIRECTORY: no signals in this recording".
Result<std::vector<ExportGroup>> planExport(const storage::RecordingReader& recording,
                                            const ExportOptions& options);

/// What the times are called: "time", or something else when a signal has that name.
std::string timeName(const std::vector<ExportGroup>& groups);

/// Bytes of records that the export of these groups reads.
std::uint64_t totalBytes(const std::vector<ExportGroup>& groups);

/// One pass over the records of a group that are exported, in batches; tells the progress of each.
class ExportPass {
  public:
    ExportPass(const ExportGroup& group, Progress& progress);

    struct Batch {
        storage::RecordBatch records;
        std::size_t first = 0;  ///< the first record of the batch that is exported, and then every n-th
        std::size_t step = 1;
    };
    /// A batch without records at the end; it may hold none that is exported. Errors: of
    /// RecordStream::next(), of `progress`.
    Result<Batch> next();

  private:
    storage::RecordStream stream_;
    Progress* progress_;
    std::uint64_t begin_;
    std::uint64_t every_;
};

}  // namespace lm::exporter
