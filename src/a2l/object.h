// A name of the A2L resolved to what it says of itself: kind, dimensions, axes, and how its values are coded.
// Where they lie is found by place(), as it may depend on what the memory holds.
//
// Threads: an object is immutable; all functions are pure. Lifetime: owns everything; independent of the
// description it was found in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/assumptions.h"
#include "a2l/description.h"
#include "a2l/structure.h"
#include "core/result.h"
#include "value/element.h"

namespace lm::a2l {

enum class ObjectKind : std::uint8_t { measurement, characteristic, axisPoints, blob };

struct Object;

/// An axis as the A2L says it, of which a shared one owns nothing but the way it is seen from here.
struct Axis {
    AxisKind kind = AxisKind::standard;
    Monotony monotony = Monotony::none;
    bool difference = false;  ///< DEPOSIT: stored are the steps from point to point
    bool readOnly = false;
    std::string inputQuantity;  ///< empty: none
    std::string reference;      ///< the AXIS_PTS, or the CURVE of a CURVE_AXIS
    std::uint32_t maxPoints = 0;
    FixedAxis fixed;
    /// How a point is coded, its conversion, unit and limits.
    value::Element point;
    std::shared_ptr<const Object> shared;  ///< the object of `reference`
};

/// The order and form of the parts of an object in memory.
struct Record {
    std::string layout;  ///< name of the RECORD_LAYOUT
    std::vector<RecordLayout::Entry> entries;
    std::array<std::uint32_t, kMostAxes> fixedCounts{};
    Alignments borders{};  ///< of all types
    bool staticRecord = false;
    bool staticOffsets = false;
    std::uint32_t nearPointerOffset = 0;  ///< for pointers shorter than an address

    std::uint32_t border(value::DataType type) const { return borders[alignmentClass(type)]; }
    const RecordLayout::Entry* find(RecordLayout::Field field, std::size_t axis = 0) const;
};

/// What the A2L says of an object.
struct Object {
    std::string name;
    std::string description;  ///< long identifier
    std::string displayName;  ///< DISPLAY_IDENTIFIER, may be empty
    ObjectKind kind = ObjectKind::measurement;
    /// Of a measurement `value` or `valBlk`; of AXIS_PTS `curve`; of a BLOB `valBlk`.
    CharacteristicType type = CharacteristicType::value;
    bool writable = false;  ///< characteristic: not READ_ONLY; measurement: READ_WRITE
    CalibrationAccess access = CalibrationAccess::notGiven;  ///< why it may be not writable
    bool guardRails = false;  ///< the outermost values are made of their neighbours
    TextEncoding encoding = TextEncoding::notGiven;
    std::vector<std::uint16_t> events;            ///< event channels the A2L names for a measurement
    std::optional<std::uint16_t> preferredEvent;  ///< of them: a fixed one, else a default, else an available
    /// Elements along X, Y, ...: all there can be. None for a scalar.
    std::vector<std::uint32_t> dimensions;
    std::vector<Axis> axes;  ///< X, Y, ...; of AXIS_PTS its points
    Record record;
    bool columnDir = false;                           ///< of a measurement: Y runs fastest
    std::optional<std::uint64_t> recordStride;        ///< each element has a record of its own, so far apart
    std::vector<PointerHop> hops;                     ///< pointers on the way from the address to the object
    std::vector<std::shared_ptr<const Object>> maps;  ///< of a CUBOID with MAP_LIST: one per point of Z
    Assumptions assumptions;                          ///< what it rests on

    std::size_t elementCount() const;
    bool isText() const { return type == CharacteristicType::ascii; }
    /// The one of a scalar.
    const value::Element& element() const { return first; }

    value::Element first;  ///< what all elements have in common, at the address of the object
};

/// Everything that has values in the ECU. Errors (notFound): "'NAME' is neither a MEASUREMENT nor a
/// CHARACTERISTIC", "NAME: REASON".
Result<Object> findObject(const Description& description, std::string_view name);

/// From now on its values and points may go up to the extended limits.
void takeExtendedLimits(Object& object);

// The scalar view: one number to an object.

/// An object of one element whose place the A2L tells. Errors as findObject(), and (notFound) "NAME: arrays
/// are not supported yet", "NAME: only scalar (VALUE) parameters are supported yet" and the like. With
/// `explains` an unknown name has a hint, which takes a look at all names (unknownNameHint).
Result<Object> findScalar(const Description& description, std::string_view name, bool explains = true);

/// As findScalar(), whose error it throws as an ObjectError (object_error.h).
Object resolve(const Description& description, std::string_view name);

/// As value::encodePhysical() of the one element.
Result<void> encodePhysical(const Object& object, double physical, std::span<std::uint8_t> buffer);

}  // namespace lm::a2l
