#include "sim/a2l_objects.h"

#include <fmt/format.h>

#include "sim/structure.h"

namespace lm::sim {
namespace {

/// A2L numbers: shortest text that reads back as the same value.
std::string number(double value) {
    return fmt::format("{}", value);
}

std::string indented(const std::string& lines, std::string_view indent) {
    std::string out;
    std::size_t at = 0;
    while (at < lines.size()) {
        const std::size_t end = lines.find('\n', at);
        out += indent;
        out.append(lines, at, end - at + 1);
        at = end + 1;
    }
    return out;
}

/// From 1.70 on all numbers count, before there are always three.
std::string matrix(const std::vector<std::uint16_t>& sizes, std::uint16_t version) {
    std::vector<std::uint16_t> all = sizes;
    if (version < 170) all.resize(3, 1);
    return fmt::format("      MATRIX_DIM {}\n", fmt::join(all, " "));
}

/// The optional keywords that all kinds of object share.
std::string keywords(const Row& row, std::uint16_t version) {
    std::string text;
    if (row.mask != 0) text += fmt::format("      BIT_MASK 0x{:X}\n", row.mask);
    if (row.extension != 0) text += fmt::format("      ECU_ADDRESS_EXTENSION {}\n", row.extension);
    if (row.order != ObjectOrder::module) {
        text += fmt::format("      BYTE_ORDER {}\n",
                            row.order == ObjectOrder::msbFirst ? "MSB_FIRST" : "MSB_LAST");
    }
    if (!row.sizes.empty()) text += matrix(row.sizes, version);
    return text + indented(row.attributes, "      ");
}

std::string daqEvent(const Row& row) {
    if (row.event == kNoEvent) return {};
    return fmt::format(
        "      /begin IF_DATA XCP\n"
        "        /begin DAQ_EVENT FIXED_EVENT_LIST\n"
        "          EVENT {}\n"
        "        /end DAQ_EVENT\n"
        "      /end IF_DATA\n",
        row.event);
}

std::string layoutName(const Row& row) {
    return row.deposit.empty() ? fmt::format("RL.{}", typeInfo(row.type).name) : row.deposit;
}

/// The words that an object and the type of a leaf have in common; `place` is what stands where the address
/// of an object does.
std::string positional(const Row& row, const std::string& place) {
    const std::string limits = fmt::format("{} {}", number(row.lower), number(row.upper));
    if (row.kind == Kind::measurement)
        return fmt::format("      {} {} 0 0 {}\n", typeInfo(row.type).name, row.conversion, limits);
    if (row.kind == Kind::axisPoints) {
        return fmt::format("      {}{} {} 0 {} {} {}\n", place, row.input, layoutName(row), row.conversion,
                           row.elements, limits);
    }
    return fmt::format("      {} {}{} 0 {} {}\n", row.shape, place, layoutName(row), row.conversion, limits);
}

std::string block(const std::string& keyword, const Row& row, const std::string& body) {
    return fmt::format("    /begin {} {} \"{}\"\n{}    /end {}\n", keyword, row.name, row.description, body,
                       keyword);
}

std::string leafType(const Row& row, std::uint16_t version) {
    const char* keyword = row.kind == Kind::measurement  ? "TYPEDEF_MEASUREMENT"
                          : row.kind == Kind::axisPoints ? "TYPEDEF_AXIS"
                                                         : "TYPEDEF_CHARACTERISTIC";
    return block(keyword, row, positional(row, "") + keywords(row, version));
}

}  // namespace

bool isDescribed(const Row& row, std::uint16_t version) {
    return row.kind != Kind::hidden && row.a2lVersion <= version && isTypeKnown(row.type, version);
}

std::string a2lObject(const Row& row, std::uint16_t version) {
    const std::string address = fmt::format("0x{:08X} ", row.address);
    const std::string options = keywords(row, version);
    switch (row.kind) {
        case Kind::measurement: {
            const std::string place = row.place == Place::nowhere
                                          ? ""
                                          : fmt::format("      ECU_ADDRESS {}\n", address.substr(0, 10));
            return block("MEASUREMENT", row, positional(row, "") + place + options + daqEvent(row));
        }
        case Kind::characteristic:
            return block("CHARACTERISTIC", row, positional(row, address) + options);
        case Kind::axisPoints:
            return block("AXIS_PTS", row, positional(row, address) + options);
        case Kind::blob:
            return block("BLOB", row, fmt::format("      {}{}\n{}", address, row.size(), options));
        case Kind::instance:
            return block("INSTANCE", row,
                         fmt::format("      {} {}\n{}{}", row.structure, address.substr(0, 10), options,
                                     daqEvent(row)));
        case Kind::hidden:
            break;
    }
    return {};
}

std::string a2lTypes(std::uint16_t version) {
    std::string text;
    for (const Row& leaf : structures().leaves)
        text += leafType(leaf, version);
    for (const Structure& structure : structures().structures) {
        text += fmt::format("    /begin TYPEDEF_STRUCTURE {} \"{}\" {}\n", structure.name,
                            structure.description, structure.size);
        for (const Component& component : structure.components) {
            text += fmt::format("      /begin STRUCTURE_COMPONENT {} {} {}\n", component.name, component.type,
                                component.offset);
            if (component.count != 0) text += fmt::format("        MATRIX_DIM {}\n", component.count);
            text += "      /end STRUCTURE_COMPONENT\n";
        }
        text += "    /end TYPEDEF_STRUCTURE\n";
    }
    return text;
}

}  // namespace lm::sim
