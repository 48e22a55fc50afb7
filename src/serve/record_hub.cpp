#include "serve/record_hub.h"

#include <algorithm>
#include <cmath>
#include <pthread.h>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/text.h"
#include "core/thread.h"
#include "serve/signal_facts.h"
#include "serve/window_frame.h"
#include "value/conversion.h"

namespace lm::serve {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kTick{10};
constexpr milliseconds kNews{100};
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

/// What a batch of records comes to, computed once for all clients with a window.
struct Summary {
    struct List {
        std::uint64_t records = 0;
        std::int64_t firstNs = 0;
        std::int64_t lastNs = 0;
    };
    std::vector<Extremes> signals;  ///< as in Measured; of those that no one wants none
    std::vector<List> lists;
};

}  // namespace

/// Makes the summaries of one measurement.
class RecordHub::Summarizer {
  public:
    explicit Summarizer(std::shared_ptr<const Measured> measured) : measured_(std::move(measured)) {
        for (const MeasuredSignal& signal : measured_->signals) {
            decoders_.push_back(value::rawDecoder(signal.element.coding));
            lists_.resize(std::max(lists_.size(), signal.list + 1));
        }
        wanted_.resize(decoders_.size());
    }

    bool isOf(const std::shared_ptr<const Measured>& measured) const { return measured_ == measured; }
    void clear() {
        for (auto& list : lists_)
            list.clear();
        wanted_.assign(wanted_.size(), false);
    }
    void want(std::size_t signal) {
        if (wanted_[signal]) return;
        wanted_[signal] = true;
        lists_[measured_->signals[signal].list].push_back(signal);
    }

    const Summary& of(const Batch& batch) {
        summary_.signals.assign(decoders_.size(), {});
        summary_.lists.assign(lists_.size(), {});
        for (const Copied& record : batch.records) {
            if (record.list >= lists_.size()) continue;
            Summary::List& list = summary_.lists[record.list];
            if (list.records++ == 0) list.firstNs = record.timeNs;
            list.lastNs = record.timeNs;
            const std::uint8_t* data = batch.bytes.data() + record.offset;
            for (const std::size_t number : lists_[record.list]) {
                const MeasuredSignal& signal = measured_->signals[number];
                const value::RawCoding& coding = signal.element.coding;
                summary_.signals[number].take(
                    signal.element.conversion->toPhysical(decoders_[number](data + signal.offset, coding)));
            }
        }
        return summary_;
    }

