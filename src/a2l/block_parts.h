// Reading the parts of a block one by one, so that one that cannot be read leaves the others alone.
//
// Threads: one at a time. Lifetime: nothing is kept.
#pragma once

#include <optional>

#include "a2l/arguments.h"
#include "a2l/block.h"
#include "a2l/diagnostics.h"

namespace lm::a2l {

/// The block's record, or nothing and a diagnostic.
template <typename Part>
std::optional<Part> readPart(const Block& block, Part (*read)(const Block&, Diagnostics&),
                             Diagnostics& diagnostics) {
    try {
        return read(block, diagnostics);
    } catch (const BlockError& error) {
        diagnostics.skipped(block.keyword, {}, block.line, error.what());
        return std::nullopt;
    }
}

/// The same, unless there is such a part already.
template <typename Part>
void readFirst(std::optional<Part>& part, const Block& block, Part (*read)(const Block&, Diagnostics&),
               Diagnostics& diagnostics) {
    if (!part) part = readPart(block, read, diagnostics);
}

}  // namespace lm::a2l
