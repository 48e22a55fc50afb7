#include "cli/command_info.h"

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cli/offline_info.h"
#include "cli/option_set.h"
#include "cli/several_ecus.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

constexpr std::uint8_t kResourceCalibration = 0x01;
constexpr std::uint8_t kResourceProgramming = 0x10;

void writeConnection(JsonWriter& json, const xcp::ConnectInfo& info) {
    json.key("resources").beginArray();
    if ((info.resource & kResourceCalibration) != 0) json.value("CAL/PAG");
    if (info.offersDaq()) json.value("DAQ");
    if ((info.resource & kResourceProgramming) != 0) json.value("PGM");
    json.endArray();
    json.member("byteOrder", info.byteOrder() == ByteOrder::bigEndian ? "Motorola" : "Intel");
    json.member("addressGranularity", info.granularity());
    json.member("maxCto", info.maxCto);
    json.member("maxDto", info.maxDto);
}

void writeList(JsonWriter& json, const xcp::DaqListInfo& list) {
    json.beginObject();
    json.member("list", list.number);
    json.member("direction", list.offersDaq ? "DAQ" : "STIM");
    json.member("maxOdt", list.maxOdt);
    json.member("maxEntries", list.maxEntries);
    if (list.firstPid) json.member("firstPid", *list.firstPid);
    if (list.fixedEvent) json.member("fixedEvent", *list.fixedEvent);
    json.member("predefined", list.predefined);
    json.endObject();
}

void writeDaq(JsonWriter& json, const xcp::DaqCapabilities& daq, const session::DaqOrigins& origins,
              const std::vector<session::DaqListId>& listIds) {
    json.key("daq").beginObject();
    json.member("dynamic", daq.dynamicConfiguration);
    json.member("timestampBytes", daq.timestampSize);
    json.member("timestampTickNs", daq.tickNs);
    json.member("maxOdtEntry", daq.maxEntrySize);
    json.key("events").beginArray();
    for (const xcp::EventChannel& event : daq.events) {
        json.beginObject();
        json.member("event", event.number);
        json.member("name", event.name.c_str());  // perhaps with NUL bytes behind it
        json.member("cycleNs", event.cycleNs);
        json.endObject();
    }
    json.endArray();
    json.key("lists").beginArray();
    for (const xcp::DaqListInfo& list : daq.lists)
        writeList(json, list);
    json.endArray();
    if (!listIds.empty()) {
        json.key("canIds").beginArray();
        for (const session::DaqListId& told : listIds) {
            json.beginObject();
            json.member("list", told.list);
            json.member("canId", told.id);
            json.member("toldBy", session::sourceName(told.source));
            json.endObject();
        }
        json.endArray();
    }
    json.key("toldBy").beginObject();
    json.member("configuration", session::originName(origins.configuration));
    json.member("resolution", session::originName(origins.resolution));
    json.member("events", session::originName(origins.events));
    json.member("lists", session::originName(origins.lists));
    json.endObject();
    json.endObject();
}

class InfoReport final : public IReport {
  public:
    explicit InfoReport(session::Session& session) : session_(session), status_(session.status()) {
        const auto completed = session.completeDaq();
        if (!completed)
            log::warn("DAQ lists not available: {}{}{}", completed.error().text(),
                      completed.error().hint.empty() ? "" : "; ", completed.error().hint);
        if (auto ids = session.listIds(); ids) {
            listIds_ = std::move(ids).value();
        } else {
            log::warn("CAN-IDs of the DAQ lists not available: {}", ids.error().text());
        }
        if (!status_) log::warn("status not available: {}", status_.error().text());
    }

    void print(Output& output) const override {
        const std::string name = session_.ecuName().empty() ? "unnamed" : session_.ecuName();
        output.append(fmt::format("ECU            {} ({})\n", printableText(name),
                                  session_.medium().texts().description));
        output.append(connectLines(session_.connectInfo()));
        if (session_.daqCapabilities())
            output.append(daqLines(*session_.daqCapabilities()) +
                          daqSourceLines(*session_.daqCapabilities(), session_.daqOrigins()) +
                          canIdLines(listIds_));
        if (!status_) return;
        output.append(fmt::format("status         session 0x{:02X}{}\n", status_.value().sessionStatus,
                                  status_.value().daqRunning() ? ", DAQ running" : ""));
        const auto locked = lockedNames();
        if (!locked.empty())
            output.append(fmt::format("locked         {} (seed and key)\n", fmt::join(locked, ", ")));
    }

    void write(JsonWriter& json) const override {
        writeEcu(json, session_);
        writeConnection(json, session_.connectInfo());
        if (session_.daqCapabilities())
            writeDaq(json, *session_.daqCapabilities(), session_.daqOrigins(), listIds_);
        if (!status_) return;
        json.key("status").beginObject();
        json.member("session", status_.value().sessionStatus);
        json.member("daqRunning", status_.value().daqRunning());
        json.key("locked").beginArray();
        for (const std::string_view name : lockedNames())
            json.value(name);
        json.endArray();
        json.endObject();
    }

  private:
    std::vector<std::string_view> lockedNames() const {
        std::vector<std::string_view> names;
        for (const xcp::Resource resource : xcp::kResources)
            if (status_.value().isLocked(resource)) names.push_back(xcp::resourceName(resource));
        return names;
    }

