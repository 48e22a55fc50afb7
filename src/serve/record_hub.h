// Where the records of a measurement go: into a recording, when there is one, and to the clients that watch.
//
// The receive thread only copies. A thread of its own computes what clients get: all records, or for each
// window of time the least, the greatest and the last value of each signal. What it cannot keep up with, or
// what a client does not take, is counted and told to that client; neither the measurement nor the recording
// notices.
//
// Threads: onRecord() and onState() where they come from; the rest from any. A thread named "stream" fills
// the streams. Lifetime: owns everything but the streams' connections.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/result.h"
#include "http/reply.h"
#include "serve/stream_news.h"
#include "session/measurement_types.h"
#include "storage/write/recorder.h"
#include "value/element.h"
#include "xcp/daq_decoder.h"

namespace lm::serve {

/// What of a plan the streams need, and no longer the plan itself.
struct MeasuredSignal {
    std::string name;
    value::Element element;
    std::size_t list = 0;
    std::uint32_t offset = 0;
    std::uint64_t cycleNs = 0;  ///< of its records; 0: not cyclic
};
struct Measured {
    std::vector<MeasuredSignal> signals;
    std::int64_t startNs = 0;  ///< on the clock of the records
    std::int64_t startUtcNs = 0;
};

class RecordHub final : public xcp::IDaqRecordSink {
  public:
    RecordHub();
    ~RecordHub() override;
    RecordHub(const RecordHub&) = delete;
    RecordHub& operator=(const RecordHub&) = delete;

    /// `news`: what streams of frames tell beside the records; may be null.
    Result<void> start(std::unique_ptr<StreamNews> news);
    void stop();

    /// A measurement begins, or (null) has ended.
    void setMeasured(std::shared_ptr<const Measured> measured);
    std::shared_ptr<const Measured> measured() const;

    /// From now on every record that is no older goes there, too; null: no longer. Nothing is written any
    /// more once it returns.
    void recordTo(std::shared_ptr<storage::Recorder> recorder, std::optional<storage::GroupRange> groups);
    /// An event of the recording; nothing without one.
    void note(const std::string& line);

    /// `signals` empty: all of the measurement. `window` 0: all records. The stream goes on with the next
    /// measurement.
    void addWatcher(std::shared_ptr<http::EventStream> stream, std::vector<std::string> signals,
                    std::chrono::milliseconds window);
    std::size_t watchers() const;

    void onRecord(const xcp::DaqRecord& record) override;
    /// Of the last record; for the beginning of an outage.
    std::int64_t lastRecordNs() const { return lastRecordNs_.load(); }

  private:
    class Watcher;
    class Summarizer;
    struct Copied {
        std::size_t list;
        std::int64_t timeNs;
        std::size_t offset;
        std::size_t size;
    };
    struct Batch {
        std::vector<Copied> records;
        std::vector<std::uint8_t> bytes;
        std::uint64_t missed = 0;
        std::shared_ptr<const Measured> measured;
    };

    void run();
    void deliver(const Batch& batch);
    void tellNews();

    std::thread thread_;
    std::atomic<bool> watched_{false};
    std::atomic<std::int64_t> lastRecordNs_{0};

    std::mutex recordingMutex_;
    std::shared_ptr<storage::Recorder> recorder_;
    std::optional<storage::GroupRange> groups_;
    std::int64_t recordedSinceNs_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Batch batch_;
    std::vector<Batch> older_;  ///< of measurements before, not yet delivered
    std::vector<std::unique_ptr<Watcher>> fresh_;
    std::size_t watcherCount_ = 0;
    bool stopping_ = false;
    std::vector<std::unique_ptr<Watcher>> watchers_;  ///< the stream thread's alone, as the next
    std::unique_ptr<Summarizer> summarizer_;
    std::unique_ptr<StreamNews> news_;
    std::chrono::steady_clock::time_point newsDue_{};
};

}  // namespace lm::serve