  private:
    const std::shared_ptr<const Measured> measured_;
    std::vector<value::RawDecodeFunction> decoders_;
    std::vector<std::vector<std::size_t>> lists_;  ///< numbers of the wanted signals of each
    std::vector<bool> wanted_;
    Summary summary_;
};

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
        columns_.clear();
        extremes_.clear();
        if (measured_) choose();
        stream_->pushAlways("signals", signalsText());
    }

    bool hasFrames() const { return stream_->form() == http::StreamForm::frames; }
    void tellNews(const StreamNews& news, Clock::time_point now) { news.tell(*stream_, newsTold_, now); }
    bool hasWindow() const { return window_.count() != 0; }

    void takeRecord(const Copied& record, const std::uint8_t* data) {
        if (record.list >= lists_.size() || lists_[record.list].empty()) return;
        ++count_;
        text_ += text_.empty() ? "{\"records\":[" : ",";
        text_ += fmt::format("{{\"group\":{},\"tNs\":{},\"values\":[", record.list,
                             record.timeNs - measured_->startNs);
        bool first = true;
        for (const std::size_t column : lists_[record.list]) {
            if (!std::exchange(first, false)) text_ += ',';
            const MeasuredSignal& signal = measured_->signals[columns_[column]];
            const value::Element& element = signal.element;
            appendNumber(text_, element.conversion->toPhysical(
                                    value::decodeRaw(data + signal.offset, element.coding)));
        }
        text_ += "]}";
        constexpr std::size_t kEventBytes = 64U << 10U;
        if (text_.size() > kEventBytes) tell();
    }

    void wantOf(Summarizer& summarizer) const {
        for (const std::size_t signal : columns_)
            summarizer.want(signal);
    }

    void takeSummary(const Summary& summary) {
        for (std::size_t i = 0; i < lists_.size(); ++i) {
            const Summary::List& list = summary.lists[i];
            if (lists_[i].empty() || list.records == 0) continue;
            firstNs_ = count_ == 0 ? list.firstNs : std::min(firstNs_, list.firstNs);
            lastNs_ = count_ == 0 ? list.lastNs : std::max(lastNs_, list.lastNs);
            count_ += list.records;
        }
        for (std::size_t i = 0; i < columns_.size(); ++i)
            extremes_[i].join(summary.signals[columns_[i]]);
    }

    void tellWhenDue(Clock::time_point now) {
        if (window_.count() != 0 && now < due_) return;
        due_ = std::max(due_ + window_, now);
        tell();
    }

  private:
    void choose() {
        for (std::size_t i = 0; i < measured_->signals.size(); ++i) {
            const MeasuredSignal& signal = measured_->signals[i];
            const bool wanted =
                wanted_.empty() || std::find(wanted_.begin(), wanted_.end(), signal.name) != wanted_.end();
            if (!wanted) continue;
            lists_.resize(std::max(lists_.size(), signal.list + 1));
            lists_[signal.list].push_back(columns_.size());
            columns_.push_back(i);
        }
        extremes_.assign(columns_.size(), {});
    }

    std::string signalsText() const {
        nlohmann::json signals = nlohmann::json::array();
        for (const std::size_t column : columns_) {
            const MeasuredSignal& signal = measured_->signals[column];
            nlohmann::json& one = signals.emplace_back(nlohmann::json{
                {"name", signal.name}, {"unit", signal.element.conversion->unit()}, {"group", signal.list}});
            if (!hasFrames()) continue;
            addSignalFacts(one, signal.element);
            one["cycleNs"] = signal.cycleNs;
        }
        return jsonText({{"measuring", measured_ != nullptr},
                         {"startUtcNs", measured_ ? measured_->startUtcNs : 0},
                         {"windowMs", window_.count()},
                         {"signals", std::move(signals)}});
    }

    void tell() {
        if (count_ == 0) return;
        if (window_.count() == 0) {
            stream_->push("records", text_ + "]}", count_);
        } else if (hasFrames()) {
            stream_->pushFrame(
                http::FrameKind::window,
                windowFrame(firstNs_ - measured_->startNs, lastNs_ - measured_->startNs, count_, extremes_),
                count_);
            extremes_.assign(columns_.size(), {});
        } else {
            stream_->push("window", windowText(), count_);
        }
        text_.clear();
        count_ = 0;
    }

    std::string windowText() {
        std::string values;
        for (Extremes& extremes : extremes_) {
            if (!values.empty()) values += ',';
            const Extremes one = std::exchange(extremes, {});
            if (one.count == 0) {
                values += "null";
                continue;
            }
            values += '[';
            appendNumber(values, one.least);
            values += ',';
            appendNumber(values, one.greatest);
            values += ',';
            appendNumber(values, one.last);
            values += ']';
        }
        return fmt::format("{{\"fromNs\":{},\"toNs\":{},\"records\":{},\"values\":[{}]}}",
                           firstNs_ - measured_->startNs, lastNs_ - measured_->startNs, count_, values);
    }

    const std::shared_ptr<http::EventStream> stream_;
    const std::vector<std::string> wanted_;
    const milliseconds window_;
    std::shared_ptr<const Measured> measured_;
    bool told_ = false;
    std::vector<std::size_t> columns_;             ///< numbers of the signals that it wants
    std::vector<std::vector<std::size_t>> lists_;  ///< the columns of each DAQ list
    std::vector<Extremes> extremes_;               ///< of the columns
    Clock::time_point due_ = Clock::now();
    std::uint64_t count_ = 0;  ///< of records since it was told
    std::int64_t firstNs_ = 0;
    std::int64_t lastNs_ = 0;
    std::string text_;
    StreamNews::Told newsTold_;
};

RecordHub::RecordHub() = default;

RecordHub::~RecordHub() {
    stop();
}

Result<void> RecordHub::start(std::unique_ptr<StreamNews> news) {
    news_ = std::move(news);
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
    groups_ = std::move(groups);
    recordedSinceNs_ = std::chrono::nanoseconds(Clock::now().time_since_epoch()).count();
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
        const bool isNew = timeNs >= recordedSinceNs_;  // records of the start come half a second late
        if (groups_ && isNew)
            static_cast<void>(groups_->write(record.listIndex, timeNs, record.data, record.size));
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
        tellNews();
        std::erase_if(watchers_, [](const auto& watcher) { return watcher->gone(); });
        const std::lock_guard lock(mutex_);
        watcherCount_ = watchers_.size() + fresh_.size();
        watched_ = watcherCount_ > 0;
    }
}

void RecordHub::tellNews() {
    const Clock::time_point now = Clock::now();
    if (!news_ || now < newsDue_) return;
    newsDue_ = now + kNews;
    const bool isWanted = std::any_of(watchers_.begin(), watchers_.end(),
                                      [](const auto& watcher) { return watcher->hasFrames(); });
    if (!isWanted) return;
    news_->look();
    for (const auto& watcher : watchers_) {
        if (watcher->hasFrames()) watcher->tellNews(*news_, now);
    }
}

void RecordHub::deliver(const Batch& batch) {
    const Clock::time_point now = Clock::now();
    for (const auto& watcher : watchers_) {
        watcher->begin(batch.measured);
        if (batch.missed > 0) watcher->miss(batch.missed);
    }
    if (batch.measured && !batch.records.empty()) {
        if (!summarizer_ || !summarizer_->isOf(batch.measured)) {
            summarizer_ = std::make_unique<Summarizer>(batch.measured);
        }
        summarizer_->clear();
        for (const auto& watcher : watchers_) {
            if (watcher->hasWindow()) watcher->wantOf(*summarizer_);
        }
        const Summary& summary = summarizer_->of(batch);
        for (const auto& watcher : watchers_) {
            if (watcher->hasWindow()) {
                watcher->takeSummary(summary);
                continue;
            }
            for (const Copied& record : batch.records) {
                watcher->takeRecord(record, batch.bytes.data() + record.offset);
            }
        }
    }
    for (const auto& watcher : watchers_)
        watcher->tellWhenDue(now);
}

}  // namespace lm::serve