    const session::Session& session_;
    const Result<xcp::SlaveStatus> status_;
    std::vector<session::DaqListId> listIds_;
};

}  // namespace

std::string connectLines(const xcp::ConnectInfo& info) {
    const auto resource = [&info](std::uint8_t bit, const char* name) {
        return (info.resource & bit) != 0 ? name : "";
    };
    return fmt::format(
        "resources      {}{}{}\n"
        "communication  {}, AG {}, MAX_CTO {}, MAX_DTO {}\n",
        resource(kResourceCalibration, "CAL/PAG "), resource(xcp::kResourceDaq, "DAQ "),
        resource(kResourceProgramming, "PGM"),
        info.byteOrder() == ByteOrder::bigEndian ? "Motorola" : "Intel", info.granularity(), info.maxCto,
        info.maxDto);
}

std::string daqLines(const xcp::DaqCapabilities& daq) {
    constexpr std::int64_t kNsPerMs = 1'000'000;
    std::string lines = fmt::format(
        "DAQ            {}, timestamp {} byte x {} ms, max ODT entry {}\n",
        daq.dynamicConfiguration ? "dynamic" : "static", daq.timestampSize,
        formatFixed(static_cast<double>(daq.tickNs) / static_cast<double>(kNsPerMs), 3), daq.maxEntrySize);
    for (const xcp::EventChannel& event : daq.events) {
        const std::string cycle =
            event.cycleNs == 0 ? "not cyclic" : std::to_string(event.cycleNs / kNsPerMs) + " ms";
        // It comes from the ECU, perhaps with NUL bytes behind it; it must not steer the terminal.
        std::string name = printableText(event.name.c_str());
        // By bytes, as everywhere in this output.
        if (name.size() < 20) name.resize(20, ' ');
        lines += fmt::format("  event {:<3} {} {}\n", event.number, name, cycle);
    }
    return lines;
}

std::string canIdLines(const std::vector<session::DaqListId>& listIds) {
    using Source = session::DaqListId::Source;
    std::string lines;
    for (const session::DaqListId& told : listIds) {
        const char* by = told.source == Source::a2l   ? "by the A2L"
                         : told.source == Source::ecu ? "by the ECU"
                                                      : "by the configuration, set when it is measured";
        lines += fmt::format("  list {:<4} on CAN-ID 0x{:X}, {}\n", told.list, told.id, by);
    }
    return lines;
}

std::string daqSourceLines(const xcp::DaqCapabilities& daq, const session::DaqOrigins& origins) {
    std::string lines;
    for (const xcp::DaqListInfo& list : daq.lists) {
        lines +=
            fmt::format("  list {:<4} {} ODT(s) of {} entries", list.number, list.maxOdt, list.maxEntries);
        if (!list.offersDaq) lines += ", STIM";
        if (list.firstPid) lines += fmt::format(", first PID {}", *list.firstPid);
        if (list.fixedEvent) lines += fmt::format(", event {} only", *list.fixedEvent);
        if (list.predefined) lines += ", predefined";
        lines += "\n";
    }
    const std::pair<const char*, session::Origin> parts[] = {{"configuration", origins.configuration},
                                                             {"resolution", origins.resolution},
                                                             {"events", origins.events},
                                                             {"lists", origins.lists}};
    for (const auto& [part, origin] : parts)
        if (origin == session::Origin::a2l) lines += fmt::format("  from the A2L   {}\n", part);
    return lines;
}

void writeEcuMembers(JsonWriter& json, const session::Session& session) {
    json.member("name", session.ecuName());
    json.member("address", session.medium().texts().name);
    json.member("description", session.medium().texts().description);
}

void writeEcu(JsonWriter& json, const session::Session& session) {
    json.key("ecu").beginObject();
    writeEcuMembers(json, session);
    json.endObject();
}

void InfoCommand::addOptions(OptionSet& options) {
    options.addFlag("--offline", offline_, "What the A2L says: transports, protocol, DAQ (no connection)");
}

/// Those that answer; the others have been told.
int InfoCommand::runOnSeveral(Workplace& place) const {
    const auto errors = openEcus(place, place.ecus->all());
    JsonWriter* const json = place.results.json();
    if (json != nullptr) json->key("ecus").beginArray();
    int exitCode = 0;
    bool isFirst = true;
    for (const std::size_t ecu : place.ecus->all()) {
        if (errors[ecu]) exitCode = 1;
        if (errors[ecu]) continue;
        const log::Subject subject(place.ecus->name(ecu));
        if (json != nullptr) json->beginObject();
        if (json == nullptr && !std::exchange(isFirst, false)) place.results.output().append('\n');
        place.results.show(InfoReport(place.ecus->at(ecu)));
        if (json != nullptr) json->endObject();
    }
    if (json != nullptr) json->endArray();
    return stopRequested() ? 1 : exitCode;
}

int InfoCommand::run(Workplace& place) {
    if (place.ecus != nullptr) return runOnSeveral(place);
    if (offline_) return showOfflineInfo(place);
    place.results.show(InfoReport(*place.session));
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
