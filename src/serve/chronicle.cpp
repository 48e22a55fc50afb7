#include "serve/chronicle.h"

#include <chrono>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace lm::serve {

std::int64_t utcNs() {
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string utcText() {
    const std::int64_t ms = utcNs() / 1000000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(static_cast<std::time_t>(ms / 1000)),
                       ms % 1000);
}

void Chronicle::note(nlohmann::json entry) {
    const std::lock_guard lock(mutex_);
    entry["number"] = ++last_;
    entry["time"] = utcText();
    const std::size_t bytes = entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).size();
    while (!entries_.empty() && (entries_.size() == kMost || bytes_ + bytes > kMostBytes)) {
        bytes_ -= entries_.front().bytes;
        entries_.pop_front();
    }
    bytes_ += bytes;
    entries_.push_back({std::move(entry), bytes});
}

std::uint64_t Chronicle::last() const {
    const std::lock_guard lock(mutex_);
    return last_;
}

nlohmann::json Chronicle::after(std::uint64_t after) const {
    const std::lock_guard lock(mutex_);
    nlohmann::json entries = nlohmann::json::array();
    for (const Entry& entry : entries_) {
        if (entry.json["number"].get<std::uint64_t>() > after) entries.push_back(entry.json);
    }
    return {{"entries", std::move(entries)}, {"last", last_}};
}

}  // namespace lm::serve
