#include "serve/record_hub.h"

#include <algorithm>
#include <cmath>
#include <pthread.h>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/text.h"
#include "core/thread.h"
#include "value/conversion.h"

namespace lm::serve {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kTick{10};
/// Copied and not yet delivered.
constexpr std::size_t kMostBytes = std::size_t{32} << 20U;
constexpr std::size_t kMostRecords = 400000;

void appendNumber(std::string& text, double number) {
    if (std::isfinite(number)) {
        text += formatShortest(number);
    } else {
        text += "null";
    }
}

std::string jsonText(const nlohmann::json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

/// One client: what it wants, and what has come of it since it was told last.
class RecordHub::Watcher {
  public:
    Watcher(std::shared_ptr<http::EventStream> stream, std::vector<std::string> wanted, milliseconds window)
        : stream_(std::move(stream)), wanted_(std::move(wanted)), window_(window) {}

    bool gone() const { return stream_->closed(); }
    void miss(std::uint64_t count) { stream_->addMissed(count); }

    void begin(const std::shared_ptr<const Measured>& measured) {
        if (measured_ == measured && told_) return;
        if (measured_) tell();
        measured_ = measured;
        told_ = true;
        lists_.clear();
        names_.clear();
        if (measured_) choose();
        stream_->push("signals", signalsText());
    }

    void take(const Copied& record, const std::uint8_t* data) {
        if (record.list >= lists_.size() || lists_[record.list].empty()) return;
        ++count_;
        if (window_.count() == 0) return takeWhole(record, data);
        if (firstNs_ == 0) firstNs_ = record.timeNs;
        lastNs_ = record.timeNs;
        for (Chosen& one : lists_[record.list]) {
            const double value = one.valueIn(data);
            one.last = value;
            if (one.count++ == 0) one.least = one.greatest = value;
            // Not a number is neither.
            if (!(one.least <= value)) one.least = value;
            if (!(one.greatest >= value)) one.greatest = value;
        }
    }

    void tellWhenDue(Clock::time_point now) {
        if (window_.count() != 0 && now < due_) return;
        due_ = std::max(due_ + window_, now);
        tell();
    }

  private:
    struct Chosen {
        std::size_t column;
        const value::Element* element;
        std::uint32_t offset;
        double least = 0;
        double greatest = 0;
        double last = 0;
        std::uint64_t count = 0;

        double valueIn(const std::uint8_t* data) const {
            return element->conversion->toPhysical(value::decodeRaw(data + offset, element->coding));
        }
    };

    void choose() {
        for (const MeasuredSignal& signal : measured_->signals) {
            const bool wanted =
                wanted_.empty() || std::find(wanted_.begin(), wanted_.end(), signal.name) != wanted_.end();
            if (!wanted) continue;
            lists_.resize(std::max(lists_.size(), signal.list + 1));
            lists_[signal.list].push_back({names_.size(), &signal.element, signal.offset});
            names_.push_back(&signal);
        }
    }

    std::string signalsText() const {
        nlohmann::json signals = nlohmann::json::array();
        for (const MeasuredSignal* signal : names_) {
            signals.push_back({{"name", signal->name},
                               {"unit", signal->element.conversion->unit()},
                               {"group", signal->list}});
        }
        return jsonText({{"measuring", measured_ != nullptr},
                         {"startUtcNs", measured_ ? measured_->startUtcNs : 0},
                         {"windowMs", window_.count()},
                         {"signals", std::move(signals)}});
    }

    void takeWhole(const Copied& record, const std::uint8_t* data) {
        text_ += text_.empty() ? "{\"records\":[" : ",";
        text_ += fmt::format("{{\"group\":{},\"tNs\":{},\"values\":[", record.list,
                             record.timeNs - measured_->startNs);
        bool first = true;
        for (const Chosen& one : lists_[record.list]) {
            if (!std::exchange(first, false)) text_ += ',';
            appendNumber(text_, one.valueIn(data));
        }
        text_ += "]}";
        constexpr std::size_t kEventBytes = 64U << 10U;
        if (text_.size() > kEventBytes) tell();
    }

    void tell() {
        if (count_ == 0) return;
        if (window_.count() == 0) {
            stream_->push("records", text_ + "]}", count_);
        } else {
            stream_->push("window", windowText(), count_);
        }
        text_.clear();
        count_ = 0;
        firstNs_ = 0;
    }

    std::string windowText() {
        std::vector<std::string> columns(names_.size(), "null");
        for (auto& list : lists_) {
            for (Chosen& one : list) {
                if (std::exchange(one.count, 0) == 0) continue;
                std::string& column = columns[one.column];
                column = "[";
                appendNumber(column, one.least);
                column += ',';
                appendNumber(column, one.greatest);
                column += ',';
                appendNumber(column, one.last);
                column += ']';
            }
        }
        return fmt::format("{{\"fromNs\":{},\"toNs\":{},\"records\":{},\"values\":[{}]}}",
                           firstNs_ - measured_->startNs, lastNs_ - measured_->startNs, count_,
                           fmt::join(columns, ","));
    }

    const std::shared_ptr<http::EventStream> stream_;
    const std::vector<std::string> wanted_;
    const milliseconds window_;
    std::shared_ptr<const Measured> measured_;
    bool told_ = false;
    std::vector<std::vector<Chosen>> lists_;  ///< by number of the DAQ list
    std::vector<const MeasuredSignal*> names_;
    Clock::time_point due_ = Clock::now();
    std::uint64_t count_ = 0;  ///< of records since it was told
    std::int64_t firstNs_ = 0;
    std::int64_t lastNs_ = 0;
    std::string text_;
};

RecordHub::RecordHub() = default;

RecordHub::~RecordHub() {
    stop();
}

Result<void> RecordHub::start() {
    Result<std::thread> thread = startThread("cannot start the thread of the streams", [this] { run(); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void RecordHub::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void RecordHub::setMeasured(std::shared_ptr<const Measured> measured) {
    const std::lock_guard lock(mutex_);
    if (!batch_.records.empty() || batch_.missed > 0) older_.push_back(std::exchange(batch_, {}));
    batch_.measured = std::move(measured);
    changed_.notify_all();
}

std::shared_ptr<const Measured> RecordHub::measured() const {
    const std::lock_guard lock(mutex_);
    return batch_.measured;
}

void RecordHub::recordTo(std::shared_ptr<storage::Recorder> recorder,
                         std::optional<storage::GroupRange> groups) {
    const std::lock_guard lock(recordingMutex_);
    recorder_ = std::move(recorder);
    groups_ = groups;
}

void RecordHub::note(const std::string& line) {
    const std::lock_guard lock(recordingMutex_);
    if (groups_) groups_->note(line);
}

void RecordHub::addWatcher(std::shared_ptr<http::EventStream> stream, std::vector<std::string> signals,
                           milliseconds window) {
    const std::lock_guard lock(mutex_);
    fresh_.push_back(std::make_unique<Watcher>(std::move(stream), std::move(signals), window));
    ++watcherCount_;
    watched_ = true;
    changed_.notify_all();
}

std::size_t RecordHub::watchers() const {
    const std::lock_guard lock(mutex_);
    return watcherCount_;
}

void RecordHub::onRecord(const xcp::DaqRecord& record) {
    const std::int64_t timeNs = record.timeNs();
    lastRecordNs_ = timeNs;
    {
        const std::lock_guard lock(recordingMutex_);
        // Its writer counts what it cannot keep.
        if (groups_) static_cast<void>(groups_->write(record.listIndex, timeNs, record.data, record.size));
    }
    if (!watched_) return;
    const std::lock_guard lock(mutex_);
    if (batch_.bytes.size() + record.size > kMostBytes || batch_.records.size() == kMostRecords) {
        ++batch_.missed;
        return;
    }
    batch_.records.push_back({record.listIndex, timeNs, batch_.bytes.size(), record.size});
    batch_.bytes.insert(batch_.bytes.end(), record.data, record.data + record.size);
}

void RecordHub::run() {
    pthread_setname_np(pthread_self(), "stream");
    Batch taken;
    std::vector<Batch> older;
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            if (watched_) {
                changed_.wait_for(lock, kTick, [this] { return stopping_; });
            } else {
                changed_.wait(lock, [this] { return stopping_ || watched_; });
            }
            if (stopping_) return;
            taken.records.clear();
            taken.bytes.clear();
            taken.missed = 0;
            taken.measured = batch_.measured;
            std::swap(taken, batch_);
            older.swap(older_);
            for (auto& watcher : fresh_)
                watchers_.push_back(std::move(watcher));
            fresh_.clear();
        }
        for (const Batch& batch : older)
            deliver(batch);
        older.clear();
        deliver(taken);
        std::erase_if(watchers_, [](const auto& watcher) { return watcher->gone(); });
        const std::lock_guard lock(mutex_);
        watcherCount_ = watchers_.size() + fresh_.size();
        watched_ = watcherCount_ > 0;
    }
}

void RecordHub::deliver(const Batch& batch) {
    const Clock::time_point now = Clock::now();
    for (const auto& watcher : watchers_) {
        watcher->begin(batch.measured);
        if (batch.missed > 0) watcher->miss(batch.missed);
        for (const Copied& record : batch.records)
            watcher->take(record, batch.bytes.data() + record.offset);
        watcher->tellWhenDue(now);
    }
}

}  // namespace lm::serve
