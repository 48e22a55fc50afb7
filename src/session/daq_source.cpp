#include "session/daq_source.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"

namespace lm::session {
namespace {

constexpr const char* kMend = "\"source\": \"a2l\" under \"daq\" in the configuration takes it from the A2L";
constexpr const char* kEcuCounts = "the ECU";
constexpr const char* kA2lCounts = "the A2L";

xcp::EventChannel describedEvent(const a2l::XcpEvent& event) {
    constexpr std::uint8_t kDaq = 0x04;
    constexpr std::uint8_t kStim = 0x08;
    xcp::EventChannel channel;
    channel.number = event.channel;
    channel.properties = event.direction == "DAQ" ? kDaq : event.direction == "STIM" ? kStim : kDaq | kStim;
    channel.maxDaqList = event.maxDaqList;
    channel.name = event.name;
    channel.cycleNs = event.cycleNs();
    channel.priority = event.priority;
    return channel;
}

std::vector<xcp::Odt> describedOdts(const std::vector<a2l::XcpOdt>& described, std::uint8_t granularity) {
    std::vector<xcp::Odt> odts;
    std::uint32_t recordSize = 0;
    for (const a2l::XcpOdt& from : described) {
        xcp::Odt& odt = odts.emplace_back();
        odt.pid = from.number;
        odt.recordOffset = recordSize;
        for (const a2l::XcpOdtEntry& entry : from.entries) {
            const auto size = static_cast<std::uint16_t>(entry.size * granularity);
            odt.entries.push_back(
                {entry.address, size, odt.payloadSize, entry.bitOffset != a2l::XcpOdtEntry::kWholeElement});
            odt.payloadSize = static_cast<std::uint16_t>(odt.payloadSize + size);
        }
        recordSize += odt.payloadSize;
    }
    return odts;
}

xcp::DaqListInfo describedList(const a2l::XcpDaqList& list, bool predefined, std::uint8_t granularity) {
    xcp::DaqListInfo info;
    info.number = list.number;
    info.predefined = predefined;
    info.offersDaq = list.direction != "STIM";
    info.maxOdt = list.maxOdt;
    info.maxEntries = list.maxEntries;
    info.fixedEvent = list.fixedEvent;
    info.firstPid = list.firstPid;
    info.odts = describedOdts(list.odts, granularity);
    return info;
}

template <typename Told>
std::string differs(std::string_view what, const Told& ecu, const Told& a2l, const char* counts) {
    return fmt::format(
        "the A2L's DAQ block does not fit the ECU: its {} is {}, the A2L says {} ({} counts{})", what, ecu,
        a2l, counts, counts == kA2lCounts ? ": daq.source" : "");
}

const char* configurationName(bool dynamic) {
    return dynamic ? "dynamic" : "static";
}

}  // namespace

const char* originName(Origin origin) {
    switch (origin) {
        case Origin::ecu:
            return "ecu";
        case Origin::a2l:
            return "a2l";
        case Origin::none:
            break;
    }
    return "none";
}

bool DaqOrigins::anyFromA2l() const {
    for (const Origin origin : {configuration, resolution, events, lists})
        if (origin == Origin::a2l) return true;
    return false;
}

xcp::DaqCapabilities describedCapabilities(const a2l::XcpDaq& daq, std::uint8_t granularity) {
    xcp::DaqCapabilities all;
    all.dynamicConfiguration = daq.dynamic;
    all.prescalerSupported = daq.prescaler;
    all.resumeSupported = daq.resume;
    all.pidOffSupported = daq.pidOff;
    all.overloadInPid = daq.overloadInPid;
    all.overloadEvent = daq.overloadEvent;
    all.maxDaq = daq.maxDaq;
    all.maxEventChannel = daq.maxEventChannel;
    all.minDaq = daq.minDaq;
    all.identification = static_cast<xcp::DaqIdentification>(daq.identification);
    all.addressExtensionType = daq.addressExtension;
    all.entryGranularity = daq.granularity;
    all.maxEntrySize = daq.maxEntrySize;
    if (daq.timestamp) {
        all.timestampSupported = true;
        all.timestampSize = daq.timestamp->size;
        all.timestampFixed = daq.timestamp->fixed;
        all.tickNs = daq.timestamp->tickNs();
    }
    for (const a2l::XcpEvent& event : daq.events)
        all.events.push_back(describedEvent(event));
    for (const a2l::XcpDaqList& list : daq.lists)
        all.lists.push_back(describedList(list, daq.isPredefined(list), granularity));
    return all;
}

Result<DaqOrigins> DaqSource::ask(xcp::DaqCapabilities& capabilities) const {
    const std::uint8_t granularity = master_.connectInfo().granularity();
    xcp::DaqParts wanted;
    DaqOrigins origins{Origin::ecu, Origin::ecu, Origin::ecu, Origin::none};
    const auto begin = [&] {
        capabilities = {};
        if (!prefersA2l()) return;
        capabilities = describedCapabilities(*interface_.daq, granularity);
        // A guess at the identification field would tear every DTO apart.
        wanted.processor = !interface_.daq->knowsIdentification;
        wanted.resolution = false;
        wanted.events = capabilities.events.empty();
    };
    const auto told = xcp::inStep(master_, [&] {
        begin();
        return master_.askDaqParts(wanted, capabilities);
    });
    if (!told) return withHint(told.error());
    if (!wanted.processor) origins.configuration = Origin::a2l;
    if (!wanted.resolution) origins.resolution = Origin::a2l;
    if (!wanted.events) origins.events = Origin::a2l;
    if (wanted.resolution && !told.value().resolution) origins.resolution = Origin::none;
    if (wanted.events && !told.value().events) origins.events = Origin::none;
    // An ECU that tells no number of event channels does not know it: it is not one without events.
    if (capabilities.maxEventChannel == 0 && interface_.daq && !interface_.daq->events.empty()) {
        capabilities.events = describedCapabilities(*interface_.daq, granularity).events;
        origins.events = Origin::a2l;
    }
    overrule(capabilities);
    return origins;
}

Result<void> DaqSource::askLists(xcp::DaqCapabilities& capabilities, DaqOrigins& origins) const {
    const bool mustKnow = !capabilities.dynamicConfiguration;
    if (!mustKnow && capabilities.minDaq == 0) return {};
    if (prefersA2l() && takeDescribedLists(capabilities)) {
        origins.lists = Origin::a2l;
        return {};
    }
    auto asked = xcp::inStep(master_, [&] { return master_.askDaqLists(capabilities); });
    if (!asked && mustKnow) return withHint(asked.error());
    if (!asked) log::info("predefined DAQ lists not known: {}", asked.error().text());
    if (!asked) return {};
    origins.lists = asked.value() ? Origin::ecu : Origin::none;
    completeLayouts(capabilities);
    if (asked.value() || !mustKnow) return {};
    return withHint({.code = ErrorCode::unsupported,
                     .message = "the ECU does not tell its static DAQ lists (GET_DAQ_LIST_INFO)",
                     .detail = xcp::kErrCmdUnknown});
}

/// The lists that the A2L describes; those of the ECU when there are none.
bool DaqSource::takeDescribedLists(xcp::DaqCapabilities& capabilities) const {
    capabilities.lists = describedCapabilities(*interface_.daq, master_.connectInfo().granularity()).lists;
    return !capabilities.lists.empty();
}

/// What the ECU's answers leave out of the lists.
void DaqSource::completeLayouts(xcp::DaqCapabilities& capabilities) const {
    if (!interface_.daq) return;
    const auto described = describedCapabilities(*interface_.daq, master_.connectInfo().granularity()).lists;
    for (xcp::DaqListInfo& list : capabilities.lists) {
        for (const xcp::DaqListInfo& other : described) {
            if (other.number != list.number) continue;
            if (!list.firstPid) list.firstPid = other.firstPid;
            if (list.predefined && list.odts.empty()) list.odts = other.odts;
        }
    }
}

/// Where an ECU leaves a question open that the A2L answers.
Error DaqSource::withHint(Error error) const {
    const bool open = error.detail == xcp::kErrCmdUnknown || error.code == ErrorCode::timeout;
    if (!open || prefersA2l() || !error.hint.empty()) return error;
    error.hint = interface_.daq ? kMend : "the A2L has no DAQ block that could tell it instead";
    return error;
}

void DaqSource::overrule(xcp::DaqCapabilities& capabilities) const {
    const SessionConfig::Timestamp& stamp = config_.xcp.overrides.timestamp;
    const auto apply = [](const char* what, auto& value, auto counts, const char* key) {
        if (value == counts) return;
        log::warn("the DAQ timestamp's {} is told as {}: {} counts (xcp.overrides.timestamp.{})", what, value,
                  counts, key);
        value = counts;
    };
    if (stamp.size) {
        unsigned size = capabilities.timestampSize;
        apply("size", size, unsigned{*stamp.size}, "size");
        capabilities.timestampSize = *stamp.size;
        capabilities.timestampSupported = *stamp.size != 0;
        capabilities.timestampFixed = capabilities.timestampFixed && *stamp.size != 0;
    }
    if (stamp.tickNs) apply("tick in ns", capabilities.tickNs, std::int64_t{*stamp.tickNs}, "tickNs");
    if (stamp.fixed) apply("fixed mode", capabilities.timestampFixed, *stamp.fixed, "fixed");
}

std::vector<std::string> DaqSource::contradictions(const xcp::DaqCapabilities& capabilities,
                                                   const DaqOrigins& origins) const {
    if (!interface_.daq) return {};
    xcp::DaqCapabilities ecu = capabilities;
    xcp::DaqParts told{origins.configuration == Origin::ecu, origins.resolution == Origin::ecu, false};
    if (prefersA2l()) {
        const auto glanced = xcp::inStep(master_, [&] { return master_.glanceAtDaq(ecu); });
        if (!glanced)
            log::info("the A2L's DAQ block is not compared with the ECU: {}", glanced.error().text());
        told = glanced ? glanced.value() : xcp::DaqParts{false, false, false};
    }
    const char* const counts = origins.configuration == Origin::a2l ? kA2lCounts : kEcuCounts;
    const a2l::XcpDaq& a2l = *interface_.daq;
    std::vector<std::string> found;
    if (told.processor && a2l.dynamic != ecu.dynamicConfiguration) {
        // Numbers of lists mean something else then.
        return {differs("configuration", configurationName(ecu.dynamicConfiguration),
                        configurationName(a2l.dynamic), counts)};
    }
    if (told.processor) {
        const auto compare = [&](const char* what, unsigned inEcu, unsigned inA2l) {
            if (inEcu != inA2l) found.push_back(differs(what, inEcu, inA2l, counts));
        };
        if (a2l.knowsIdentification)
            compare("type of identification field", static_cast<unsigned>(ecu.identification),
                    a2l.identification);
        if (!a2l.dynamic && ecu.maxDaq < a2l.maxDaq) compare("number of DAQ lists", ecu.maxDaq, a2l.maxDaq);
        compare("number of predefined DAQ lists", ecu.minDaq, a2l.minDaq);
    }
    if (told.resolution)
        compareTimestamp(ecu, origins.resolution == Origin::a2l ? kA2lCounts : kEcuCounts, found);
    return found;
}

/// An override settles what it overrules, and nothing else.
void DaqSource::compareTimestamp(const xcp::DaqCapabilities& ecu, const char* counts,
                                 std::vector<std::string>& found) const {
    const auto& a2l = interface_.daq->timestamp;
    const SessionConfig::Timestamp& overruled = config_.xcp.overrides.timestamp;
    if (!a2l) return;
    if (!overruled.size && a2l->size != ecu.timestampSize)
        found.push_back(differs("timestamp size", unsigned{ecu.timestampSize}, unsigned{a2l->size}, counts));
    const std::int64_t tickNs = a2l->tickNs();
    if (!overruled.tickNs && tickNs != 0 && tickNs != ecu.tickNs)
        found.push_back(differs("timestamp tick in ns", ecu.tickNs, tickNs, counts));
}

std::string DaqSource::layoutTold(const DaqOrigins& origins) const {
    const bool a2l = origins.configuration == Origin::a2l || origins.resolution == Origin::a2l;
    const bool overruled = config_.xcp.overrides.timestamp != SessionConfig::Timestamp{};
    if (!a2l && !overruled) return {};
    return fmt::format("how a DTO is laid out was told by {}{}{}",
                       a2l ? "the A2L's DAQ block (daq.source \"a2l\")" : "", a2l && overruled ? " and " : "",
                       overruled ? "xcp.overrides.timestamp" : "");
}

std::string DaqSource::advice(const DaqOrigins& origins) const {
    if (!interface_.daq) return {};
    const bool resolution = origins.resolution == Origin::none && interface_.daq->timestamp;
    const bool events = origins.events == Origin::none && !interface_.daq->events.empty();
    if (!resolution && !events) return {};
    return fmt::format("the ECU does not tell its {}: {}",
                       resolution && events ? "DAQ resolution and events"
                       : resolution         ? "DAQ resolution"
                                            : "events",
                       kMend);
}

}  // namespace lm::session
