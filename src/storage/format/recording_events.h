// "events.jsonl": what happened while a recording was made, a line of JSON for each event
// (docs/recording-format.md). Old recordings have no such file, and a reader of values needs none.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "storage/format/recording_info.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

inline constexpr std::string_view kEventFileName = "events.jsonl";

/// A time without any samples, on the clock of the timestamps.
struct Outage {
    std::int64_t beginNs = 0;           ///< of the last record before, or of the start of DAQ
    std::optional<std::int64_t> endNs;  ///< none: the program was killed meanwhile
    bool recovered = false;             ///< the measurement went on
    std::string reason;
    std::string outcome;   ///< how it ended
    std::string ecu = {};  ///< of which of several
};

/// How the clock of an ECU ran against the one of the timestamps.
struct EcuClock {
    std::int64_t timeNs = 0;  ///< up to when it is known
    std::int64_t offsetNs = 0;
    double driftPpm = 0;
    double residualNs = 0;
    std::int64_t spanNs = 0;
    std::string ecu = {};
};

/// In the place of the one that the ECU had, ordered by the names of the ECUs.
void replaceClock(std::vector<EcuClock>& clocks, EcuClock clock);

/// What an ECU turned out to be after an outage.
struct EcuChange {
    std::int64_t timeNs = 0;
    std::string what;  ///< as of ecuChangedLine()
    std::string text;
    std::string ecu = {};
};

/// True when some of it lies in `times`; one without an end lasts for ever.
bool overlaps(const Outage& outage, const TimeRange& times);

/// One instant on both clocks of the host: that of the timestamps and UTC, nanoseconds since 1970.
struct ClockPair {
    std::int64_t hostNs = 0;
    std::int64_t utcNs = 0;
};

/// The clock of the system was set while the recording was made.
struct ClockStep {
    ClockPair after;
    std::int64_t byNs = 0;  ///< UTC against the clock of the timestamps
};

/// A condition that began a recording around it, or ended it.
struct Trigger {
    std::int64_t timeNs = 0;  ///< of the record with which it became true
    bool isStart = true;
    std::string text;  ///< the expression
};

/// What ran in the ECU, as far as it told: at the start of the recording and after each reconnection.
struct EcuNote {
    struct Sum {
        std::uint8_t segment = 0;
        std::optional<std::uint8_t> page = {};  ///< that XCP was on
        std::uint32_t address = 0;
        std::uint32_t size = 0;
        std::string sums = {};  ///< kind and values, as `check` shows them
    };
    std::int64_t timeNs = 0;
    std::string epk;      ///< empty when it is not known
    std::string trouble;  ///< what could not be asked, and why
    std::vector<Sum> sums = {};
    std::string ecu = {};
};

/// A remark of whoever measured.
struct Marker {
    std::int64_t timeNs = 0;
    std::string text;
};

/// A parameter that was written while the recording was made; numbers with the digits that they need, and
/// texts.
struct ParameterWrite {
    std::int64_t timeNs = 0;
    std::string name;
    std::string before;  ///< empty: not known
    std::string after;
    std::string by;
};

/// Where a part begins or ends in its series: one number for each group, of records counted from 0 in the
/// first part. `records` are those of the first record here, or of the one after the last.
struct PartBorder {
    std::int64_t timeNs = 0;
    std::vector<std::uint64_t> records;
    std::string next;  ///< of an end: the folder of the part that continues
};

// Lines as they stand in the file, with their line feeds. Bytes that are not UTF-8 become U+FFFD.
std::string startLine(const RecordingInfo& info);
/// The first line of a file whose lines were lost.
std::string startAgainLine(const RecordingInfo& info);
std::string outageBeginLine(std::int64_t timeNs, const std::string& reason);
std::string outageEndLine(std::int64_t timeNs, bool recovered, const std::string& outcome);
std::string clockLine(const ClockPair& clocks);
/// After an outage: `what` is "software", "parameters" or "writtenAgain".
std::string ecuChangedLine(std::int64_t timeNs, std::string_view what, const std::string& text);
std::string clockStepLine(const ClockStep& step);
std::string ecuLine(const EcuNote& note);
std::string triggerLine(const Trigger& trigger);
std::string ecuClockLine(const EcuClock& clock);
/// A line that is about one of several ECUs: it tells which.
std::string lineOfEcu(const std::string& line, const std::string& ecu);
std::string markerLine(const Marker& marker);
std::string parameterLine(const ParameterWrite& write);
std::string partBeginLine(const PartBorder& border);
std::string partEndLine(const PartBorder& border);
/// A part of the same series is gone, as it was ordered.
std::string partRemovedLine(std::int64_t timeNs, const std::string& name);

/// The outcome of an outage that a split cut in two.
inline constexpr std::string_view kOutageGoesOn = "goes on in the next part";

/// What a part has to tell again at its start, because the part before told it: the outage that is open, and
/// what ran in the ECU. Belongs to one thread at a time.
class StandingEvents {
  public:
    void take(std::string_view line);
    /// The lines that end a part at this time, and those that begin the next one.
    std::string endLines(std::int64_t timeNs) const;
    std::string beginLines(std::int64_t timeNs) const;

  private:
    struct OfEcu {
        std::optional<std::string> outage;  ///< the reason of the one that is open
        std::string ran;                    ///< the last line
    };
    std::map<std::string, OfEcu> ecus_;  ///< by name, empty where there is one
};

/// What is wrong with one line.
struct EventFault {
    std::uint64_t line = 0;  ///< from 1
    std::string text;
};

struct RecordingEvents {
    enum class File : std::uint8_t {
        absent,              ///< recorded by an older program
        read,                ///< as far as its lines make sense
        beginLost,           ///< empty or cut in its first line: a repair begins it again
        ofAnotherRecording,  ///< nothing of it was taken
        unreadable,          ///< likewise
    };

    File file = File::absent;
    /// Why the outages are not known, empty when they are, and for an older recording without the file.
    std::string trouble;
    bool begunAgain = false;      ///< by a repair: what had been told before is lost, which is the `trouble`
    std::vector<Outage> outages;  ///< in the order of the file
    std::vector<EcuChange> ecuChanges;  ///< likewise
    std::vector<ClockPair> clocks;      ///< the first one is that of "meta.json"
    std::vector<ClockStep> steps;
    std::vector<EcuNote> ecus;
    std::vector<Trigger> triggers;
    std::vector<EcuClock> ecuClocks;  ///< of each ECU what was told last
    std::vector<Marker> markers;
    std::vector<ParameterWrite> writes;
    std::optional<PartBorder> begin;  ///< of a part; none for the first one
    std::optional<PartBorder> end;    ///< likewise; none for the last one
    std::vector<EventFault> faults;   ///< the first ones; lines of unknown kinds are none
    std::uint64_t wholeBytes = 0;     ///< up to the last line feed
    std::uint64_t tornBytes = 0;      ///< behind it
    bool lastLineIsWhole = false;     ///< what stands there lacks nothing but the line feed
    bool beingWritten = false;        ///< another program has the file open for recording
};

/// Reads the file in constant memory but for what it returns.
RecordingEvents readEvents(const std::filesystem::path& directory, const RecordingInfo& info);

}  // namespace lm::storage
