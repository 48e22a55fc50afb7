#include "exporter/mf4_outages.h"

#include <cstdint>
#include <string>

namespace lm::exporter {
namespace {

constexpr std::size_t kNext = 0;
constexpr double kSecondsPerNs = 1e-9;

enum class Type : std::uint8_t { acquisitionInterrupt = 2, startTrigger = 3, stopTrigger = 4 };
enum class Range : std::uint8_t { point = 0, begin = 1, end = 2 };

struct Place {
    std::uint8_t type;
    std::uint8_t range;
    Mf4Blocks::Link begin;
};

Mf4Blocks::Link add(Mf4Blocks& blocks, const Place& place, const std::string& name,
                    std::uint64_t sinceStart) {
    constexpr std::uint8_t kTime = 1;
    Mf4Fields data;
    data.put(place.type).put(kTime).put(place.range).zeros(13).put(sinceStart);
    return blocks.add("EV", {0, 0, place.begin, blocks.text(name), 0}, data.put(kSecondsPerNs));
}

/// Wraps rather than overflows: times of damaged files are any number.
std::uint64_t sinceStart(std::int64_t timeNs, const storage::RecordingInfo& info) {
    return static_cast<std::uint64_t>(timeNs) - static_cast<std::uint64_t>(info.startHostNs);
}

}  // namespace

void addOutages(Mf4Events& events, const storage::RecordingInfo& info,
                const std::vector<storage::Outage>& outages) {
    Mf4Blocks& blocks = events.blocks;
    Mf4Blocks::Link next = events.first;
    const auto addOne = [&](Range range, Mf4Blocks::Link begin, const std::string& name,
                            std::int64_t timeNs) {
        const auto type = static_cast<std::uint8_t>(Type::acquisitionInterrupt);
        return add(blocks, {type, static_cast<std::uint8_t>(range), begin}, name, sinceStart(timeNs, info));
    };
    for (auto outage = outages.rbegin(); outage != outages.rend(); ++outage) {
        if (!outage->endNs) {
            const Mf4Blocks::Link point =
                addOne(Range::point, 0, "outage to the end: " + outage->reason, outage->beginNs);
            blocks.setLink(point, kNext, next);
            next = point;
            continue;
        }
        const std::string name = "outage: " + outage->reason + "; " + outage->outcome;
        const Mf4Blocks::Link begin = addOne(Range::begin, 0, name, outage->beginNs);
        const Mf4Blocks::Link end = addOne(Range::end, begin, name, *outage->endNs);
        blocks.setLink(begin, kNext, end);
        blocks.setLink(end, kNext, next);
        next = begin;
    }
    events.first = next;
}

void addTriggers(Mf4Events& events, const storage::RecordingInfo& info,
                 const std::vector<storage::Trigger>& triggers) {
    for (auto trigger = triggers.rbegin(); trigger != triggers.rend(); ++trigger) {
        const auto type =
            static_cast<std::uint8_t>(trigger->isStart ? Type::startTrigger : Type::stopTrigger);
        const Mf4Blocks::Link point = add(events.blocks, {type, static_cast<std::uint8_t>(Range::point), 0},
                                          trigger->text, sinceStart(trigger->timeNs, info));
        events.blocks.setLink(point, kNext, events.first);
        events.first = point;
    }
}

}  // namespace lm::exporter
