// Writes one recording: a directory with "meta.json", "events.jsonl" and, per group, records, time index and
// min/max levels (byte by byte in docs/recording-format.md).
//
// Threads: write() and note() may be called from any thread and never wait for a file; the counters may be
// read from any thread; create(), close(), discard() and the destructor belong to the owner. A thread named
// "rec-writer" does all file work. Lifetime: owns everything; the bytes given to write() are copied. A writer
// serves one recording.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_info.h"
#include "storage/write/record_source.h"
#include "storage/write/recording_files.h"

namespace lm::storage {

struct WriterOptions {
    /// Bytes of the queue between write() and the files, rounded up to a power of two, at least 64. A record
    /// needs 20 to 23 bytes more than its size there; one that needs more than half of the queue is always
    /// dropped.
    std::uint64_t queueBytes = std::uint64_t{64} << 20U;
    /// How often everything buffered goes to the files: what a crash of the process can cost.
    std::int64_t flushIntervalMs = 1000;
    std::vector<CompanionFile> companions = {};              ///< as of RecordingFiles::create()
    std::vector<std::filesystem::path> newDirectories = {};  ///< likewise
    /// Instead of the queue, write() takes nothing then: all that it holds when close() is called is written.
    /// Borrowed until close().
    IRecordSource* source = nullptr;
};

/// 64 MiB, or more when eight records of the largest group need more.
std::uint64_t recommendedQueueBytes(const RecordingInfo& info);

class RecordingWriter {
  public:
    /// Makes the directory (with parents) and its files and starts the thread.
    /// Errors: "cannot create PATH", "PATH already contains a recording", "PATH is being recorded to by
    /// another program", "SIGNAL: outside the group record", "GROUP: record too large", "too many groups",
    /// "cannot write meta.json: REASON", "cannot write FILE", "cannot create FILE: REASON". A failure leaves
    /// nothing behind that was not there before.
    static Result<std::unique_ptr<RecordingWriter>> create(const std::filesystem::path& path,
                                                           RecordingInfo info, const WriterOptions& options);

    /// close() without its result.
    ~RecordingWriter();
    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;

    /// Queues one record (`length` bytes, the group's recordSize). `timestampNs` is on the host's steady
    /// clock. False, counted as dropped: no such group, a wrong length, no room, or after close().
    bool write(std::size_t groupIndex, std::int64_t timestampNs, const std::uint8_t* data,
               std::size_t length);

    /// Appends an event, a line as the functions of recording_events.h make them. It is in the file within
    /// milliseconds. Nothing after close().
    void note(std::string line);

    // The recording can go on in another directory, record by record: these two belong to one thread beside
    // the owner's, which the owner ends before close().
    /// The files of the next part, in a directory that was just made for them. Errors: those of create().
    Result<std::unique_ptr<RecordingFiles>> prepareNext(const std::filesystem::path& path, RecordingInfo info,
                                                        const std::vector<CompanionFile>& companions);
    /// All records that have not been taken from the queue go to `next`. Returns the files before, with every
    /// record before written and none on its way; the caller closes them.
    std::unique_ptr<RecordingFiles> continueIn(std::unique_ptr<RecordingFiles> next);

    /// ioError "write error in DIRECTORY".
    static Error writeErrorIn(const std::filesystem::path& directory);

    /// Writes what is queued, closes all files and joins the thread; a second call returns the same.
    /// Errors: writeErrorIn() when any write to its (last) directory failed.
    Result<void> close();

    /// For a measurement that did not start: closes and removes the files and directories that this writer
    /// made, these unless something else is in them. Errors: "cannot remove FILE: REASON".
    Result<void> discard();

    /// Records that reached their file; follows the queue with a delay of one flush interval at most and is
    /// exact after close().
    std::uint64_t recordsWritten() const;
    /// Their timestamps and data, in bytes.
    std::uint64_t bytesWritten() const;
    /// Records refused by write() and records whose file did not take them.
    std::uint64_t recordsDropped() const;

  private:
    struct State;
    explicit RecordingWriter(std::unique_ptr<State> state);

    std::unique_ptr<State> state_;
};

}  // namespace lm::storage
