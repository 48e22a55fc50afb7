// One block of the module to one record of the model: conversion methods, their tables, record layouts.
//
// Threads: one at a time. Lifetime: the records' texts live where the ModelStore points. All readers throw
// BlockError when an argument is missing or wrong.
#pragma once

#include "a2l/block.h"
#include "a2l/description.h"
#include "a2l/object_readers.h"

namespace lm::a2l {

/// Also throws when what the conversion type needs is not there ("LINEAR without COEFFS_LINEAR", ...).
CompuMethod readCompuMethod(const Block& block, ModelStore& store);
CompuTab readCompuTab(const Block& block, ModelStore& store);
CompuVtab readCompuVtab(const Block& block, ModelStore& store);
CompuVtab readCompuVtabRange(const Block& block, ModelStore& store);

}  // namespace lm::a2l
