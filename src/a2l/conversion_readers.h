// One block of the module to one record of the model: conversion methods, their tables, record layouts.
//
// Threads: one at a time. Lifetime: the records' texts live in the Keeper's store. All readers throw
// ObjectError when an argument is missing or wrong.
#pragma once

#include "a2l/description.h"
#include "a2l/object_readers.h"
#include "a2l/tokenizer.h"

namespace lm::a2l {

/// Also throws when what the conversion type needs is not there ("LINEAR without COEFFS_LINEAR", ...).
CompuMethod readCompuMethod(const Block& block, Keeper& keeper);
CompuTab readCompuTab(const Block& block, Keeper& keeper);
CompuVtab readCompuVtab(const Block& block, Keeper& keeper);
CompuVtab readCompuVtabRange(const Block& block, Keeper& keeper);
RecordLayout readRecordLayout(const Block& block, Keeper& keeper);

}  // namespace lm::a2l
