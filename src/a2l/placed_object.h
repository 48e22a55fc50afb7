// An object at its place in ECU memory: how many elements and points are in use, and where each of them lies.
//
// Threads: immutable once placed; all queries are pure. Lifetime: owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "a2l/memory_image.h"
#include "a2l/object.h"
#include "core/result.h"
#include "value/element.h"

namespace lm::a2l {

/// Equal pieces of memory by one number per dimension. Where values alternate with points, the pieces along
/// one dimension lie at places of their own.
struct Grid {
    xcp::Address base;
    std::size_t size = 1;  ///< of one piece
    std::vector<std::uint32_t> counts;
    std::vector<std::uint64_t> strides;  ///< bytes from one to the next
    std::vector<bool> decreasing;        ///< the first one lies last
    std::optional<std::size_t> uneven;   ///< the dimension that has `starts` instead of a stride
    std::vector<std::uint32_t> starts;

    /// Of a number that counts with X fastest.
    xcp::Address address(std::size_t number) const;
    /// Bytes from the first to the end of the last.
    std::uint64_t extent() const;
};

/// A count, a pointer or a parameter in memory that tells where something lies, as it was read.
struct PlacedBy {
    xcp::Address address;
    std::vector<std::uint8_t> bytes;
    bool inRecord = false;  ///< beside the values: what lies between belongs to the object, too

    MemorySpan span() const { return {address, bytes.size()}; }
};

class PlacedAxis {
  public:
    /// How many points are in use.
    std::uint32_t count() const { return count_; }
    const Axis& about() const { return *axis_; }
    /// Whether the points are bytes of the object itself: those of a shared axis belong to its AXIS_PTS.
    bool isOwn() const { return stored_ && !axis_->shared; }
    bool isStored() const { return stored_; }
    /// A rescale axis: its points are computed of pairs in memory.
    bool hasPairs() const { return isPairs_; }

    /// Where a stored point lies; of DEPOSIT DIFFERENCE that is the step to it. Point 0 is the first in
    /// logical order.
    value::Element element(std::size_t point) const;
    /// The raw values of all points in logical order. Error (notFound): bytes are not in the image.
    Result<std::vector<value::Value>> raw(const MemoryImage& image) const;
    value::Value physical(const value::Value& raw) const { return value::physicalValue(axis_->point, raw); }

  private:
    friend class Placer;
    friend class PlacedObject;

    std::shared_ptr<const Axis> axis_;
    std::string name_;  ///< of the points, without their number
    std::uint32_t count_ = 0;
    bool stored_ = false;
    bool isPairs_ = false;     ///< the grid holds axis values and index values by turns
    bool pointsAway_ = false;  ///< they lie where a pointer in the record says
    Grid grid_;
    // Of a fixed axis whose parameters lie in memory, as they were read.
    double offset_ = 0;
    double step_ = 1;
    std::vector<PlacedBy> placedBy_;  ///< of a shared one
};

class PlacedObject {
  public:
    const Object& object() const { return *object_; }
    /// In use, X first; none for a scalar.
    const std::vector<std::uint32_t>& dimensions() const { return dimensions_; }
    const std::vector<PlacedAxis>& axes() const { return axes_; }
    std::size_t elementCount() const;
    /// The element of a number that counts with X fastest, in logical order: NAME[x][y]. Of AXIS_PTS the
    /// point.
    value::Element element(std::size_t number) const;
    /// Where it lies.
    xcp::Address address(std::size_t number) const;

    /// What has to be read to know every value and point, shared axes included, or `only` one element; and
    /// all that it was placed by.
    std::vector<MemorySpan> spans(std::size_t bytesPerPacket, std::optional<std::size_t> only = {}) const;
    /// Of the object, its shared axes and its maps; none where the A2L tells the place.
    std::vector<PlacedBy> placedBy() const;
    /// Whether the memory would place it here again; what the image lacks of placedBy() does not count.
    bool isStillPlaced(const MemoryImage& image) const;

    /// The maps of a MAP_LIST share their axes, also where each has points of its own. Error
    /// (invalidArgument): "NAME: the maps 'A' and 'B' of MAP_LIST differ in the points of axis x".
    Result<void> checkMaps(const MemoryImage& image) const;

  private:
    friend class Placer;

    std::shared_ptr<const Object> object_;
    std::vector<std::uint32_t> dimensions_;
    std::vector<PlacedAxis> axes_;
    Grid values_;
    bool pointsAway_ = false;         ///< the values lie where a pointer in the record says
    std::vector<PlacedObject> maps_;  ///< of a MAP_LIST
    std::vector<PlacedBy> placedBy_;  ///< but for shared axes and maps
};

/// Finds out where the elements lie: follows pointers, reads the counts of points in use and the parameters
/// of fixed axes. Nothing is read when the A2L says it all. Errors (invalidArgument): counts of 0 and above
/// the maximum, layouts that do not fit the object, what is larger than 64 MiB or reaches beyond the last
/// address; (unsupported) ALTERNATE_CURVES; those of `read`. All bear the object's name.
Result<PlacedObject> place(const Object& object, const ReadMemory& read);

}  // namespace lm::a2l
