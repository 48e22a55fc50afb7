// From the records of a description to objects, which need it no more.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>

#include "a2l/description.h"
#include "a2l/object.h"
#include "core/result.h"

namespace lm::a2l {

/// How deep objects may refer to others: a CURVE_AXIS to a curve, which has an axis itself.
constexpr std::size_t kMostReferences = 8;

// Errors (notFound): "NAME: REASON".

Result<Object> buildMeasurement(const Description& description, const Measurement& measurement);
Result<Object> buildCharacteristic(const Description& description, const Characteristic& characteristic,
                                   std::size_t referencesLeft = kMostReferences);
Result<Object> buildAxisPoints(const Description& description, const AxisPoints& points);

/// A part of an INSTANCE.
Result<Object> buildLeaf(const Description& description, const Leaf& leaf, std::size_t referencesLeft);
/// A BLOB: an array of bytes.
Result<Object> buildBlob(const Blob& blob);

/// The object of a name; findObject() with the references left.
Result<Object> buildObject(const Description& description, std::string_view name,
                           std::size_t referencesLeft = kMostReferences);

/// The axes of a curve, a map and the like, whose record is known.
Result<std::vector<Axis>> buildAxes(const Description& description, const Characteristic& characteristic,
                                    Object& object, std::size_t referencesLeft);

/// The order and form that a layout gives to an object's parts. Adds what the object rests on by it.
Result<Record> buildRecord(const Description& description, std::string_view layout, Object& object);

/// What measurements, parameters and axes have in common.
Result<value::Conversion> buildConversionOf(const Description& description, std::string_view name,
                                            std::string_view method, std::string_view format,
                                            const std::optional<std::string_view>& unit);
/// "NAME: REASON".
Error objectFault(std::string_view name, const std::string& reason);

/// The byte order of an object or an axis: its own, else that of all. Error: one that swaps words.
template <typename Source>
Result<ByteOrder> byteOrderOf(const Description& description, const Source& source, std::string_view name,
                              Assumptions& assumptions) {
    if (source.wordSwapped || (!source.byteOrder && description.defaults.wordSwapped))
        return objectFault(name, "a BYTE_ORDER that swaps words is not supported");
    if (source.byteOrder) return *source.byteOrder;
    if (!description.byteOrder) assumptions.add(Assumption::byteOrder);
    return description.byteOrder.value_or(ByteOrder::littleEndian);
}

}  // namespace lm::a2l
