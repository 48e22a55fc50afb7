// What `list` tells of one object: its facts, gathered from whatever kind it is, as lines of text and as
// JSON.
//
// Threads: one thread. Lifetime: a row borrows from the description and, of a part of an instance, from its
// leaf.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "a2l/description.h"
#include "a2l/structure.h"
#include "cli/json_writer.h"
#include "cli/output.h"

namespace lm::cli {

/// Units by conversion method; neighbours in a file often share theirs.
class Units {
  public:
    explicit Units(const a2l::Description& description) : description_(description) {}

    std::string_view of(std::string_view method) {
        if (method != method_) {
            const a2l::CompuMethod* found = description_.findCompuMethod(method);
            unit_ = found == nullptr ? std::string_view() : found->unit;
            method_ = method;
        }
        return unit_;
    }

  private:
    const a2l::Description& description_;
    std::string_view method_;
    std::string_view unit_;
};

struct ListRow {
    char letter = 'M';
    std::string_view kind;
    std::string_view name;
    std::string_view type = {};
    std::string_view unit = {};
    std::optional<std::uint32_t> address = {};
    bool isWritable = false;
    std::string_view mark = "\n";  ///< what is told of writing where it is not what one expects
    // For -l and JSON.
    std::string_view description = {};
    std::optional<std::pair<double, double>> limits = {};
    std::optional<ByteOrder> byteOrder = {};
    std::span<const std::uint16_t> events = {};
    std::uint32_t elementCount = 1;
    std::span<const a2l::AxisDescription> axes = {};
    std::span<const std::uint32_t> arrayOf = {};  ///< of an instance or one of its parts
    const a2l::Leaf* leaf = nullptr;              ///< of a part: what THIS stands for

    std::string reference(const a2l::AxisDescription& axis) const {
        return leaf == nullptr ? std::string(axis.reference) : a2l::resolveReference(*leaf, axis.reference);
    }
};

ListRow rowOf(const a2l::Description& description, const a2l::Measurement& object, Units& units);
ListRow rowOf(const a2l::Description& description, const a2l::Characteristic& object, Units& units);
ListRow rowOf(const a2l::Description& description, const a2l::AxisPoints& object, Units& units);
ListRow rowOf(const a2l::Description& description, const a2l::Blob& object, Units& units);
ListRow rowOf(const a2l::Description& description, const a2l::Instance& object, Units& units);
/// Of a part of an instance: what its type says, at its own place.
ListRow rowOf(const a2l::Description& description, const a2l::Leaf& leaf, Units& units);

void appendLine(const ListRow& row, Output& output);
/// What -l tells of an object, in a second line: no name is too long for it.
void appendDetails(const a2l::Description& description, const ListRow& row, Output& output);
void writeRow(const a2l::Description& description, const ListRow& row, JsonWriter& json);

}  // namespace lm::cli
