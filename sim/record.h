// What an object of several values holds in memory: parts one after the other, each aligned to the size of
// its type. The points and values after a number of points move up when fewer are in use.
//
// Threads: pure functions. Lifetime: a record owns its contents; bytes are borrowed for the call.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/data_type.h"

namespace lm::sim {

/// What a part is to the model: the number of points in use, the points, the values, or nothing.
enum class Role : std::uint8_t { other, count, points, values, pointer };

struct Part {
    DataType type = DataType::ubyte;
    std::vector<double> content = {};  ///< raw values at the start, as many as the part has room for
    Role role = Role::other;
    std::string target = {};  ///< of a pointer: the row it points to
};

using Record = std::vector<Part>;

/// Bytes from the first part to the end of the last.
std::size_t recordSize(const Record& record);

/// Writes the contents at the start; `addressOf` tells where a pointer points.
void storeRecord(std::uint8_t* to, const Record& record, ByteOrder order,
                 const std::function<std::uint32_t(const std::string& target)>& addressOf);

/// The points and values in use.
struct Table {
    std::vector<double> points = {};
    std::vector<double> values = {};
};

/// What memory holds by now. Empty when the number of points is 0 or greater than there is room for.
Table readTable(const std::uint8_t* from, const Record& record, ByteOrder order);

}  // namespace lm::sim
