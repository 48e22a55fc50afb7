// What a measurement shows: every n-th record as a line on standard output, state changes on standard error
// (and on standard output where its lines tell them).
//
// Reception must not wait for whoever reads standard output. onRecord therefore only copies a record that is
// to be printed into a bounded queue; a thread "printer" makes the text and writes it. A queue and a thread
// rather than a non-blocking write in onRecord: the conversions of a record and a slow disk stay off the
// receive thread as well. When the queue is full (its reader pauses), lines are skipped and counted.
//
// Threads: startPrinting, setLines and finishPrinting belong to the owner, before and after the records;
// onRecord is called on the receive thread, onStateChanged on any; the other queries on any.
// Lifetime: the descriptor is borrowed and stays open.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cli/measurement_lines.h"
#include "cli/nonblocking_output.h"
#include "core/unique_fd.h"
#include "session/session_state.h"
#include "xcp/daq_decoder.h"

namespace lm::cli {

class Console final : public xcp::IDaqRecordSink, public session::ISessionListener {
  public:
    /// Bytes of queued records; one record always finds room in an empty queue.
    static constexpr std::size_t kQueueBytes = std::size_t{1} << 20U;

    explicit Console(int descriptor) : descriptor_(descriptor) {}
    ~Console() override;
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Print the first and then every n-th record of each list; 0: none. Errors: "cannot start the
    /// printer: REASON".
    Result<void> startPrinting(std::uint32_t interval);

    /// How things are printed from now on, of a plan with so many lists; prints the first line.
    void setLines(std::unique_ptr<IMeasurementLines> lines, std::size_t listCount);

    void onRecord(const xcp::DaqRecord& record) override;

    /// "** STATE: MESSAGE\n" on standard error, nothing there for an empty message.
    /// The hint follows, unless it was the last one already.
    void onStateChanged(session::SessionState state, const std::string& message,
                        const std::string& hint) override;
    /// "** ECU: STATE: MESSAGE\n", else likewise.
    void onEcuStateChanged(const std::string& ecu, session::SessionState state, const std::string& message,
                           const std::string& hint) override;

    /// A whole line among the others. From any thread, after setLines().
    void showLine(const std::string& line) { enqueueLine(line); }

    /// Prints what is queued, for `limit` at most; the rest counts as skipped. Records are not printed any
    /// more.
    void finishPrinting(std::chrono::milliseconds limit = std::chrono::seconds(1));

    /// The errno of the write that failed, 0 when none did. Nothing is printed after it.
    int failure() const { return failure_.load(); }

    /// The last line was printed in part: the time was up.
    bool endsInsideLine() const { return endsInsideLine_; }

    bool prints() const { return interval_ != 0; }
    /// Of the record from which the printed times count; none before there is one.
    std::optional<std::int64_t> firstNs() const;

    /// Lines that were not printed because standard output did not take them.
    std::uint64_t skippedLines() const;

  private:
    /// In place of a list: the bytes are a line.
    static constexpr std::size_t kWholeLine = SIZE_MAX;

    /// In front of the bytes of each queued record.
    struct QueuedHeader {
        std::int64_t sinceFirstNs;
        std::size_t listIndex;
        std::size_t size;
    };

    void enqueue(const QueuedHeader& header, const void* data);
    void enqueueLine(const std::string& line);
    void printLoop();
    bool isNewHint(const std::string& hint);
    bool takeBatch();
    void appendLine(std::string& text, const QueuedHeader& header, const std::uint8_t* data) const;
    bool writeLines(std::string& text);
    bool waitForReader();

    // Constant while records arrive.
    const int descriptor_;
    UniqueFd wakeUp_;  ///< eventfd: a deadline has been set
    std::uint32_t interval_ = 0;
    std::unique_ptr<const IMeasurementLines> lines_;

    std::thread printer_;
    // The printer thread's while it runs.
    std::optional<NonblockingOutput> output_;
    std::vector<std::uint8_t> batch_;
    bool endsInsideLine_ = false;

    std::atomic<int> failure_{0};

    mutable std::mutex mutex_;  // everything below
    std::condition_variable filled_;
    std::optional<std::int64_t> firstNs_;
    std::vector<std::uint64_t> recordCounts_;  ///< by list
    std::vector<std::uint8_t> queue_;
    std::size_t queuedLines_ = 0;
    std::uint64_t skipped_ = 0;
    std::string lastHint_;
    std::optional<std::chrono::steady_clock::time_point> deadline_;  ///< set once printing is to end
};

}  // namespace lm::cli
