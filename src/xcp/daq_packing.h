// How signals are packed into ODTs: the sizes that bound them, the distinct values of each event channel, and
// where each of these goes. What planning dynamic and static lists has in common.
//
// Threads: plain values and pure functions. Lifetime: everything owns its contents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/ecu_address.h"
#include "core/result.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// The sizes that bound every entry and ODT, in bytes.
struct DaqRoom {
    std::size_t payload = 0;
    std::size_t firstPayload = 0;
    std::size_t largestEntry = 0;  ///< as told to the user
    std::size_t entryUnit = 1;     ///< every entry is a multiple of it
    std::size_t entryLimit = 0;    ///< largest entry that WRITE_DAQ can name
    std::size_t addressUnit = 1;   ///< bytes of one step of an address
};

/// Error: "MAX_DTO too small for identification field and timestamp".
Result<DaqRoom> measureRoom(const DaqPlan& plan, const DaqCapabilities& capabilities,
                            const DaqPlanOptions& options);

/// Errors: "signal of N bytes does not fit into an ODT entry (max M)", "event channel N does not exist".
Result<void> checkEntrySize(const DaqSignal& signal, const DaqRoom& room);
Result<void> checkEventExists(std::uint16_t event, const DaqCapabilities& capabilities);

/// The distinct values of one event channel.
struct SignalGroup {
    struct Entry {
        Address address;
        std::size_t size;
    };
    std::uint16_t eventChannel = 0;
    std::uint8_t prescaler = 1;
    std::vector<Entry> entries = {};
    std::vector<std::pair<std::size_t, std::size_t>> uses = {};  ///< signal index, entry index
    std::map<std::pair<Address, std::size_t>, std::size_t> known = {};

    void add(const DaqSignal& signal, std::size_t index);
    /// Indices of the entries, stable.
    std::vector<std::size_t> largestFirst() const;
};

/// How much a list holds.
struct ListShape {
    static constexpr std::size_t kMostEntries = 255;

    std::size_t odts = SIZE_MAX;
    std::size_t entriesOfOdt = kMostEntries;
};

/// Where an entry went: ODT, and position in it.
struct EntryPlace {
    std::size_t odt = 0;
    std::size_t entry = 0;
};

/// Puts the entry into the first ODT with room, a new one if need be; nothing when the list is full.
std::optional<EntryPlace> placeEntry(std::vector<Odt>& odts, const SignalGroup::Entry& entry,
                                     const DaqRoom& room, const ListShape& shape);

/// Lets the ODTs stand back to back in the record.
void layOutRecord(DaqList& list);

Error firstOdtEmpty(std::uint16_t eventChannel, const DaqRoom& room);

}  // namespace lm::xcp
