#include "exporter/mf4_events.h"

#include <cstdint>
#include <string>

#include <spdlog/fmt/fmt.h>

namespace lm::exporter {
namespace {

constexpr std::size_t kNext = 0;
constexpr double kSecondsPerNs = 1e-9;

enum class Type : std::uint8_t { acquisitionInterrupt = 2, marker = 6 };
enum class Range : std::uint8_t { point = 0, begin = 1, end = 2 };
enum class Cause : std::uint8_t { other = 0, user = 4 };

/// Adds events in front of those that are there.
class EventChain {
  public:
    EventChain(Mf4Events& events, const storage::RecordingInfo& info) : events_(events), info_(info) {}

    Mf4Blocks::Link add(Type type, Range range, Cause cause, Mf4Blocks::Link begin, const std::string& name,
                        std::int64_t timeNs) {
        constexpr std::uint8_t kTime = 1;
        Mf4Fields data;
        data.put(static_cast<std::uint8_t>(type)).put(kTime).put(static_cast<std::uint8_t>(range));
        data.put(static_cast<std::uint8_t>(cause)).zeros(12);
        data.put(static_cast<std::uint64_t>(timeNs) - static_cast<std::uint64_t>(info_.startHostNs));
        Mf4Blocks& blocks = events_.blocks;
        return blocks.add("EV", {0, 0, begin, blocks.text(name), 0}, data.put(kSecondsPerNs));
    }
    void putInFront(Mf4Blocks::Link first, Mf4Blocks::Link last) {
        events_.blocks.setLink(last, kNext, events_.first);
        events_.first = first;
    }
    void addMarker(const std::string& name, std::int64_t timeNs) {
        const auto marker = add(Type::marker, Range::point, Cause::user, 0, name, timeNs);
        putInFront(marker, marker);
    }

  private:
    Mf4Events& events_;
    const storage::RecordingInfo& info_;
};

void addOutage(EventChain& chain, Mf4Blocks& blocks, const storage::Outage& outage) {
    constexpr Type kType = Type::acquisitionInterrupt;
    if (!outage.endNs) {
        const auto point = chain.add(kType, Range::point, Cause::other, 0,
                                     "outage to the end: " + outage.reason, outage.beginNs);
        return chain.putInFront(point, point);
    }
    const std::string name = "outage: " + outage.reason + "; " + outage.outcome;
    const auto begin = chain.add(kType, Range::begin, Cause::other, 0, name, outage.beginNs);
    const auto end = chain.add(kType, Range::end, Cause::other, begin, name, *outage.endNs);
    blocks.setLink(begin, kNext, end);
    chain.putInFront(begin, end);
}

}  // namespace

void addHappenings(Mf4Events& events, const storage::RecordingInfo& info,
                   const storage::RecordingEvents& happenings) {
    EventChain chain(events, info);
    for (auto write = happenings.writes.rbegin(); write != happenings.writes.rend(); ++write)
        chain.addMarker(
            fmt::format("{} = {}, before {}, by {}", write->name, write->after, write->before, write->by),
            write->timeNs);
    for (auto marker = happenings.markers.rbegin(); marker != happenings.markers.rend(); ++marker)
        chain.addMarker(marker->text, marker->timeNs);
    for (auto outage = happenings.outages.rbegin(); outage != happenings.outages.rend(); ++outage)
        addOutage(chain, events.blocks, *outage);
}

}  // namespace lm::exporter
