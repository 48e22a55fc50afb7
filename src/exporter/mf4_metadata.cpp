#include "exporter/mf4_metadata.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/platform.h"
#include "core/text.h"
#include "storage/format/recording_source.h"

namespace lm::exporter {
namespace {

using Link = Mf4Blocks::Link;

constexpr std::uint16_t kVersion = 410;
constexpr std::string_view kProgram = "xcplumo";
constexpr double kSecondsPerNs = 1e-9;

std::string xmlElement(std::string_view name, std::string_view text) {
    return fmt::format("<{0}>{1}</{0}>", name, xmlText(text));
}

void addIdentification(Mf4Blocks& blocks) {
    Mf4Fields fields;
    fields.text("MDF", 8, ' ').text("4.10", 8, ' ').text(kProgram, 8, ' ').zeros(4).put(kVersion);
    blocks.raw(fields.zeros(34));
}

/// A time in UTC with the offset of the local time, if that is known. Whether a part of it is daylight saving
/// is not told.
void putTime(Mf4Fields& fields, std::int64_t utcNs, std::optional<std::int32_t> offsetMinutes) {
    constexpr std::uint8_t kOffsetsValid = 2;
    fields.put(static_cast<std::uint64_t>(std::max<std::int64_t>(utcNs, 0)));
    fields.put(static_cast<std::uint16_t>(offsetMinutes.value_or(0))).zeros(2);
    fields.put(offsetMinutes ? kOffsetsValid : std::uint8_t{0});
}

Link addHistory(Mf4Blocks& blocks, std::int64_t nowUtcNs) {
    const std::string inner = xmlElement("TX", "exported from a recording") +
                              xmlElement("tool_id", "xcplumo-cli") + xmlElement("tool_vendor", "XCP-Lumo") +
                              xmlElement("tool_version", XCPLUMO_VERSION);
    const Link comment = blocks.comment("FHcomment", inner);
    Mf4Fields fields;
    putTime(fields, nowUtcNs, utcOffsetMinutes(nowUtcNs));
    return blocks.add("FH", {0, comment}, fields.zeros(3));
}

Link addHeader(Mf4Blocks& blocks, const storage::RecordingInfo& info) {
    Mf4Fields fields;
    putTime(fields, info.startUtcNs, info.utcOffsetMinutes);
    return blocks.add("HD", std::vector<Link>(6), fields.zeros(19));
}

Link addHeaderComment(Mf4Blocks& blocks, const storage::RecordingInfo& info) {
    std::string properties;
    const auto property = [&properties](std::string_view name, std::string_view value) {
        if (value.empty()) return;
        properties += fmt::format("<e name=\"{}\">{}</e>", xmlText(name), xmlText(value));
    };
    property("subject", info.ecu);
    property("recording", info.name);
    property("source", info.source);
    property("A2L", info.a2lName);
    property("A2L SHA-256", info.a2lSha256);
    property("EPK", info.ecuEpk);
    property("A2L EPK", info.a2lEpk);
    for (const storage::EcuInfo& ecu : info.ecus) {
        property(ecu.name + " source", ecu.source);
        property(ecu.name + " A2L", ecu.a2lName);
        property(ecu.name + " A2L SHA-256", ecu.a2lSha256);
        property(ecu.name + " EPK", ecu.ecuEpk);
        property(ecu.name + " A2L EPK", ecu.a2lEpk);
    }
    if (info.part) property("part", std::to_string(info.part->number));
    property("command line", fmt::format("{}", fmt::join(info.commandLine, " ")));
    property("tool", "xcplumo-cli " XCPLUMO_VERSION);
    return blocks.comment("HDcomment", xmlElement("TX", info.name) + "<common_properties>" + properties +
                                           "</common_properties>");
}

/// The number of a bus in MDF.
std::uint8_t busNumber(storage::BusKind bus) {
    constexpr std::array<std::uint8_t, 3> kNumbers = {1, 2, 7};
    return kNumbers.at(static_cast<std::size_t>(bus));
}

Link addSource(Mf4Blocks& blocks, const std::string& ecu, const std::string& source) {
    const std::uint8_t bus = busNumber(storage::busKindOf(source));
    constexpr std::uint8_t kEcu = 1;
    const Link name = ecu.empty() ? 0 : blocks.text(ecu);
    const Link path = source.empty() ? 0 : blocks.text(source);
    return blocks.add("SI", {name, path, 0}, Mf4Fields().put(kEcu).put(bus).zeros(6));
}

struct ChannelPlace {
    std::uint8_t type;  ///< 0: values, 2: master
    std::uint8_t sync;  ///< 1: time
    std::uint8_t dataType;
    std::uint8_t bitOffset;
    std::uint32_t byteOffset;
    std::uint32_t bitCount;
};

using Limits = std::optional<std::pair<double, double>>;

Link addChannelBlock(Mf4Blocks& blocks, const std::vector<Link>& links, const ChannelPlace& place,
                     std::optional<std::uint8_t> precision, const Limits& limits) {
    constexpr std::uint32_t kPrecisionValid = 4;
    constexpr std::uint32_t kLimitsValid = 16;
    Mf4Fields data;
    data.put(place.type).put(place.sync).put(place.dataType).put(place.bitOffset);
    data.put(place.byteOffset).put(place.bitCount);
    data.put((precision ? kPrecisionValid : 0U) | (limits ? kLimitsValid : 0U));
    data.zeros(4).put(precision.value_or(0)).zeros(3);
    const auto [lower, upper] = limits.value_or(std::pair(0.0, 0.0));
    data.zeros(2 * sizeof(double)).put(lower).put(upper).zeros(2 * sizeof(double));
    return blocks.add("CN", links, data);
}

/// The limits of the A2L when they are two and leave values between them: MDF knows no single one, and
/// "0 0" stands for none in many files.
Limits limitsOf(const storage::SignalInfo& signal) {
    const double lower = signal.lowerLimit;
    const double upper = signal.upperLimit;
    if (!std::isfinite(lower) || !std::isfinite(upper) || !(lower < upper)) return std::nullopt;
    return std::pair(lower, upper);
}

/// Nanoseconds since the start; a conversion makes them seconds.
Link addTimeChannel(Mf4Blocks& blocks, const std::string& name, Link source, Link next) {
    constexpr std::uint8_t kLinear = 1;
    constexpr std::uint8_t kMaster = 2;
    constexpr std::uint8_t kTime = 1;
    constexpr std::uint8_t kSignedLittle = 2;
    constexpr std::uint8_t kDecimals = 9;
    const Link unit = blocks.text("s");
    const Link conversion = addConversion(blocks, {kLinear, {0, kSecondsPerNs}, {}, {}}, unit, kDecimals);
    return addChannelBlock(blocks, {next, 0, blocks.text(name), source, conversion, 0, unit, 0},
                           {kMaster, kTime, kSignedLittle, 0, 0, 64}, kDecimals, {});
}

/// What the signal is, and what became of its conversion.
Link addChannelComment(Mf4Blocks& blocks, const Mf4Channel& channel) {
    const storage::SignalInfo& signal = *channel.signal;
    if (channel.isRawBeside) {
        return blocks.comment("CNcomment", xmlElement("TX", "raw values of " + signal.name));
    }
    std::string text = signal.description;
    if (const std::string& obstacle = channel.conversion.obstacle; !obstacle.empty()) {
        text += (text.empty() ? "" : " ") +
                fmt::format("(physical values, computed by the export: MDF cannot express the {})", obstacle);
    }
    std::string inner = text.empty() ? "" : xmlElement("TX", text);
    if (!signal.displayName.empty()) {
        inner += "<names>" + xmlElement("display", signal.displayName) + "</names>";
    }
    return inner.empty() ? 0 : blocks.comment("CNcomment", inner);
}

Link addChannel(Mf4Blocks& blocks, const Mf4Channel& channel, Link source, Link next) {
    const storage::SignalInfo& signal = *channel.signal;
    // Unit, decimals and limits are those of the physical values.
    const bool isRaw = channel.isRawBeside;
    const std::string& unitText = signal.conversion->unit();
    const Link unit = isRaw || unitText.empty() ? 0 : blocks.text(unitText);
    const auto precision = isRaw ? std::nullopt : mf4Precision(signal.conversion->formatText());
    const Link conversion = addConversion(blocks, channel.conversion, unit, precision);
    const Link comment = addChannelComment(blocks, channel);
    return addChannelBlock(blocks, {next, 0, blocks.text(channel.name), source, conversion, 0, unit, comment},
                           {0, 0, channel.dataType, channel.bitOffset, channel.byteOffset, channel.bitCount},
                           precision, isRaw ? Limits() : limitsOf(signal));
}

Link addChannelGroup(Mf4Blocks& blocks, const std::string& time, const ExportGroup& group,
                     const Mf4Layout& layout, Link source) {
    Link first = 0;
    for (auto channel = layout.channels().rbegin(); channel != layout.channels().rend(); ++channel)
        first = addChannel(blocks, *channel, source, first);
    first = addTimeChannel(blocks, time, source, first);
    const storage::GroupInfo& about = group.reader.info();
    std::string text =
        about.cycleNs > 0
            ? fmt::format("cycle {} ms", formatGeneral(static_cast<double>(about.cycleNs) / 1e6))
            : "not cyclic";
    if (group.every > 1) text += fmt::format(", one of {} records", group.every);
    // Plain, as readers that know no XML show it too.
    const Link comment = blocks.text(text);
    Mf4Fields data;
    data.zeros(8).put(group.recordCount()).zeros(8);
    data.put(static_cast<std::uint32_t>(layout.stride())).zeros(4);
    return blocks.add("CG", {0, first, blocks.text(about.name), source, 0, comment}, data);
}

/// Of each of several ECUs, by name; of the only one under the empty name that its groups tell.
std::map<std::string, Link> addSources(Mf4Blocks& blocks, const storage::RecordingInfo& info) {
    std::map<std::string, Link> sources;
    for (const storage::EcuInfo& ecu : info.ecus)
        sources[ecu.name] = addSource(blocks, ecu.name, ecu.source);
    if (info.ecus.empty()) sources[""] = addSource(blocks, info.ecu, info.source);
    return sources;
}

}  // namespace

Mf4Metadata makeMetadata(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                         const std::vector<Mf4Layout>& layouts, std::int64_t nowUtcNs) {
    constexpr std::size_t kFirstDataGroup = 0;
    constexpr std::size_t kHistory = 1;
    constexpr std::size_t kComment = 5;
    Mf4Metadata metadata;
    Mf4Blocks& blocks = metadata.blocks;
    addIdentification(blocks);
    const Link header = addHeader(blocks, info);
    blocks.setLink(header, kHistory, addHistory(blocks, nowUtcNs));
    blocks.setLink(header, kComment, addHeaderComment(blocks, info));
    const auto sources = addSources(blocks, info);
    const std::string time = timeName(groups);
    Link before = header;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        // That of a group of no one's is none.
        const auto source = sources.find(groups[i].reader.info().ecu);
        const Link channelGroup = addChannelGroup(blocks, time, groups[i], layouts[i],
                                                  source == sources.end() ? 0 : source->second);
        const Link dataGroup = blocks.add("DG", {0, channelGroup, 0, 0}, Mf4Fields().zeros(8));
        // The next data group is the first link of a data group, and the first one that of the header.
        blocks.setLink(before, kFirstDataGroup, dataGroup);
        before = dataGroup;
        metadata.channelGroups.push_back(channelGroup);
        metadata.dataGroups.push_back(dataGroup);
    }
    return metadata;
}

