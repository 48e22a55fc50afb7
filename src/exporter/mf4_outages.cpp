#include "exporter/mf4_outages.h"

#include <cstdint>
#include <string>

namespace lm::exporter {
namespace {

constexpr std::size_t kNext = 0;
constexpr double kSecondsPerNs = 1e-9;

enum class Range : std::uint8_t { point = 0, begin = 1, end = 2 };

}  // namespace

void addOutages(Mf4Events& events, const storage::RecordingInfo& info,
                const std::vector<storage::Outage>& outages) {
    constexpr std::uint8_t kAcquisitionInterrupt = 2;
    constexpr std::uint8_t kTime = 1;
    Mf4Blocks& blocks = events.blocks;
    Mf4Blocks::Link next = events.first;
    const auto add = [&](Range range, Mf4Blocks::Link begin, const std::string& name, std::int64_t timeNs) {
        Mf4Fields data;
        data.put(kAcquisitionInterrupt).put(kTime).put(static_cast<std::uint8_t>(range)).zeros(13);
        data.put(static_cast<std::uint64_t>(timeNs) - static_cast<std::uint64_t>(info.startHostNs));
        return blocks.add("EV", {0, 0, begin, blocks.text(name), 0}, data.put(kSecondsPerNs));
    };
    for (auto outage = outages.rbegin(); outage != outages.rend(); ++outage) {
        if (!outage->endNs) {
            const Mf4Blocks::Link point =
                add(Range::point, 0, "outage to the end: " + outage->reason, outage->beginNs);
            blocks.setLink(point, kNext, next);
            next = point;
            continue;
        }
        const std::string name = "outage: " + outage->reason + "; " + outage->outcome;
        const Mf4Blocks::Link begin = add(Range::begin, 0, name, outage->beginNs);
        const Mf4Blocks::Link end = add(Range::end, begin, name, *outage->endNs);
        blocks.setLink(begin, kNext, end);
        blocks.setLink(end, kNext, next);
        next = begin;
    }
    events.first = next;
}

}  // namespace lm::exporter
