#include "cli/described_daq.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

constexpr std::array<std::string_view, 4> kIdentifications = {"absolute", "relative byte", "relative word",
                                                              "relative word aligned"};

std::string ms(std::int64_t ns) {
    return formatShortest(static_cast<double>(ns) / 1e6) + " ms";
}

std::string timestampText(const a2l::XcpDaq& daq) {
    if (!daq.timestamp) return "no timestamp";
    const std::string tick = daq.timestamp->tickNs() == 0 ? "" : " x " + ms(daq.timestamp->tickNs());
    return fmt::format("timestamp {} byte{}{}", daq.timestamp->size, tick,
                       daq.timestamp->fixed ? ", fixed" : "");
}

std::string limitsLine(const a2l::XcpDaq& daq) {
    std::vector<std::string> parts;
    if (daq.maxDaq != 0) parts.push_back(fmt::format("{} list(s)", daq.maxDaq));
    if (daq.minDaq != 0) parts.push_back(fmt::format("{} of them predefined", daq.minDaq));
    if (daq.knowsIdentification)
        parts.push_back(fmt::format("{} identification", kIdentifications.at(daq.identification)));
    if (daq.maxEntrySize != 0) parts.push_back(fmt::format("max ODT entry {}", daq.maxEntrySize));
    if (daq.granularity != 1) parts.push_back(fmt::format("in steps of {} byte", daq.granularity));
    if (daq.overloadInPid) parts.emplace_back("overload in the PID");
    if (daq.overloadEvent) parts.emplace_back("overload as event");
    if (daq.prescaler) parts.emplace_back("prescaler");
    return parts.empty() ? "" : fmt::format("  limits         {}\n", fmt::join(parts, ", "));
}

std::string listLine(const a2l::XcpDaqList& list, bool predefined) {
    std::string line =
        fmt::format("  list {:<4} {} ODT(s) of {} entries", list.number, list.maxOdt, list.maxEntries);
    if (!list.direction.empty()) line += ", " + printableText(list.direction);
    if (list.firstPid) line += fmt::format(", first PID {}", *list.firstPid);
    if (list.fixedEvent) line += fmt::format(", event {} only", *list.fixedEvent);
    if (predefined) line += ", predefined";
    return line + "\n";
}

void writeList(JsonWriter& json, const a2l::XcpDaqList& list, bool predefined) {
    json.beginObject();
    json.member("list", list.number);
    if (!list.direction.empty()) json.member("direction", list.direction);
    json.member("maxOdt", list.maxOdt);
    json.member("maxEntries", list.maxEntries);
    if (list.firstPid) json.member("firstPid", *list.firstPid);
    if (list.fixedEvent) json.member("fixedEvent", *list.fixedEvent);
    json.member("predefined", predefined);
    json.endObject();
}

void writeEvent(JsonWriter& json, const a2l::XcpEvent& event) {
    json.beginObject();
    json.member("event", event.channel);
    json.member("name", event.name);
    json.member("shortName", event.shortName);
    json.member("cycleNs", event.cycleNs());
    json.member("direction", event.direction);
    json.member("maxDaqList", event.maxDaqList);
    json.member("priority", event.priority);
    if (!event.consistency.empty()) json.member("consistency", event.consistency);
    json.endObject();
}

}  // namespace

std::string describedDaqLines(const a2l::XcpDaq& daq) {
    std::string lines =
        fmt::format("{:<14} {}, {}\n", "DAQ", daq.dynamic ? "dynamic" : "static", timestampText(daq)) +
        limitsLine(daq);
    for (const a2l::XcpDaqList& list : daq.lists)
        lines += listLine(list, daq.isPredefined(list));
    for (const a2l::XcpEvent& event : daq.events) {
        lines +=
            fmt::format("  event {:<3} {:<20} {}, {}, priority {}\n", event.channel,
                        printableText(event.name), event.cycleNs() == 0 ? "not cyclic" : ms(event.cycleNs()),
                        printableText(event.direction), event.priority);
    }
    return lines;
}

void writeDescribedDaq(JsonWriter& json, const a2l::XcpDaq& daq) {
    json.key("daq").beginObject();
    json.member("dynamic", daq.dynamic);
    json.member("timestampBytes", daq.timestamp ? daq.timestamp->size : std::uint8_t{0});
    if (daq.timestamp) {
        json.member("timestampTickNs", daq.timestamp->tickNs());
        json.member("timestampFixed", daq.timestamp->fixed);
    }
    json.member("maxDaq", daq.maxDaq);
    json.member("minDaq", daq.minDaq);
    if (daq.knowsIdentification) json.member("identification", kIdentifications.at(daq.identification));
    json.member("maxOdtEntry", daq.maxEntrySize);
    json.member("entryGranularity", daq.granularity);
    json.member("prescaler", daq.prescaler);
    json.key("lists").beginArray();
    for (const a2l::XcpDaqList& list : daq.lists)
        writeList(json, list, daq.isPredefined(list));
    json.endArray();
    json.key("events").beginArray();
    for (const a2l::XcpEvent& event : daq.events)
        writeEvent(json, event);
    json.endArray();
    json.endObject();
}

}  // namespace lm::cli
