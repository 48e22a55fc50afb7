#include "cli/offline_info.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "cli/described_daq.h"
#include "cli/described_memory.h"
#include "cli/offline_a2l.h"
#include "core/printable_text.h"
#include "session/transport_choice.h"

namespace lm::cli {
namespace {

/// Words with commas between them.
class Parts {
  public:
    void add(std::string part) { parts_.push_back(std::move(part)); }
    template <typename Value>
    void add(fmt::format_string<const Value&> format, const std::optional<Value>& value) {
        if (value) parts_.push_back(fmt::format(format, *value));
    }
    std::string text() const {
        return parts_.empty() ? "nothing further" : fmt::format("{}", fmt::join(parts_, ", "));
    }

  private:
    std::vector<std::string> parts_;
};

std::string version(double number) {
    const auto whole = static_cast<std::uint32_t>(number);
    return fmt::format("{}.{}", whole >> 8U, whole & 0xFFU);
}

std::string canText(const a2l::XcpOnCan& can) {
    Parts parts;
    parts.add("CMD 0x{:X}", can.masterId);
    parts.add("RES 0x{:X}", can.slaveId);
    parts.add("broadcast 0x{:X}", can.broadcastId);
    parts.add("{} bit/s", can.baudrate);
    if (can.fd) parts.add("CAN FD");
    parts.add("data {} bit/s", can.dataBaudrate);
    parts.add("MAX_DLC {}", can.maxDlc);
    if (can.maxDlcRequired) parts.add("MAX_DLC required");
    for (const a2l::XcpDaqListId& list : can.daqListIds) {
        parts.add(list.id ? fmt::format("DAQ list {} 0x{:X}", list.list, *list.id)
                          : fmt::format("DAQ list {} variable", list.list));
    }
    return parts.text();
}

std::string udpText(const a2l::XcpOnUdp& udp) {
    Parts parts;
    if (!udp.host.empty()) parts.add("host " + udp.host);
    parts.add("port {}", udp.port);
    return parts.text();
}

std::string layerText(const a2l::XcpProtocolLayer& layer) {
    Parts parts;
    parts.add("XCP " + version(layer.version));
    if (layer.byteOrder) parts.add(std::string(byteOrderName(*layer.byteOrder)));
    parts.add("AG {}", layer.addressGranularity);
    parts.add(fmt::format("MAX_CTO {}, MAX_DTO {}", layer.maxCto, layer.maxDto));
    return parts.text();
}

class OfflineReport final : public IReport {
  public:
    /// Of protocol layer and DAQ those of the medium, where its block has some of its own.
    OfflineReport(const a2l::Description& description, const session::SessionConfig& config)
        : description_(description), xcp_(description.xcp), file_(config.a2l.string()) {
        if (const auto* medium = session::describedMedium(config, description.xcp)) xcp_.overrule(*medium);
    }

    void print(Output& output) const override {
        std::string lines = header() + protocol() + transports();
        if (xcp_.daq) lines += describedDaqLines(*xcp_.daq);
        lines += describedMemoryLines(description_.parameters, xcp_.pag);
        lines +=
            line("objects", fmt::format("{} measurement(s), {} parameter(s), {} axis object(s), {} "
                                        "conversion(s)",
                                        description_.measurements.size(), description_.characteristics.size(),
                                        description_.axisPoints.size(), description_.compuMethods.size()));
        output.append(lines);
    }

    void write(JsonWriter& json) const override {
        json.key("a2l").beginObject();
        json.member("file", file_);
        if (description_.asap2Version) {
            const auto [major, minor] = *description_.asap2Version;
            json.member("version", fmt::format("{}.{}", major, minor));
        }
        json.member("project", description_.projectName);
        json.member("module", description_.moduleName);
        json.member("measurements", description_.measurements.size());
        json.member("parameters", description_.characteristics.size());
        json.member("axes", description_.axisPoints.size());
        json.member("conversions", description_.compuMethods.size());
        json.endObject();
        json.member("ccp", xcp_.ccp);
        if (xcp_.protocolLayer) writeLayer(json, *xcp_.protocolLayer);
        json.key("transports").beginObject();
        writeTransports(json);
        json.endObject();
        if (xcp_.daq) writeDescribedDaq(json, *xcp_.daq);
        writeDescribedMemory(json, description_.parameters, xcp_.pag);
    }

  private:
    static std::string line(std::string_view label, std::string_view text) {
        return fmt::format("{:<14} {}\n", label, printableText(text));
    }

    static std::string named(std::string_view name, std::string_view longIdentifier) {
        return longIdentifier.empty() ? std::string(name) : fmt::format("{}, \"{}\"", name, longIdentifier);
    }

