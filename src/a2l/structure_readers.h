// Blocks of the module that make up structures to records of the model: TYPEDEF_STRUCTURE, INSTANCE, BLOB,
// TYPEDEF_BLOB. The other TYPEDEF_... read as the objects that they are types of.
//
// Threads: one at a time. Lifetime: the records' texts live where the ModelStore points. All readers throw
// BlockError when an argument is missing or wrong.
#pragma once

#include "a2l/block.h"
#include "a2l/description.h"
#include "a2l/object_readers.h"

namespace lm::a2l {

StructureType readStructureType(const Block& block, ModelStore& store);
Instance readInstance(const Block& block, ModelStore& store);
Blob readBlob(const Block& block, ModelStore& store);
Blob readBlobType(const Block& block, ModelStore& store);

}  // namespace lm::a2l
