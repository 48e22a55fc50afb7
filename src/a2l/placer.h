// How an object is placed, for place() alone: place.cpp has the way through and what lies in no record,
// place_record.cpp lays the record out, place_grids.cpp makes places of values and points of it.
//
// A record is laid out as far as the counts are known, what small things are needed of that part are read,
// and so on until all is placed: with counts at the front, as records have them, one reading is enough.
//
// Threads: one at a time. Lifetime: borrows `read`; results own everything.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "a2l/placed_object.h"
#include "a2l/record_part.h"

namespace lm::a2l {

class Placer {
  public:
    Placer(const Object& object, const ReadMemory& read)
        : object_(std::make_shared<const Object>(object)), read_(read), base_(object.first.address) {}

    Result<PlacedObject> run() {
        placed_.object_ = object_;
        if (auto followed = followHops(); !followed) return followed.error();
        if (!object_->maps.empty()) return placeMaps();
        // What has no layout lies in one piece.
        const bool isPlain = object_->kind == ObjectKind::measurement || object_->kind == ObjectKind::blob;
        if (isPlain) return placePlain();
        if (auto started = startAxes(); !started) return started.error();
        if (auto laid = layOutAll(); !laid) return laid.error();
        return finish();
    }
    /// Instead of run(): the bytes of the whole record with all the points that there can be.
    Result<std::uint64_t> largest();

  private:
    using Entry = RecordLayout::Entry;

    /// A part of the record that begins at an address.
    struct Slot {
        const Entry* entry;
        std::uint64_t at;
    };

    Error fault(const std::string& what) const {
        return {ErrorCode::invalidArgument, object_->name + ": " + what};
    }
    const Record& record() const { return object_->record; }
    Result<std::uint64_t> readPointer(std::span<const std::uint8_t> bytes,
                                      std::optional<ByteOrder> order = {}) const;
    Result<void> followHops();
    Result<PlacedObject> placeMaps();
    Result<PlacedObject> placePlain();

    Result<void> startAxes();
    Result<void> startShared(const Axis& axis, PlacedAxis& placed);
    Result<void> takeCount(std::size_t axis, std::uint64_t count);
    bool countIsRead(std::size_t axis) const;
    std::uint32_t givenCount(std::size_t axis) const;

    Result<void> layOutAll();
    Result<bool> layOut();
    Result<std::optional<std::uint64_t>> sizeOf(const Entry& entry, std::uint64_t at) const;
    std::optional<std::uint64_t> elementsOf(const Entry& entry) const;
    std::optional<std::uint32_t> sizing(std::size_t dimension) const;
    bool isNeeded(const Entry& entry) const;
    std::vector<Slot> pending() const;
    Result<void> take(const Slot& slot, std::span<const std::uint8_t> bytes);

    Result<PlacedObject> finish();
    void finishAlternation();
    Result<PlacedObject> checked();
    Grid gridOf(const Entry& entry, bool& pointsAway) const;
    Grid valueGrid(Grid grid, const Entry& entry) const;
    void finishAxis(std::size_t number, const Entry& entry, Grid grid, bool pointsAway);

    std::shared_ptr<const Object> object_;
    const ReadMemory& read_;
    xcp::Address base_;
    PlacedObject placed_;
    std::optional<Alternation> alternation_;
    std::vector<std::optional<std::uint32_t>> counts_;  ///< in use, per dimension
    std::map<const Entry*, double> parameters_;
    std::map<const Entry*, std::uint64_t> targets_;  ///< where pointers in the record point to
    std::vector<Slot> slots_;
    bool isWhole_ = false;   ///< all parts are of concern
    std::uint64_t end_ = 0;  ///< of those that are laid out
};

}  // namespace lm::a2l
