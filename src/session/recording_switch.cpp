#include "session/recording_switch.h"

#include <chrono>
#include <utility>

namespace lm::session {

void RecordingSwitch::begin(const storage::GroupRange& recording, std::int64_t nowNs, std::int64_t sinceNs) {
    const std::lock_guard lock(mutex_);
    recording_ = recording;
    sinceNs_ = sinceNs;
    outages_.beginRecording(nowNs, recording);
}

void RecordingSwitch::end() {
    const std::lock_guard lock(mutex_);
    if (!recording_) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    outages_.endRecording(std::chrono::nanoseconds(now).count(), *recording_);
    recording_.reset();
}

bool RecordingSwitch::isOn() const {
    const std::lock_guard lock(mutex_);
    return recording_.has_value();
}

void RecordingSwitch::write(std::size_t list, std::int64_t timeNs, const std::uint8_t* data,
                            std::size_t size) {
    const std::lock_guard lock(mutex_);
    if (recording_ && timeNs >= sinceNs_) recording_->write(list, timeNs, data, size);
}

bool RecordingSwitch::note(const std::string& line) {
    const std::lock_guard lock(mutex_);
    if (!recording_) return false;
    recording_->note(line);
    return true;
}

void RecordingSwitch::onState(SessionState state, const std::string& message, std::int64_t lastSampleNs,
                              std::int64_t nowNs) {
    const std::lock_guard lock(mutex_);
    outages_.onState(state, message, lastSampleNs, nowNs, target());
}

void RecordingSwitch::finish(const std::optional<OutageNotes::Silence>& silence, std::int64_t nowNs) {
    const std::lock_guard lock(mutex_);
    if (silence) outages_.endSilent(silence->fromNs, silence->toNs, target());
    outages_.end(nowNs, target());
}

}  // namespace lm::session