Mf4Events makeEvents(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                     const std::vector<storage::Gaps>& gaps, const Mf4Metadata& metadata,
                     std::uint64_t place) {
    constexpr std::size_t kNext = 0;
    constexpr std::uint8_t kAcquisitionInterrupt = 2;
    constexpr std::uint8_t kTime = 1;
    constexpr std::uint8_t kBegin = 1;
    constexpr std::uint8_t kEnd = 2;
    Mf4Events events{Mf4Blocks(place), 0};
    Mf4Blocks& blocks = events.blocks;
    Link before = 0;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const Link scope = metadata.channelGroups[i];
        const auto add = [&](std::uint8_t range, Link begin, std::int64_t timeNs) {
            const Link name = blocks.text("gap in " + groups[i].reader.info().name);
            Mf4Fields data;
            data.put(kAcquisitionInterrupt).put(kTime).put(range).zeros(5).put(std::uint32_t{1}).zeros(4);
            data.put(static_cast<std::uint64_t>(timeNs) - static_cast<std::uint64_t>(info.startHostNs));
            const Link event = blocks.add("EV", {0, 0, begin, name, 0, scope}, data.put(kSecondsPerNs));
            if (before == 0) events.first = event;
            if (before != 0) blocks.setLink(before, kNext, event);
            before = event;
            return event;
        };
        for (const storage::Gap& gap : gaps[i].gaps) {
            const Link begin = add(kBegin, 0, gap.beginNs);
            add(kEnd, begin, gap.endNs);
        }
    }
    return events;
}

}  // namespace lm::exporter
