// The DAQ lists of the simulated slave: their configuration by command (daq.cpp) and the DTOs of one event
// (daq_sampling.cpp).
//
// Threads: one thread at a time. Lifetime: options, world and fault plan must live as long as the lists.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "sim/faults.h"
#include "sim/options.h"
#include "sim/outbox.h"
#include "sim/protocol.h"
#include "sim/world.h"

namespace lm::sim {

struct DaqCounters {
    std::uint64_t samples = 0;      ///< samples taken of running lists
    std::uint64_t samplesLost = 0;  ///< of these not sent, overload
    std::uint64_t dtos = 0;         ///< DTOs of all samples taken, whether sent or not
    std::uint64_t dtosLost = 0;     ///< of these never sent
};

class DaqLists {
  public:
    using Refusal = std::optional<Err>;  ///< none: done

    struct Mode {
        std::uint8_t bits;  ///< of SET_DAQ_LIST_MODE; when told, also whether selected and running
        std::uint16_t event;
        std::uint8_t prescaler;
        std::uint8_t priority;
    };
    struct Info {
        bool predefined;
        std::uint8_t maxOdts;
        std::uint8_t maxEntries;
        std::optional<std::uint8_t> event;  ///< the only one that it can be on
    };
    /// An ODT entry; never written: all zero.
    struct Entry {
        const std::uint8_t* at = nullptr;
        std::size_t size = 0;
        std::uint32_t address = 0;
        std::uint8_t extension = 0;
    };

    DaqLists(const Options& options, const World& world, FaultPlan& faults);

    // The allocation commands, in the order FREE_DAQ, ALLOC_DAQ, ALLOC_ODT, ALLOC_ODT_ENTRY; any other order
    // is ERR_SEQUENCE, too much is ERR_MEMORY_OVERFLOW, an unknown list or ODT ERR_OUT_OF_RANGE.
    void free();
    /// As after power-on: nothing allocated, and FREE_DAQ has to come first; static lists are empty.
    void reset();
    Refusal allocLists(std::uint16_t count);
    Refusal allocOdts(std::uint16_t list, std::uint8_t count);
    Refusal allocEntries(std::uint16_t list, std::uint8_t odt, std::uint8_t count);

    /// The first entry of the first list, if there is one.
    void clearPointer() { setPointer(firstList(), 0, 0); }
    Refusal setPointer(std::uint16_t list, std::uint8_t odt, std::uint8_t entry);
    /// Writes the entry at the pointer and advances it within its ODT.
    Refusal writeEntry(std::uint8_t bitOffset, std::size_t size, std::uint8_t extension,
                       std::uint32_t address);
    /// Reads the entry at the pointer and advances it likewise.
    std::variant<Entry, Err> readEntry();
    /// Stops the list and forgets its entries (unless predefined), its mode and the pointer.
    Refusal clear(std::uint16_t list);
    Refusal setMode(std::uint16_t list, const Mode& mode);
    /// None: there is no such list.
    std::optional<Mode> mode(std::uint16_t list) const;
    std::optional<Info> info(std::uint16_t list) const;

    /// The CAN identifier of the list's DTOs; none: there is no such list.
    std::optional<std::uint32_t> canId(std::uint16_t list) const;
    Refusal setCanId(std::uint16_t list, std::uint32_t id);

    /// START_STOP_DAQ_LIST: mode 0 stops, 1 starts, 2 selects.
    Refusal startStop(std::uint16_t list, std::uint8_t mode);
    /// START_STOP_SYNCH: mode 0 stops all, 1 starts the selected lists, 2 stops the selected ones.
    Refusal startStopSelected(std::uint8_t mode);
    std::uint8_t firstPid(std::uint16_t list) const;
    std::uint16_t firstList() const { return options_.isStatic() ? std::uint16_t{0} : options_.minDaq; }
    std::uint16_t count() const { return static_cast<std::uint16_t>(lists_.size()); }
    bool running() const;

    /// Appends the DTOs of every running list of the event, stamped with the clock given (in ticks).
    void sample(std::uint8_t event, std::uint64_t ticks, Outbox& out);
    const DaqCounters& counters() const { return counters_; }

  private:
    struct Odt {
        std::vector<Entry> entries;
        std::size_t bytes = 0;
    };
    struct List {
        const StaticList* fixed = nullptr;  ///< what a static list was made from
        std::vector<Odt> odts;
        std::uint16_t event = 0;
        std::uint8_t prescaler = 0;  ///< 0: no mode set yet
        bool timestamp = false;
        bool pidOff = false;
        bool selected = false;
        bool running = false;
        bool overloaded = false;
        std::uint32_t skipped = 0;
        std::uint32_t canId = 0;  ///< of its own, 0: none
        std::size_t used = 0;     ///< ODTs that are sent while it runs
    };
    enum class Stage : std::uint8_t { idle, freed, lists, odts, entries };

    List makeList(const StaticList& from, std::size_t number) const;
    std::uint32_t givenCanId(std::size_t number) const;
    bool canOmitPid(const List& list) const;
    std::size_t headSize(const List& list) const { return list.pidOff ? 0 : options_.identificationSize(); }
    const List* find(std::uint16_t list) const;
    List* find(std::uint16_t list) { return const_cast<List*>(std::as_const(*this).find(list)); }
    bool atEntry() const;
    bool whole(const List& list) const;
    bool complete(const List& list) const;
    void start(List& list);
    void sampleList(std::size_t index, std::uint64_t ticks, Outbox& out);
    void writeHead(std::uint8_t* to, std::size_t list, std::size_t odt, bool overloaded) const;

    const Options& options_;
    const World& world_;
    FaultPlan& faults_;
    Stage stage_ = Stage::idle;
    std::vector<List> lists_;
    std::size_t allocated_ = 0;  ///< ODT entries in all lists
    bool pointerValid_ = false;
    std::uint16_t pointerList_ = 0;
    std::uint8_t pointerOdt_ = 0;
    std::uint8_t pointerEntry_ = 0;
    DaqCounters counters_;
};

}  // namespace lm::sim