    std::string header() const {
        std::string version;
        if (description_.asap2Version) {
            const auto [major, minor] = *description_.asap2Version;
            version = fmt::format(", version {}.{}", major, minor);
        }
        return line("A2L", file_ + version) +
               line("project", named(description_.projectName, description_.projectLongIdentifier)) +
               line("module", named(description_.moduleName, description_.moduleLongIdentifier));
    }

    std::string protocol() const {
        if (xcp_.isCcpOnly())
            return line("protocol", "CCP only (ASAP1B_CCP), which this program does not speak");
        if (!xcp_.protocolLayer) return line("protocol", "not told");
        const a2l::XcpProtocolLayer& layer = *xcp_.protocolLayer;
        std::string lines = line("protocol", layerText(layer));
        lines += line("timeouts", fmt::format("T1 to T7: {} ms", fmt::join(layer.timeoutsMs, ", ")));
        if (!layer.optionalCommands.empty())
            lines += line("commands", fmt::format("{}", fmt::join(layer.optionalCommands, " ")));
        return lines;
    }

    std::string transports() const {
        std::string lines;
        if (xcp_.can) lines += line("XCP on CAN", canText(*xcp_.can));
        if (xcp_.udp) lines += line("XCP on UDP/IP", udpText(*xcp_.udp));
        if (xcp_.tcp)
            lines += line("XCP on TCP/IP",
                          udpText(xcp_.tcpTarget.value_or(a2l::XcpOnUdp{})) + " (not supported yet)");
        if (xcp_.serial) {
            Parts parts;
            parts.add("{} baud", xcp_.serial->baudrate);
            lines += line("XCP on serial", parts.text());
        }
        for (const std::string& keyword : xcp_.unsupported)
            lines += line(keyword, "not supported");
        return lines;
    }

    static void writeLayer(JsonWriter& json, const a2l::XcpProtocolLayer& layer) {
        json.key("protocolLayer").beginObject();
        json.member("version", version(layer.version));
        json.listMember("timeoutsMs", layer.timeoutsMs);
        json.member("maxCto", layer.maxCto);
        json.member("maxDto", layer.maxDto);
        if (layer.byteOrder) json.member("byteOrder", byteOrderName(*layer.byteOrder));
        member(json, "addressGranularity", layer.addressGranularity);
        json.listMember("optionalCommands", layer.optionalCommands);
        json.endObject();
    }

    template <typename Value>
    static void member(JsonWriter& json, std::string_view name, const std::optional<Value>& value) {
        if (value) json.member(name, *value);
    }

    static void writeTarget(JsonWriter& json, std::string_view name, const a2l::XcpOnUdp& target) {
        json.key(name).beginObject();
        if (!target.host.empty()) json.member("host", target.host);
        member(json, "port", target.port);
        json.endObject();
    }

    static void writeListIds(JsonWriter& json, const std::vector<a2l::XcpDaqListId>& lists) {
        std::vector<std::uint32_t> fixed;
        for (const a2l::XcpDaqListId& list : lists)
            if (list.id) fixed.push_back(*list.id);
        json.listMember("daqListIds", fixed);
        json.key("daqLists").beginArray();
        for (const a2l::XcpDaqListId& list : lists) {
            json.beginObject();
            json.member("list", list.list);
            member(json, "id", list.id);
            json.endObject();
        }
        json.endArray();
    }

    void writeTransports(JsonWriter& json) const {
        if (xcp_.can) {
            json.key("can").beginObject();
            member(json, "cmdId", xcp_.can->masterId);
            member(json, "resId", xcp_.can->slaveId);
            member(json, "broadcastId", xcp_.can->broadcastId);
            member(json, "bitrate", xcp_.can->baudrate);
            json.member("fd", xcp_.can->fd);
            member(json, "dataBitrate", xcp_.can->dataBaudrate);
            member(json, "maxDlc", xcp_.can->maxDlc);
            json.member("maxDlcRequired", xcp_.can->maxDlcRequired);
            writeListIds(json, xcp_.can->daqListIds);
            json.endObject();
        }
        if (xcp_.udp) writeTarget(json, "udp", *xcp_.udp);
        if (xcp_.tcp) writeTarget(json, "tcp", xcp_.tcpTarget.value_or(a2l::XcpOnUdp{}));
        if (!xcp_.serial) return;
        json.key("serial").beginObject();
        member(json, "baudrate", xcp_.serial->baudrate);
        json.endObject();
    }

    const a2l::Description& description_;
    a2l::XcpInterface xcp_;
    const std::string file_;
};

}  // namespace

int showOfflineInfo(Workplace& place) {
    const auto description = loadA2l(place);
    if (!description) return 1;
    place.results.show(OfflineReport(*description, place.config));
    return 0;
}

}  // namespace lm::cli
