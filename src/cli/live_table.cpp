#include "cli/live_table.h"

#include <algorithm>
#include <string>
#include <unistd.h>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "cli/measurement_counts.h"
#include "cli/measurement_lines.h"
#include "cli/message_output.h"
#include "cli/recording_report.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "storage/write/part_keeper.h"

namespace lm::cli {
namespace {

constexpr std::chrono::milliseconds kBetweenDrawings{100};
constexpr std::chrono::milliseconds kBetweenCounts{250};
constexpr std::chrono::seconds kRateSpan{1};
/// What a bunch of records may be late.
constexpr std::chrono::milliseconds kGrace{500};
constexpr std::chrono::seconds kBetweenSizes{1};

double asSeconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

/// A number is not cut, it loses digits: those of a fraction first.
std::string numberWithin(std::size_t width, double number) {
    constexpr int kAllDigits = 17;
    constexpr int kLeastDigits = 6;
    int digits = kAllDigits;
    std::string text = fmt::format("{:.{}g}", number, digits);
    while (text.size() > width && digits > kLeastDigits)
        text = fmt::format("{:.{}g}", number, --digits);
    return text;
}

std::string rateText(double perSecond) {
    return formatFixed(perSecond, perSecond >= 100 ? 0 : perSecond >= 10 ? 1 : 2) + "/s";
}

}  // namespace

LiveTable::LiveTable(value::NumberStyle style, std::filesystem::path recording)
    : style_(style), recording_(std::move(recording)) {}

LiveTable::~LiveTable() {
    finish();
}

void LiveTable::setPlan(const session::MeasurementPlan& plan) {
    extremes_.setPlan(plan);
    std::vector<SignalTable::Fixed> fixed;
    for (const session::PlannedSignal& signal : plan.planned) {
        columns_.push_back({printable(signal.element), signal.listIndex});
        const value::Conversion& conversion = *signal.element.conversion;
        fixed.push_back({printableText(signal.element.name),
                         conversion.isVerbal() ? "" : printableText(conversion.unit())});
    }
    table_.emplace(std::move(fixed), greatestNumber());
}

void LiveTable::begin() {
    holdMessages();
    screen_.emplace(STDOUT_FILENO, STDIN_FILENO);
}

void LiveTable::finish() {
    if (!screen_) return;
    screen_->leave();
    screen_.reset();
    releaseMessages();
}

void LiveTable::takeKeys() {
    const auto page = static_cast<std::ptrdiff_t>(std::max<std::size_t>(room_, 1));
    const auto all = static_cast<std::ptrdiff_t>(table_->count());
    for (const Key key : screen_->keys()) {
        switch (key) {
            case Key::up:
                scroll(-1);
                break;
            case Key::down:
                scroll(1);
                break;
            case Key::pageUp:
                scroll(-page);
                break;
            case Key::pageDown:
                scroll(page);
                break;
            case Key::home:
                scroll(-all);
                break;
            case Key::end:
                scroll(all);
                break;
        }
    }
    nextDraw_ = Clock::now();
}

void LiveTable::scroll(std::ptrdiff_t by) {
    const auto last = static_cast<std::ptrdiff_t>(table_->count() - std::min(room_, table_->count()));
    first_ = static_cast<std::size_t>(
        std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(first_) + by, 0, last));
}

void LiveTable::countRecords(Clock::time_point now) {
    if (!counted_.empty() && now - counted_.back().time < kBetweenCounts) return;
    counted_.push_back({now, seen_.lists});
    while (counted_.size() > 2 && now - counted_[1].time >= kRateSpan)
        counted_.pop_front();
}

/// Of the last second; of a slower list from its last two records; 0 once the next one is late. By the times
/// at which they were received: they may be handed on in bunches.
double LiveTable::rateOf(std::size_t number, Clock::time_point now) const {
    const SignalExtremes::List& list = seen_.lists[number];
    const SignalExtremes::List& then = counted_.front().lists[number];
    std::uint64_t records = list.records - then.records;
    std::int64_t sinceNs = then.lastNs;
    if (then.records == 0) {
        records = list.records - std::min<std::uint64_t>(list.records, 1);
        sinceNs = list.firstNs;
    } else if (records == 0) {
        records = list.records > 1 ? 1 : 0;
        sinceNs = list.beforeNs;
    }
    if (records == 0 || list.lastNs <= sinceNs) return 0;
    const double perSecond = static_cast<double>(records) * 1e9 / static_cast<double>(list.lastNs - sinceNs);
    const double silence = asSeconds(now.time_since_epoch()) - static_cast<double>(list.lastNs) / 1e9;
    return silence > 2 / perSecond + asSeconds(kGrace) ? 0 : perSecond;
}

TableStatus LiveTable::status(const session::IMeasured& session, double seconds) {
    const session::MeasurementStats stats = session.statistics();
    if (!recording_.empty() && Clock::now() >= nextSize_) {
        size_ = sizeText(storage::directoryBytes(recording_)) + " recorded";
        nextSize_ = Clock::now() + kBetweenSizes;
    }
    const std::string losses = lossesInWords(stats);
    TableStatus status;
    status.summary = fmt::format("{} s  {}  {} records{}{}", formatFixed(seconds, 1),
                                 session::sessionStateName(session.state()), stats.records,
                                 losses.empty() ? ", no losses" : "", size_.empty() ? "" : ", " + size_);
    if (!losses.empty()) status.losses = "LOSSES: " + losses;
    // A hint below it is for later.
    const std::string message = lastMessage();
    status.message = message.substr(0, message.find('\n'));
    return status;
}

std::string LiveTable::valueText(const Column& column, bool known, const SignalExtremes::Bytes& bytes) const {
    if (!known) return "-";
    std::string text = value::valueText(column.element, bytes.data(), style_);
    if (text.size() <= greatestNumber()) return text;
    const value::Value physical =
        value::physicalValue(column.element, value::rawValue(column.element, bytes.data()));
    if (std::holds_alternative<std::string>(physical)) return text;
    return numberWithin(greatestNumber(), value::toDouble(physical));
}

std::size_t LiveTable::greatestNumber() const {
    constexpr std::size_t kReadable = 13;
    constexpr std::size_t kAllDigits = 26;
    return style_ == value::NumberStyle::exact ? kAllDigits : kReadable;
}

SignalRow LiveTable::row(std::size_t signal, Clock::time_point now) const {
    const Column& column = columns_[signal];
    const SignalExtremes::Signal& seen = seen_.signals[signal];
    return {valueText(column, seen.seen, seen.last), valueText(column, seen.ranged, seen.least),
            valueText(column, seen.ranged, seen.greatest), rateText(rateOf(column.list, now))};
}

void LiveTable::update(const session::IMeasured& session, double seconds) {
    const auto now = Clock::now();
    if (now < nextDraw_) return;
    nextDraw_ = now + kBetweenDrawings;
    extremes_.copyTo(seen_);
    countRecords(now);
    const TableStatus shown = status(session, seconds);
    const ScreenSize size = screen_->size();
    room_ = table_->room(size, shown);
    scroll(0);
    std::vector<SignalRow> rows;
    for (std::size_t i = first_; i < std::min(first_ + room_, table_->count()); ++i)
        rows.push_back(row(i, now));
    screen_->draw(table_->lines(size, shown, first_, rows));
}

}  // namespace lm::cli
