// What a slave can do in DAQ, and the plan of a measurement: which signals share a DAQ list, in which ODT and
// at which byte each lies, and under which PID it travels.
//
// Threads: plain values and a pure function. Lifetime: everything owns its contents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/ecu_address.h"
#include "core/result.h"

namespace lm::xcp {

/// How a DTO names its list and ODT; the values are those of DAQ_KEY_BYTE.
enum class DaqIdentification : std::uint8_t {
    absoluteOdt = 0,          ///< PID
    relativeByte = 1,         ///< ODT, list (8 bits)
    relativeWord = 2,         ///< ODT, list (16 bits)
    relativeWordAligned = 3,  ///< ODT, fill, list (16 bits)
};

/// Bytes of the identification field in front of every DTO: 1, 2, 3 or 4.
std::uint8_t identificationSize(DaqIdentification type);

struct EventChannel {
    std::uint16_t number = 0;
    std::uint8_t properties = 0;
    std::uint8_t maxDaqList = 0;
    std::string name = {};
    std::int64_t cycleNs = 0;  ///< 0: not cyclic
    std::uint8_t priority = 0;
};

struct OdtEntry {
    Address address = {};
    std::uint16_t size = 0;    ///< bytes
    std::uint16_t offset = 0;  ///< inside the ODT's payload
    bool oneBit = false;       ///< carries a single bit of that place, not what is in memory there
};

struct Odt {
    std::vector<OdtEntry> entries = {};
    std::uint16_t payloadSize = 0;   ///< bytes of all entries; identification and timestamp not included
    std::uint32_t recordOffset = 0;  ///< where the payload lies in the list's record
    std::uint8_t pid = 0;            ///< absolute PID, or the ODT's number in its list
};

/// A DAQ list that the slave has from the start: a static one, whose entries the master writes, or a
/// predefined one, which it can only start.
struct DaqListInfo {
    std::uint16_t number = 0;
    bool predefined = false;
    bool offersDaq = true;        ///< direction slave to master; else it takes data only (STIM)
    std::uint8_t maxOdt = 0;      ///< ODTs of the list
    std::uint8_t maxEntries = 0;  ///< entries of each ODT
    std::optional<std::uint16_t> fixedEvent = {};  ///< the only event channel that it can be given
    std::optional<std::uint8_t> firstPid = {};     ///< as far as the A2L tells
    std::vector<Odt> odts = {};                    ///< of a predefined one: what each ODT carries
};

struct DaqCapabilities {
    bool dynamicConfiguration = false;
    bool prescalerSupported = false;
    bool resumeSupported = false;
    bool timestampSupported = false;
    bool pidOffSupported = false;
    bool overloadInPid = false;  ///< top bit of the PID
    bool overloadEvent = false;
    std::uint16_t maxDaq = 0;
    std::uint16_t maxEventChannel = 0;  ///< number of event channels
    std::uint8_t minDaq = 0;            ///< predefined lists; dynamic ones are numbered from here
    DaqIdentification identification = DaqIdentification::absoluteOdt;
    std::uint8_t addressExtensionType = 0;
    std::uint8_t entryGranularity = 1;  ///< bytes
    std::uint8_t maxEntrySize = 0;      ///< bytes, 0: as the ODT allows
    std::uint8_t timestampSize = 0;     ///< bytes: 0, 1, 2 or 4
    bool timestampFixed = false;
    std::int64_t tickNs = 0;  ///< nanoseconds per timestamp tick, 0: unknown
    std::vector<EventChannel> events = {};
    std::vector<DaqListInfo> lists = {};  ///< static and predefined ones, by number; none: not known

    /// The channel of that number, nullptr when it is not known.
    const EventChannel* findEvent(std::uint16_t number) const;
};

/// One value to measure.
struct DaqSignal {
    Address address = {};
    std::uint32_t size = 0;  ///< bytes
    std::uint16_t eventChannel = 0;
    std::uint8_t prescaler = 1;  ///< each n-th sample; 0 counts as 1; the first of an event channel decides
    std::string_view name = {};  ///< for messages; borrowed for the call
};

struct DaqPlanOptions {
    std::uint16_t maxDto = 8;
    std::uint8_t addressGranularity = 1;  ///< bytes per address element, from CONNECT
    bool useTimestamps = true;
};

struct DaqList {
    std::uint16_t number = 0;  ///< on the wire
    bool predefined = false;   ///< its entries stand already
    std::uint16_t eventChannel = 0;
    std::uint8_t prescaler = 1;
    bool timestamp = false;  ///< the first ODT carries one
    std::vector<Odt> odts = {};
    std::uint32_t recordSize = 0;  ///< bytes of a record: the payloads of all ODTs back to back
};

/// Where a requested signal lies: `list` indexes DaqPlan::lists, `offset` counts bytes in that list's record.
struct SignalPlace {
    std::size_t list = 0;
    std::size_t offset = 0;
};

struct DaqPlan {
    DaqIdentification identification = DaqIdentification::absoluteOdt;
    std::uint8_t identificationSize = 1;
    std::uint8_t timestampSize = 0;  ///< in use: 0, 1, 2 or 4
    bool dynamicConfiguration = true;
    bool overloadInPid = false;
    std::vector<DaqList> lists = {};        ///< ascending event channels, then numbers
    std::vector<SignalPlace> signals = {};  ///< one per requested signal, in the order asked for
};

/// Whether planDaq() could take the signal; its errors of a single signal, and those of all plans.
Result<void> checkSignal(const DaqSignal& signal, const DaqCapabilities& capabilities,
                         const DaqPlanOptions& options);

/// Groups the signals by event channel and packs each group into ODTs: distinct values largest first, each
/// into the first ODT with room. A slave with dynamic lists gets one list for each event; of one with static
/// lists those that fit are chosen (see planStaticLists()). Errors: invalidArgument "MAX_DTO too small for
/// identification field and timestamp", "signal of N bytes does not fit into an ODT entry (max M)", "event
/// channel N does not exist", "first ODT of event N is empty (signals too large next to the timestamp)", "N
/// ODTs exceed the LIMIT available PIDs", "DAQ list N exceeds LIMIT, the largest number in the identification
/// field", and those of planStaticLists().
Result<DaqPlan> planDaq(std::span<const DaqSignal> signals, const DaqCapabilities& capabilities,
                        const DaqPlanOptions& options);

}  // namespace lm::xcp
