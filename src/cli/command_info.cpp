#include "cli/command_info.h"

#include <cstdint>

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include "core/text.h"
#include "xcp/text_lines.h"

namespace lm::cli {
namespace {

constexpr std::uint8_t kResourceCalibration = 0x01;
constexpr std::uint8_t kResourceProgramming = 0x10;

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
        std::string name = xcp::printableText(event.name.c_str());
        // By bytes, as everywhere in this output.
        if (name.size() < 20) name.resize(20, ' ');
        lines += fmt::format("  event {:<3} {} {}\n", event.number, name, cycle);
    }
    return lines;
}

int runInfo(session::Session& session, Output& output) {
    output.append(fmt::format("ECU            {} ({})\n", xcp::printableText(session.ecuName()),
                              session.medium().texts().description));
    output.append(connectLines(session.connectInfo()));
    if (session.daqCapabilities()) output.append(daqLines(*session.daqCapabilities()));
    if (const auto status = session.status()) {
        const auto& value = status.value();
        output.append(fmt::format("status         session 0x{:02X}{}\n", value.sessionStatus,
                                  value.daqRunning() ? ", DAQ running" : ""));
    } else {
        spdlog::warn("status not available: {}", status.error().text());
    }
    return 0;
}

}  // namespace lm::cli
