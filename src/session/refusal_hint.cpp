#include "session/refusal_hint.h"

#include <spdlog/fmt/fmt.h>

namespace lm::session {
namespace {

// Error codes of the XCP standard.
constexpr std::int32_t kBusy = 0x10;
constexpr std::int32_t kDaqActive = 0x11;
constexpr std::int32_t kOutOfRange = 0x22;
constexpr std::int32_t kAccessDenied = 0x24;
constexpr std::int32_t kMemoryOverflow = 0x30;

/// "event 1 (cyclic_10ms)"
std::string eventText(std::uint16_t number, const xcp::DaqCapabilities& capabilities) {
    const xcp::EventChannel* const event = capabilities.findEvent(number);
    const std::string name = event == nullptr ? std::string() : std::string(event->name.c_str());
    return name.empty() ? fmt::format("event {}", number) : fmt::format("event {} ({})", number, name);
}

/// `what` may not be to blame: the ECU names the command at which it failed, not the cause.
std::string told(std::int32_t code, const std::string& what) {
    switch (code) {
        case kBusy:
            return "the ECU was busy when it came to " + what + ": try again";
        case kDaqActive:
            return "lists were running in the ECU when it came to " + what + ": does another tool measure?";
        default:
            return "the ECU refused " + what;
    }
}

}  // namespace

std::string refusalHint(const MeasurementPlan& plan, const xcp::DaqCapabilities& capabilities,
                        const xcp::DaqRefusal& refusal, std::int32_t code) {
    if (code == kMemoryOverflow) {
        return fmt::format(
            "{} signal(s) do not fit into the ECU's DAQ memory: measure fewer of them; of an "
            "array, curve or map NAME[0] is one element",
            plan.planned.size());
    }
    if (!refusal.list) return {};
    const PlannedSignal* first = nullptr;
    std::size_t count = 0;
    for (const PlannedSignal& signal : plan.planned) {
        if (signal.listIndex != *refusal.list) continue;
        if (refusal.offset && signal.recordOffset != *refusal.offset) continue;
        if (first == nullptr) first = &signal;
        ++count;
    }
    if (first == nullptr) return {};
    const value::Element& element = first->element;
    const std::string event = eventText(first->event, capabilities);
    if (refusal.offset) {
        const bool unknownPlace = code == kOutOfRange || code == kAccessDenied;
        return told(code, fmt::format("{} ({} byte(s) at 0x{:08X}) in {}{}", element.name, element.size(),
                                      element.address.address, event,
                                      unknownPlace ? ": does the A2L belong to its software?" : ""));
    }
    const std::string more = count == 1 ? "" : fmt::format(" and {} more signal(s)", count - 1);
    return told(code, fmt::format("{}, which {}{} should be measured in", event, element.name, more));
}

}  // namespace lm::session
