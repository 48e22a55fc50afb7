#include "cli/console_printer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "cli/message_output.h"
#include "core/thread.h"

namespace lm::cli {
namespace {

// Text is handed on in pieces that a pipe takes whole, cut behind a line where there is one: lines of other
// writers to the same pipe do not end up inside ours.
std::size_t pieceLength(std::string_view text) {
    if (text.size() <= NonblockingOutput::kMaxWrite) return text.size();
    const auto lineEnd = text.rfind('\n', NonblockingOutput::kMaxWrite - 1);
    return lineEnd == std::string_view::npos ? NonblockingOutput::kMaxWrite : lineEnd + 1;
}

std::uint64_t countLines(std::string_view text) {
    return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

Console::~Console() {
    finishPrinting(std::chrono::milliseconds(0));
}

Result<void> Console::startPrinting(std::uint32_t interval) {
    constexpr const char* kContext = "cannot start the printer";
    interval_ = interval;
    wakeUp_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeUp_.valid()) return Error::fromErrno(errno, kContext);
    // Memory that is not to be had ends the start, not the thread.
    queue_.reserve(kQueueBytes);
    batch_.reserve(kQueueBytes);
    output_.emplace(descriptor_);
    auto thread = startThread(kContext, [this] { printLoop(); });
    if (!thread.ok()) return thread.error();
    printer_ = std::move(thread).value();
    pthread_setname_np(printer_.native_handle(), "printer");
    return {};
}

void Console::setLines(std::unique_ptr<IMeasurementLines> lines, std::size_t listCount) {
    recordCounts_.assign(listCount, 0);
    lines_ = std::move(lines);
    enqueueLine(lines_->start());
}

void Console::onRecord(const xcp::DaqRecord& record) {
    const std::lock_guard lock(mutex_);
    if (!firstNs_) firstNs_ = record.timeNs();
    if (interval_ == 0 || record.listIndex >= recordCounts_.size()) return;
    if (recordCounts_[record.listIndex]++ % interval_ != 0) return;
    enqueue({record.timeNs() - *firstNs_, record.listIndex, record.size}, record.data);
}

void Console::enqueue(const QueuedHeader& header, const void* data) {
    if (failure_.load() != 0) return;
    const std::size_t end = queue_.size();
    const std::size_t needed = sizeof(header) + header.size;
    if (deadline_ || (end != 0 && end + needed > kQueueBytes)) {
        ++skipped_;
        return;
    }
    queue_.resize(end + needed);
    std::memcpy(queue_.data() + end, &header, sizeof(header));
    if (header.size != 0) std::memcpy(queue_.data() + end + sizeof(header), data, header.size);
    ++queuedLines_;
    filled_.notify_one();
}

void Console::enqueueLine(const std::string& line) {
    if (line.empty()) return;
    const std::lock_guard lock(mutex_);
    enqueue({0, kWholeLine, line.size()}, line.data());
}

void Console::onStateChanged(session::SessionState state, const std::string& message,
                             const std::string& hint) {
    onEcuStateChanged("", state, message, hint);
}

void Console::onEcuStateChanged(const std::string& ecu, session::SessionState state,
                                const std::string& message, const std::string& hint) {
    if (lines_) enqueueLine(lines_->state(ecu, state, message, hint));
    if (message.empty()) return;
    std::string lines =
        "** " + (ecu.empty() ? "" : ecu + ": ") + session::sessionStateName(state) + ": " + message + "\n";
    if (!hint.empty() && isNewHint(hint)) lines += "hint: " + hint + "\n";
    printMessage(lines);
}

bool Console::isNewHint(const std::string& hint) {
    const std::lock_guard lock(mutex_);
    return std::exchange(lastHint_, hint) != hint;
}

void Console::finishPrinting(std::chrono::milliseconds limit) {
    if (!printer_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        deadline_ = std::chrono::steady_clock::now() + limit;
    }
    filled_.notify_one();
    const std::uint64_t one = 1;
    // A counter that far from its limit takes the one.
    [[maybe_unused]] const ssize_t count = ::write(wakeUp_.get(), &one, sizeof(one));
    printer_.join();
    output_.reset();
}

std::optional<std::int64_t> Console::firstNs() const {
    const std::lock_guard lock(mutex_);
    return firstNs_;
}

std::uint64_t Console::skippedLines() const {
    const std::lock_guard lock(mutex_);
    return skipped_;
}

void Console::printLoop() {
    constexpr std::size_t kTextBlock = 64 * 1024;
    std::string text;
    while (takeBatch()) {
        std::uint64_t unprinted = 0;
        for (std::size_t at = 0; at < batch_.size();) {
            QueuedHeader header;
            std::memcpy(&header, batch_.data() + at, sizeof(header));
            if (unprinted == 0) {
                appendLine(text, header, batch_.data() + at + sizeof(header));
            } else {
                ++unprinted;
            }
            at += sizeof(header) + header.size;
            const bool write = text.size() >= kTextBlock || at == batch_.size();
            if (unprinted == 0 && write && !writeLines(text)) unprinted = countLines(text);
        }
        if (unprinted == 0) continue;
        const std::lock_guard lock(mutex_);
        if (failure_.load() == 0) skipped_ += unprinted + queuedLines_;
        return;
    }
}

bool Console::takeBatch() {
    batch_.clear();
    std::unique_lock lock(mutex_);
    filled_.wait(lock, [this] { return !queue_.empty() || deadline_; });
    batch_.swap(queue_);
    queuedLines_ = 0;
    return !batch_.empty();
}

void Console::appendLine(std::string& text, const QueuedHeader& header, const std::uint8_t* data) const {
    if (header.listIndex == kWholeLine) {
        text.append(reinterpret_cast<const char*>(data), header.size);
    } else {
        lines_->appendRecord(text, header.listIndex, header.sinceFirstNs, {data, header.size});
    }
}

// Writes and empties the text. False when the output failed or the deadline has passed; the text is then what
// is left.
bool Console::writeLines(std::string& text) {
    std::string_view rest = text;
    bool goOn = true;
    while (!rest.empty() && goOn) {
        const auto taken = output_->tryWrite(rest.substr(0, pieceLength(rest)));
        if (!taken) {
            failure_.store(taken.error().sysErrno);
            goOn = false;
        } else if (taken.value() == 0) {
            goOn = waitForReader();
        } else {
            endsInsideLine_ = rest[taken.value() - 1] != '\n';
            rest.remove_prefix(taken.value());
        }
    }
    text.erase(0, text.size() - rest.size());
    return goOn;
}

// False when the deadline has passed.
bool Console::waitForReader() {
    std::optional<std::chrono::steady_clock::time_point> deadline;
    {
        const std::lock_guard lock(mutex_);
        deadline = deadline_;
    }
    if (!deadline) {
        output_->waitWritable(wakeUp_.get(), std::chrono::milliseconds(-1));
        return true;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    // Its event has been seen; a descriptor below 0 is not waited for.
    output_->waitWritable(-1, left);
    return true;
}

}  // namespace lm::cli
