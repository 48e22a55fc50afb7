#include "session/refusal_hint.h"

#include <spdlog/fmt/fmt.h>

namespace lm::session {
namespace {

/// "event 1 (cyclic_10ms)"
std::string eventText(std::uint16_t number, const xcp::DaqCapabilities& capabilities) {
    const xcp::EventChannel* const event = capabilities.findEvent(number);
    const std::string name = event == nullptr ? std::string() : std::string(event->name.c_str());
    return name.empty() ? fmt::format("event {}", number) : fmt::format("event {} ({})", number, name);
}

}  // namespace

std::string refusalHint(const MeasurementPlan& plan, const xcp::DaqCapabilities& capabilities,
                        const xcp::DaqRefusal& refusal) {
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
        return fmt::format(
            "the ECU refused {} ({} byte(s) at 0x{:08X}) in {}: does the A2L belong to its software?",
            element.name, element.size(), element.address.address, event);
    }
    const std::string more = count == 1 ? "" : fmt::format(" and {} more signal(s)", count - 1);
    return fmt::format("the ECU refused {}, which {}{} should be measured in", event, element.name, more);
}

}  // namespace lm::session
