// What the user of a measurement gives and gets: options, the plan of the signals, statistics.
//
// Threads: plain records. Lifetime: the sink is borrowed until the measurement has been stopped; onPlanned
// and the sink are called before startMeasurement() returns and on the transport's receive thread
// respectively.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "session/medium.h"
#include "session/session_state.h"
#include "session/signal_elements.h"
#include "storage/write/recorder.h"
#include "value/element.h"
#include "xcp/clock_fit.h"
#include "xcp/daq_decoder.h"
#include "xcp/daq_plan.h"

namespace lm::session {

/// One signal as asked for and where it lies in the records of its DAQ list.
struct PlannedSignal {
    value::Element element;
    std::string description;
    std::string displayName;
    std::uint16_t event = 0;
    bool isForeignEvent = false;     ///< the A2L names events for the object, and not this one
    std::size_t listIndex = 0;       ///< into MeasurementPlan::daq.lists
    std::uint32_t recordOffset = 0;  ///< bytes from the start of the list's record
};

struct MeasurementPlan {
    std::vector<PlannedSignal> planned;  ///< in the order asked for, repetitions included
    xcp::DaqPlan daq;                    ///< lists in ascending event order
    std::vector<std::string> warnings;   ///< of patterns that left something out
    std::vector<PlaceBytes> placedBy;    ///< must still hold after a reconnection
    std::vector<std::string> added;      ///< what of MeasurementOptions::needed was not asked for otherwise
    /// Of several ECUs that of each list, whose signals are called ECU/NAME; else empty.
    std::vector<std::string> listEcus;
};

struct MeasurementOptions {
    std::vector<std::string> signals;        ///< see chooseSignals(); empty: the configuration's list
    storage::RecordingPlace recording = {};  ///< without a directory: no recording
    xcp::IDaqRecordSink* sink = nullptr;     ///< gets every record; may be null
    /// Called once with the plan before the first record can arrive. The plan lives until the measurement is
    /// stopped.
    std::function<void(const MeasurementPlan&)> onPlanned = {};
    /// How long it is meant to last, 0: open. It tells whether the disk holds the recording, and ends
    /// nothing.
    std::chrono::duration<double> duration{0};
    std::vector<std::string> groups = {};       ///< patterns take only what lies in them
    std::vector<std::string> functions = {};    ///< or in these; without signals all measurements there
    std::vector<std::string> commandLine = {};  ///< of the program, for the recording
    /// NAME or NAME@EVENT of numbers that are measured in addition, unless they are so already; a NAME at the
    /// event that the A2L names for it.
    std::vector<std::string> needed = {};
    bool neededAlone = false;  ///< and nothing else
    /// Gets each event (its time, its line in "events.jsonl") that belongs into recordings of the sink's own.
    std::function<void(std::int64_t timeNs, const std::string& line)> noteTo = {};
    bool recordedBySink = false;  ///< what no recording can hold is refused as with a directory
    /// Called once before anything is recorded or started, which an error prevents. The plan lives until the
    /// measurement is stopped.
    std::function<Result<void>(const MeasurementPlan&)> onAccepted = {};
};

/// Whether a signal is the one that NAME or NAME@EVENT names.
bool isNamed(const PlannedSignal& signal, std::string_view text, const xcp::DaqCapabilities& capabilities);

struct PlanSummary {
    std::size_t signalCount = 0;
    std::size_t listCount = 0;
    double busLoad = 0;  ///< fraction of 1
    /// Events of lists whose missed cycles no one can count: no cycle is known of them.
    std::vector<std::string> withoutCycle;
    /// The same, where `busLoad` leaves their lists out; none on a medium without a load.
    std::vector<std::string> notInLoad;
};

/// A DAQ list of which no record came.
struct SilentList {
    std::uint16_t event = 0;
    std::string eventName;     ///< may be empty
    std::int64_t cycleNs = 0;  ///< of its records; 0: not cyclic, or not known
};

/// Counters since the start of the measurement.
struct MeasurementStats {
    std::uint64_t records = 0;
    std::uint64_t lostOdts = 0;
    std::uint64_t missedCycles = 0;
    std::uint64_t overloads = 0;
    std::uint64_t reconnects = 0;
    bool recording = false;
    std::uint64_t recorded = 0;
    std::uint64_t recordedDropped = 0;  ///< records that the writer could not keep
    std::int64_t recordingStartNs = 0;  ///< on the clock of the records
    // Once it has been stopped.
    std::filesystem::path recordingDirectory = {};  ///< of a recording in parts the last one
    std::uint64_t parts = 0;                        ///< 0: it was not to be split

    // Losses that the statistics line does not name.
    std::chrono::nanoseconds withoutSamples{0};  ///< in the outages that a reconnection ended
    std::uint64_t failedReconnects = 0;          ///< of `reconnects`: the outage lasted to the end
    std::chrono::nanoseconds withoutSamplesToEnd{0};
    std::uint64_t incompleteRecords = 0;
    std::uint64_t unknownDtos = 0;
    std::uint64_t malformedDtos = 0;
    std::vector<MediumCounter> medium = {};  ///< see IMedium::counters

    /// Goes on as long as someone watches over the ECU, or tries to reach it again.
    std::uint64_t supervisionTurns = 0;

    std::vector<SilentList> silentLists = {};
    /// Why they may have stayed silent, when the medium knows; else empty.
    std::string silenceHint = {};

    /// None without timestamps of the ECU, in the first moments, and of several ECUs.
    std::optional<xcp::ClockFigures> clock = {};

    std::string ecu = {};  ///< of one of several
    SessionState state = SessionState::disconnected;
    std::vector<MeasurementStats> ecus = {};  ///< of several each one's own, of which the others are the sums

    /// 0 when the medium does not count that.
    std::uint64_t mediumCount(std::string_view name) const {
        for (const MediumCounter& counter : medium) {
            if (counter.name == name) return counter.value;
        }
        return 0;
    }
};

}  // namespace lm::session
