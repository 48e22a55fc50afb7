#include "session/ecu_note.h"

#include <algorithm>
#include <chrono>

#include "session/ecu_check.h"
#include "session/identity.h"
#include "session/master_memory.h"
#include "session/page_control.h"

namespace lm::session {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongest{2};

bool hasSegments(const xcp::Master& master, const a2l::Description& description) {
    const auto& all = description.parameters.segments;
    return (master.connectInfo().resource & static_cast<std::uint8_t>(xcp::Resource::calPag)) != 0 &&
           std::any_of(all.begin(), all.end(), [](const auto& segment) { return segment.xcp.has_value(); });
}

void addSums(storage::EcuNote& note, PageControl& pages, Clock::time_point until) {
    const auto overview = pages.look();
    if (!overview) {
        if (overview.error().code != ErrorCode::unsupported)
            note.trouble = "segments: " + overview.error().text();
        return;
    }
    for (const SegmentState& segment : overview.value().segments) {
        const auto sums = pages.sums(segment, {.byEcuAlone = true, .until = until});
        if (!sums && sums.error().code == ErrorCode::unsupported) continue;
        if (!sums) {
            note.trouble = "segment " + std::to_string(segment.number) + ": " + sums.error().text();
            return;
        }
        note.sums.push_back(
            {segment.number, segment.xcpPage, segment.address.address, segment.size, sumText(sums.value())});
    }
}

}  // namespace

storage::EcuNote noteEcu(xcp::Master& master, const a2l::Description& description,
                         const SessionConfig& config, const StopToken& stop, std::int64_t nowNs) {
    storage::EcuNote note;
    note.timeNs = nowNs;
    const auto until = Clock::now() + kLongest;
    if (config.identityCheck != SessionConfig::IdentityCheck::off) {
        MasterMemory memory(master, {.wholeUnits = true});
        const Identity identity = readIdentity(memory, description.parameters);
        note.epk = identity.ecu;
        if (identity.state == Identity::State::unreadable) {
            note.trouble = "EPK: " + (identity.error ? identity.error->text() : "");
            if (identity.error && identity.error->detail == Error::kNoDetail) return note;
        }
    }
    if (stop.requested() || !hasSegments(master, description)) return note;
    PageControl pages(master, description, stop);
    addSums(note, pages, until);
    return note;
}

}  // namespace lm::session
