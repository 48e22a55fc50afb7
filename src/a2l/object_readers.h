// One block of the module to one record of the model: measurements, characteristics, axis points.
//
// Threads: one at a time. Lifetime: the records' texts live where the ModelStore points. All readers throw
// BlockError when an argument is missing or wrong.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "a2l/arguments.h"
#include "a2l/block.h"
#include "a2l/description.h"
#include "a2l/text_store.h"

namespace lm::a2l {

/// Where the texts and lists of the records go.
struct ModelStore {
    TextStore& texts;
    TextInterner& shared;  ///< for texts that many objects have in common
    std::vector<std::uint16_t>& events;
    std::vector<std::uint32_t>& dimensions;
    std::vector<std::string_view>& maps;
    std::vector<Overwrite>& overwrites;
    std::vector<std::string_view>& instanceTypes;
    std::vector<InstanceDetails>& instanceDetails;
    std::unordered_map<std::string_view, std::uint32_t> typeNumbers = {};  ///< of instanceTypes
    bool hasQuotes = false;                                                ///< of the block that is read

    /// A string of which almost every object has its own.
    std::string_view own(std::string_view text) {
        if (hasQuotes) [[unlikely]]
            return ownPlain(text);
        return texts.keep(text);
    }
    std::string_view common(std::string_view text) {
        if (hasQuotes) [[unlikely]]
            return ownPlain(text);
        return shared.keep(text);
    }
    /// The slow way, apart from the two above so that they are small.
    std::string_view ownPlain(std::string_view text);
};

/// A TYPEDEF_... has no address among its arguments.
enum class Placed : std::uint8_t { no, yes };

/// Event channels of an object's interface data, in the description's pool; `preferred` is one of them.
struct EventRange {
    std::uint32_t first = 0;
    std::uint16_t count = 0;
    std::uint16_t preferred = 0;
};
EventRange readEvents(const Block& block, ModelStore& store);

Measurement readMeasurement(const Block& block, ModelStore& store);
Characteristic readCharacteristic(const Block& block, ModelStore& store, Placed placed = Placed::yes);
AxisPoints readAxisPoints(const Block& block, ModelStore& store, Placed placed = Placed::yes);

}  // namespace lm::a2l
