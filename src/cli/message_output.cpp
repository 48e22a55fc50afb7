#include "cli/message_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <pthread.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "core/printable_text.h"
#include "core/thread.h"

namespace lm::cli {
namespace {

constexpr std::chrono::milliseconds kPatience{500};
constexpr std::chrono::seconds kLongestEnd{2};
// How soon a thread that waits for the reader notices that it is to end.
constexpr std::chrono::milliseconds kWait{50};

std::atomic<MessageOutput*> started{nullptr};

std::string_view colourOf(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::debug:
            return "\033[36m";
        case spdlog::level::info:
            return "\033[32m";
        case spdlog::level::warn:
            return "\033[33m\033[1m";
        case spdlog::level::err:
            return "\033[31m\033[1m";
        default:
            return "";
    }
}

/// `shown` is what lastMessage() gives of it.
void printLogLine(std::string_view text, std::string_view shown) {
    if (MessageOutput* const output = started.load()) return output->print(text, shown);
    // Nothing can be told when standard error does not take it.
    std::fwrite(text.data(), 1, text.size(), stderr);
}

class MessageSink final : public spdlog::sinks::base_sink<std::mutex> {
  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        // Warnings hold texts of A2L files, which must not steer the terminal.
        const std::string payload = printableText({message.payload.data(), message.payload.size()});
        spdlog::details::log_msg printable = message;
        printable.payload = payload;
        spdlog::memory_buf_t text;
        formatter_->format(printable, text);
        const std::string_view line(text.data(), text.size());
        const auto level = spdlog::level::to_string_view(message.level);
        const std::string shown =
            fmt::format("{}: {}", std::string_view(level.data(), level.size()), payload);
        if (!coloured_ || printable.color_range_end <= printable.color_range_start)
            return printLogLine(line, shown);
        const auto begin = printable.color_range_start;
        const auto end = printable.color_range_end;
        printLogLine(fmt::format("{}{}{}\033[m{}", line.substr(0, begin), colourOf(message.level),
                                 line.substr(begin, end - begin), line.substr(end)),
                     shown);
    }
    void flush_() override {}

  private:
    const bool coloured_ =
        spdlog::details::os::in_terminal(stderr) && spdlog::details::os::is_color_terminal();
};

}  // namespace

Result<void> MessageOutput::start() {
    queue_.reserve(kQueueBytes);
    auto thread = startThread("cannot start the printer of messages", [this] { writeQueue(); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    started.store(this);
    return {};
}

MessageOutput::~MessageOutput() {
    if (!thread_.joinable()) return;
    started.store(nullptr);
    {
        const std::lock_guard lock(mutex_);
        held_ = false;
        deadline_ = Clock::now() + kPatience;
        latestDeadline_ = Clock::now() + kLongestEnd;
    }
    filled_.notify_one();
    thread_.join();
}

void MessageOutput::hold() {
    const std::lock_guard lock(mutex_);
    held_ = true;
}

void MessageOutput::release() {
    const std::lock_guard lock(mutex_);
    held_ = false;
    filled_.notify_one();
}

std::string MessageOutput::last() const {
    const std::lock_guard lock(mutex_);
    return last_;
}

void MessageOutput::print(std::string_view text, std::string_view shown) {
    const std::lock_guard lock(mutex_);
    last_ = shown.substr(0, shown.find_last_not_of('\n') + 1);
    if (queue_.empty() && !held_) text.remove_prefix(writeSome(text));
    if (text.empty()) return;
    const std::string dropped = droppedLine();
    if (!queue_.empty() && queue_.size() + dropped.size() + text.size() > kQueueBytes) {
        dropped_ += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
        return;
    }
    queue_ += dropped;
    queue_ += text;
    dropped_ = 0;
    filled_.notify_one();
}

void MessageOutput::writeQueue() {
    ::pthread_setname_np(::pthread_self(), "messages");
    std::unique_lock lock(mutex_);
    for (;;) {
        filled_.wait(lock, [this] { return (!queue_.empty() && !held_) || deadline_; });
        if (queue_.empty()) return;
        const std::size_t written = writeSome(queue_);
        queue_.erase(0, written);
        if (queue_.empty()) {
            queue_ += droppedLine();
            dropped_ = 0;
        }
        if (queue_.empty()) continue;
        if (deadline_ && written > 0) deadline_ = std::min(Clock::now() + kPatience, latestDeadline_);
        if (deadline_ && Clock::now() >= *deadline_) return;
        lock.unlock();
        output_.waitWritable(-1, kWait);
        lock.lock();
    }
}

/// How many bytes are done with.
std::size_t MessageOutput::writeSome(std::string_view text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const auto taken = output_.tryWrite(text.substr(written));
        // Nothing can be told when standard error fails.
        if (!taken) return text.size();
        if (taken.value() == 0) break;
        written += taken.value();
    }
    return written;
}

std::string MessageOutput::droppedLine() const {
    if (dropped_ == 0) return "";
    return fmt::format("{} line(s) not printed, standard error did not take them\n", dropped_);
}

void printMessage(std::string_view text) {
    printLogLine(text, text);
}

void printMessageLine(const std::string& line) {
    printMessage(printableText(line) + "\n");
}

void holdMessages() {
    MessageOutput* const output = started.load();
    if (output != nullptr && ::isatty(STDERR_FILENO) == 1) output->hold();
}

void releaseMessages() {
    if (MessageOutput* const output = started.load()) output->release();
}

std::string lastMessage() {
    const MessageOutput* const output = started.load();
    return output == nullptr ? "" : output->last();
}

void setUpLogging(bool verbose) {
    // Standard output belongs to the results.
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("", std::make_shared<MessageSink>()));
    spdlog::set_level(verbose ? spdlog::level::debug : spdlog::level::warn);
}

}  // namespace lm::cli
