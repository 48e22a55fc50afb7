#include "session/console_log.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "core/log.h"
#include "core/printable_text.h"

namespace lm::session {

void ConsoleLog::onText(std::string_view line) {
    log::debug("ECU: {}", line);
    add(ConsoleLineKind::received, std::string(line));
}

Result<void> ConsoleLog::addSent(std::string_view line, const std::function<Result<void>()>& send) {
    const std::lock_guard one(sending_);
    ConsoleLine sent{std::chrono::system_clock::now(), ConsoleLineKind::sent, printableText(line)};
    {
        const std::lock_guard lock(mutex_);
        holding_ = true;
    }
    Result<void> result = send();
    const std::lock_guard lock(mutex_);
    if (result.ok()) appendLocked(std::move(sent));
    releaseLocked();
    return result;
}

void ConsoleLog::add(ConsoleLineKind kind, std::string text) {
    const std::lock_guard lock(mutex_);
    ConsoleLine line{std::chrono::system_clock::now(), kind, std::move(text)};
    if (!holding_) return appendLocked(std::move(line));
    heldBytes_ += line.text.size();
    held_.push_back(std::move(line));
    if (held_.size() >= kCapacity / 2 || heldBytes_ >= kMaxBytes / 2) releaseLocked();
}

void ConsoleLog::releaseLocked() {
    holding_ = false;
    for (ConsoleLine& held : held_)
        appendLocked(std::move(held));
    held_.clear();
    heldBytes_ = 0;
}

void ConsoleLog::appendLocked(ConsoleLine line) {
    bytes_ += line.text.size();
    lines_.push_back(std::move(line));
    while (lines_.size() > kCapacity || bytes_ > kMaxBytes) {
        bytes_ -= lines_.front().text.size();
        lines_.pop_front();
        ++fallenOut_;
    }
}

ConsoleLog::Reading ConsoleLog::read(std::uint64_t& position) const {
    const std::lock_guard lock(mutex_);
    Reading reading;
    const std::uint64_t first = std::max(position, fallenOut_);
    reading.missed = first - position;
    std::copy(lines_.begin() + static_cast<std::ptrdiff_t>(first - fallenOut_), lines_.end(),
              std::back_inserter(reading.lines));
    position = fallenOut_ + lines_.size();
    return reading;
}

}  // namespace lm::session
