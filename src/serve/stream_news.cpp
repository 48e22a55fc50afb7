#include "serve/stream_news.h"

namespace lm::serve {
namespace {

constexpr std::chrono::milliseconds kCounters{500};

std::string newsText(const nlohmann::json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// False when it was dropped: it is told again then.
bool tellEntries(http::EventStream& stream, const char* event, const Chronicle& chronicle, bool isFirst,
                 std::uint64_t& told) {
    const std::uint64_t last = chronicle.last();
    if (!isFirst && last == told) return true;
    const nlohmann::json news = chronicle.after(isFirst ? last : told);
    if (!stream.push(event, newsText(news), 0)) return false;
    told = news["last"].get<std::uint64_t>();
    return true;
}

}  // namespace

void StreamNews::look() {
    const nlohmann::json state = state_();
    text_ = newsText(state);
    nlohmann::json key{state.at("state"), state.at("recording"), nullptr};
    if (key[1].is_object()) key[1] = key[1].at("name");
    if (const auto& measurement = state.at("measurement"); measurement.is_object()) {
        key[2] = {measurement.at("signals"), measurement.at("reconnects"), measurement.at("lostOdts"),
                  measurement.at("missedCycles"), measurement.at("overloads")};
    }
    key_ = newsText(key);
}

void StreamNews::tell(http::EventStream& stream, Told& told, Clock::time_point now) const {
    tellState(stream, told, now);
    const bool isFirst = !told.any;
    const bool toldLog = tellEntries(stream, "log", log_, isFirst, told.log);
    const bool toldWrites = tellEntries(stream, "writes", writes_, isFirst, told.writes);
    told.any = told.any || (toldLog && toldWrites);
}

void StreamNews::tellState(http::EventStream& stream, Told& told, Clock::time_point now) const {
    const bool isChange = told.key != key_;
    const bool isDue = told.state != text_ && now - told.when >= kCounters;
    if (!isChange && !isDue) return;
    if (!stream.push("state", text_, 0)) return;
    told.key = key_;
    told.state = text_;
    told.when = now;
}

}  // namespace lm::serve
