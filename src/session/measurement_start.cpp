#include "session/measurement_start.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "core/log.h"
#include "core/platform.h"
#include "session/byte_access.h"
#include "session/measurement_plan.h"
#include "session/signal_choice.h"
#include "session/signal_elements.h"

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

namespace {

using PlanFor = std::function<Result<MeasurementPlan>(const std::vector<std::string>&)>;

/// With the event that the A2L names, where it does and the ECU has it: that of names without one is for the
/// signals that the user chose for it.
std::string atItsEvent(const MeasurementContext& context, const std::string& name) {
    const auto found =
        findSignalElements(context.description, name, memoryReader(context.master), kMostSignals);
    if (!found.ok() || !found.value().object->preferredEvent) return name;
    const std::uint16_t event = *found.value().object->preferredEvent;
    return context.capabilities.findEvent(event) == nullptr ? name : name + "@" + std::to_string(event);
}

/// The signals of `texts`, then those of `needed` that are not among them.
Result<MeasurementPlan> planWithNeeded(const PlanFor& planFor, std::vector<std::string> texts,
                                       const std::vector<std::string>& needed,
                                       const MeasurementContext& context) {
    if (needed.empty()) return planFor(texts);
    std::vector<std::string> missing = needed;
    if (!texts.empty()) {
        auto plan = planFor(texts);
        if (!plan.ok()) return plan;
        std::erase_if(missing, [&](const std::string& text) {
            const auto& planned = plan.value().planned;
            return std::any_of(planned.begin(), planned.end(), [&](const PlannedSignal& signal) {
                return isNamed(signal, text, context.capabilities);
            });
        });
        if (missing.empty()) return plan;
    }
    for (std::string& name : missing)
        name = atItsEvent(context, name);
    texts.insert(texts.end(), missing.begin(), missing.end());
    auto plan = planFor(texts);
    if (plan.ok()) plan.value().added = std::move(missing);
    return plan;
}

}  // namespace

bool isNamed(const PlannedSignal& signal, std::string_view text, const xcp::DaqCapabilities& capabilities) {
    if (signal.element.name == text) return true;
    const std::size_t at = text.rfind('@');
    if (at == std::string_view::npos || signal.element.name != text.substr(0, at)) return false;
    const std::string_view event = text.substr(at + 1);
    if (event == std::to_string(signal.event)) return true;
    const xcp::EventChannel* const channel = capabilities.findEvent(signal.event);
    return channel != nullptr && channel->name == event;
}

Result<AcceptedPlan> acceptPlan(const MeasurementContext& context, const MeasurementOptions& options) {
    auto folders = FolderFilter::create(context.description, options.groups, options.functions);
    if (!folders.ok()) return folders.error();
    const std::vector<std::string> wholeFolders{"*"};
    const auto& unnamed = folders.value().takesAll() ? context.config.measurement : wholeFolders;
    const auto& texts = options.signals.empty() ? unnamed : options.signals;
    xcp::ConnectInfo connection = context.master.connectInfo();
    connection.maxDto = context.medium.largestDto(connection.maxDto);
    const bool recorded = !options.recording.directory.empty() || options.recordedBySink;
    const auto planFor = [&](const std::vector<std::string>& wanted) {
        SignalSource source{.description = context.description, .capabilities = context.capabilities};
        source.read = memoryReader(context.master);
        source.folders = folders.value();
        return planMeasurement(std::move(source), wanted, context.config.daq, connection, recorded);
    };
    auto plan = planWithNeeded(planFor, options.neededAlone ? std::vector<std::string>() : texts,
                               options.needed, context);
    if (!plan.ok()) return plan.error();
    if (recorded) {
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
