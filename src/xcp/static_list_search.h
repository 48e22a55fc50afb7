// Finds for each event channel the static DAQ lists that hold what is to be written into them: the smallest
// list that takes all, or several, so that every group finds its place.
//
// Threads: one at a time. Lifetime: capabilities and groups are borrowed while the search lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "xcp/daq_packing.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// How many ODTs the identification field can tell apart.
std::size_t mostOdts(const DaqCapabilities& capabilities);

/// Whether the master can receive the list at all, and whether it can be given the event channel.
bool canBeUsed(const DaqListInfo& list, const DaqCapabilities& capabilities);
bool takesEvent(const DaqListInfo& list, std::uint16_t eventChannel);
/// A list whose entries stand already, by its own word or by its number.
bool isPredefined(const DaqListInfo& list, const DaqCapabilities& capabilities);

/// A group, and which of its entries are to be written, largest first.
struct WantedGroup {
    const SignalGroup* group = nullptr;
    std::vector<std::size_t> entries = {};
};

/// The entries of a group in the ODTs of lists.
struct PackedLists {
    struct Part {
        std::size_t list = 0;  ///< into DaqCapabilities::lists
        std::vector<Odt> odts = {};
    };
    struct Place {
        std::size_t part = 0;
        EntryPlace at = {};
    };
    std::vector<Part> parts = {};                   ///< one that got nothing has no ODTs
    std::vector<std::optional<Place>> places = {};  ///< by entry of the group
    std::size_t left = 0;                           ///< wanted entries without a place
};

class StaticListSearch {
  public:
    /// `stamped`: the first ODT of each list carries a timestamp, without an entry the slave sends none.
    StaticListSearch(const DaqCapabilities& capabilities, const DaqRoom& room, bool stamped);

    /// By group. When no way was found to place all, as much as fits (`left` is not 0 then). It ends after a
    /// bounded number of steps: a way that only much trying would find is not found.
    std::vector<PackedLists> run(const std::vector<WantedGroup>& wanted);

  private:
    using Lists = std::vector<std::size_t>;  ///< into DaqCapabilities::lists
    using Try = std::function<bool(const Lists&)>;

    /// The lists of an event channel that are not in use yet, smallest first.
    struct Choice {
        Lists own;  ///< fixed to it: no other channel can use them
        Lists free;
    };

    bool place(std::size_t at);
    bool placeIn(std::size_t at, const Lists& lists);
    bool tryLists(const WantedGroup& wanted, const Try& attempt) const;
    bool tryMore(const Lists& base, const Lists& free, std::size_t from, std::size_t count,
                 const Try& attempt) const;
    Choice choiceFor(std::uint16_t eventChannel) const;
    bool sameShape(std::size_t a, std::size_t b) const;
    std::vector<PackedLists> placeGreedily();
    PackedLists pack(const WantedGroup& wanted, const Lists& lists);
    PackedLists packSeeded(const WantedGroup& wanted, const Lists& lists, std::size_t seeds);
    void dropWithoutFirstOdt(PackedLists& packed) const;
    bool mayHold(const WantedGroup& wanted, const Lists& lists) const;
    std::size_t mostListsOf(std::uint16_t eventChannel) const;
    ListShape shapeOf(std::size_t list) const;
    std::size_t bytesOf(std::size_t list) const;
    void mark(const PackedLists& packed, bool used);

    const DaqCapabilities& capabilities_;
    const DaqRoom& room_;
    const bool stamped_;
    std::size_t stepsLeft_ = 0;
    const std::vector<WantedGroup>* wanted_ = nullptr;
    Lists order_;  ///< of the groups, largest first
    std::vector<bool> used_;
    std::vector<PackedLists> packed_;
};

}  // namespace lm::xcp
