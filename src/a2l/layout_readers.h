// RECORD_LAYOUT, AXIS_DESCR and what else says how values lie in memory, from blocks to records.
//
// Threads: one at a time. Lifetime: the records' texts live where the ModelStore points. All readers throw
// BlockError when an argument is missing or wrong.
#pragma once

#include <string_view>

#include "a2l/arguments.h"
#include "a2l/block.h"
#include "a2l/object_readers.h"
#include "a2l/record_layout.h"

namespace lm::a2l {

RecordLayout readRecordLayout(const Block& block, ModelStore& store);
AxisDescription readAxisDescription(const Block& block, ModelStore& store);

/// Takes an ALIGNMENT_x and its number. False for another keyword.
bool readAlignment(const Block& block, std::size_t index, Alignments& alignments);

/// "unknown address type 'WORD'".
AddressType readAddressType(const Block& block, std::size_t index, std::string_view label);
/// "unknown deposit 'WORD'".
Deposit readDeposit(const Block& block, std::size_t index);
/// "unknown monotony 'WORD'".
Monotony readMonotony(const Block& block, std::size_t index);

/// MSB_FIRST_MSW_LAST and MSB_LAST_MSW_FIRST.
bool isWordSwapped(const Block& block, std::size_t index);
/// BYTE_ORDER of an object or of all of them.
template <typename Object>
void readObjectByteOrder(Object& object, const Block& block, std::size_t index) {
    object.wordSwapped = isWordSwapped(block, index);
    if (!object.wordSwapped) object.byteOrder = readByteOrder(block, index);
}

}  // namespace lm::a2l
