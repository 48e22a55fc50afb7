#include "session/measurement_start.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "core/log.h"
#include "core/platform.h"
#include "session/byte_access.h"
#include "session/measurement_plan.h"

namespace lm::session {

a2l::ReadMemory memoryReader(xcp::Master& master) {
    return [&master](xcp::Address address, std::size_t size) {
        return xcp::inStep(master, [&] { return uploadBytes(master, address, size); });
    };
}

namespace {

void warnWithoutTimestamps(const xcp::DaqPlan& plan) {
    if (plan.timestampSize == 0) {
        log::warn("measure: the DTOs carry no timestamps, so cycles that get lost cannot be noticed");
        return;
    }
    for (const xcp::DaqList& list : plan.lists) {
        if (list.timestamp) continue;
        log::warn(
            "measure: the predefined DAQ list {} leaves no room for timestamps, so cycles that it "
            "loses cannot be noticed",
            list.number);
    }
}

}  // namespace

Result<AcceptedPlan> acceptPlan(const MeasurementContext& context, const MeasurementOptions& options) {
    auto folders = FolderFilter::create(context.description, options.groups, options.functions);
    if (!folders.ok()) return folders.error();
    const std::vector<std::string> wholeFolders{"*"};
    const auto& unnamed = folders.value().takesAll() ? context.config.measurement : wholeFolders;
    const auto& texts = options.signals.empty() ? unnamed : options.signals;
    xcp::ConnectInfo connection = context.master.connectInfo();
    connection.maxDto = context.medium.largestDto(connection.maxDto);
    SignalSource source{.description = context.description, .capabilities = context.capabilities};
    source.read = memoryReader(context.master);
    source.folders = std::move(folders).value();
    auto plan = planMeasurement(std::move(source), texts, context.config.daq, connection,
                                !options.recordDirectory.empty());
    if (!plan.ok()) return plan.error();
    if (!options.recordDirectory.empty()) {
        if (const auto able = requireRecordable(plan.value()); !able.ok()) return able.error();
    }
    const auto load = context.medium.claimLoad(loadInput(plan.value().daq, context.capabilities),
                                               context.config.daq.maxBusLoad);
    if (!load.ok()) return load.error();
    for (const std::string& warning : plan.value().warnings)
        log::warn("measure: {}", warning);
    const std::string warning = foreignEventWarning(plan.value());
    if (!warning.empty()) log::warn("{}", warning);
    warnWithoutTimestamps(plan.value().daq);
    return AcceptedPlan{std::move(plan).value(), load.value()};
}

namespace {

/// What the last part of a path calls a directory; of "." and ".." the name of what they stand for.
std::string directoryName(const std::filesystem::path& directory) {
    const auto lastPart = [](const std::filesystem::path& path) {
        const auto normal = path.lexically_normal();
        return (normal.has_filename() ? normal : normal.parent_path()).filename().string();
    };
    std::string name = lastPart(directory);
    if (name != "." && name != "..") return name;
    std::error_code failure;
    const auto real = std::filesystem::weakly_canonical(directory, failure);
    return failure ? name : lastPart(real);
}

}  // namespace

storage::RecordingInfo describeRecording(const MeasurementContext& context, const MeasurementPlan& plan,
                                         const std::filesystem::path& directory) {
    using namespace std::chrono;
    storage::RecordingInfo info = recordingInfo(plan, context.capabilities);
    info.startHostNs = nanoseconds(steady_clock::now().time_since_epoch()).count();
    info.startUtcNs = nanoseconds(system_clock::now().time_since_epoch()).count();
    info.source = context.medium.texts().source;
    info.name = directoryName(directory);
    info.ecu = context.ecuName;
    info.utcOffsetMinutes = utcOffsetMinutes(info.startUtcNs);
    info.a2lName = context.config.a2l.filename().string();
    info.a2lSha256 = context.description.sha256;
    return info;
}

}  // namespace lm::session
