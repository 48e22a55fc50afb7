// What a recording says about itself: groups, signals and how their bytes become physical values.
//
// Threads: a plain record. Lifetime: owns everything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "value/element.h"

namespace lm::storage {

/// The only format version that is written and read.
inline constexpr std::uint32_t kFormatVersion = 2;

/// Bytes of the largest record: with its timestamp and its place in the queue it still has a 32-bit size.
inline constexpr std::uint32_t kMaxRecordSize = 0xFFFFFF00;

/// An element without its address.
struct SignalInfo : value::Element {
    std::string description;
    std::string displayName;
    std::uint32_t recordOffset = 0;  ///< bytes from the start of the group's record
    bool hasLimits = false;          ///< recordings of earlier versions do not tell them
};

struct GroupInfo {
    std::string name;
    std::uint32_t recordSize = 0;  ///< bytes of one DAQ record as stored, without its timestamp
    std::int64_t cycleNs = 0;      ///< nominal period, 0 when not periodic
    std::vector<SignalInfo> signals;
    /// Whose clock its timestamps follow, laid on that of the host; none: recordings of earlier versions.
    enum class Clock : std::uint8_t { ecu, host };
    std::optional<Clock> clock = {};
    std::string ecu = {};  ///< of a recording of several ECUs, whose signals are called ECU/NAME then
};

/// One of several ECUs of a recording; of a single one the recording tells this itself.
struct EcuInfo {
    std::string name;
    std::string source;
    std::string a2lName = {};
    std::string a2lSha256 = {};
    std::string ecuEpk = {};
    std::string a2lEpk = {};
};

/// Of a recording that continues another one: the parts of a series are whole recordings, one after the
/// other.
struct PartInfo {
    std::string series;        ///< the same in all parts
    std::uint64_t number = 1;  ///< in the series, from 1
    std::string previous;      ///< the folder of the part before, empty for the first one
};

struct RecordingInfo {
    std::uint32_t formatVersion = kFormatVersion;
    std::int64_t startUtcNs = 0;   ///< nanoseconds since 1970, UTC
    std::int64_t startHostNs = 0;  ///< the same instant on the host's steady clock
    std::string source;
    std::string name;
    std::string ecu;
    // What recordings of earlier versions do not tell.
    std::optional<std::int32_t> utcOffsetMinutes;  ///< of the recording host's local time
    std::string a2lName;                           ///< the file's name without its directory, may be empty
    std::string a2lSha256;                         ///< in hexadecimal, may be empty
    std::string ecuEpk;                    ///< the name of the software in the ECU, empty when not known
    std::string a2lEpk;                    ///< the one that the A2L is for, likewise
    std::vector<std::string> commandLine;  ///< of the program that recorded, may be empty
    std::optional<PartInfo> part;
    std::vector<EcuInfo> ecus;  ///< none: a recording of one ECU
    std::vector<GroupInfo> groups;
};

}  // namespace lm::storage
