// From the name of a signal to the elements that it stands for: an object of one number, an element of an
// array, all of them, points of an axis.
//
// Threads: one at a time, as `read` asks. Lifetime: the description and what `read` uses are borrowed;
// results own everything.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/memory_image.h"
#include "a2l/object.h"
#include "core/ecu_address.h"
#include "core/result.h"
#include "value/element.h"

namespace lm::session {

/// Pointers and counts in ECU memory that tell where an object lies, as they were read.
struct PlaceBytes {
    std::string object;
    xcp::Address address;
    std::vector<std::uint8_t> bytes;
};

struct SignalElements {
    std::shared_ptr<const a2l::Object> object;
    std::vector<value::Element> elements;
    std::vector<PlaceBytes> placedBy;  ///< none when the A2L alone tells the place
};

/// `read` is asked only for what the A2L does not tell; it may be empty, and then such objects fail. Errors:
/// those of a2l::findObject, a2l::place and a2l::selectElements, "NAME: has N elements, ..." above `most`,
/// and that a shared axis has no points of its own or that they are stored as steps.
Result<SignalElements> findSignalElements(const a2l::Description& description, std::string_view name,
                                          const a2l::ReadMemory& read, std::size_t most);

/// Whether the ECU still holds what the objects were placed by. Errors: those of `read`, protocolError naming
/// the object that is elsewhere or has another size.
Result<void> checkPlaces(const std::vector<PlaceBytes>& placedBy, const a2l::ReadMemory& read);

}  // namespace lm::session
