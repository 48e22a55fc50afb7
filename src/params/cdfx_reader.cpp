#include "params/cdfx_reader.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/cdfx_values.h"
#include "params/set_reading.h"
#include "params/xml_input.h"

namespace lm::params {
namespace {

struct Category {
    std::string_view name;
    Shape shape;
    std::optional<std::size_t> rank;  ///< dimensions of the values; none: as the file says
    std::size_t axes = 0;
};

// The third is how one product's sample file spells the second.
constexpr std::array<Category, 15> kCategories = {{
    {"VALUE", Shape::scalar, 0},
    {"DEPENDENT_VALUE", Shape::scalar, 0},
    {"DEPEDNDENT_VALUE", Shape::scalar, 0},
    {"BOOLEAN", Shape::scalar, 0},
    {"ASCII", Shape::text, 0},
    {"VAL_BLK", Shape::block, std::nullopt},
    {"VALUE_ARRAY", Shape::block, std::nullopt},
    {"CURVE", Shape::curve, 1, 1},
    {"CURVE_AXIS", Shape::curve, 1, 1},
    {"MAP", Shape::map, 2, 2},
    {"CUBOID", Shape::cuboid, 3, 3},
    {"CUBE_4", Shape::cube4, 4, 4},
    {"CUBE_5", Shape::cube5, 5, 5},
    {"COM_AXIS", Shape::axis, 1},
    {"RES_AXIS", Shape::axis, 2},
}};

struct AxisCategory {
    std::string_view name;
    AxisKind kind;
};

constexpr std::array<AxisCategory, 5> kAxisCategories = {{{"STD_AXIS", AxisKind::standard},
                                                          {"FIX_AXIS", AxisKind::fixed},
                                                          {"COM_AXIS", AxisKind::common},
                                                          {"RES_AXIS", AxisKind::rescale},
                                                          {"CURVE_AXIS", AxisKind::curve}}};

std::string nameIn(pugi::xml_node node, std::string_view child) {
    return std::string(trimmed(asLine(textOf(childOf(node, child)))));
}

/// What CATEGORY says, or, as it may be missing, what the values look like.
std::string categoryOf(pugi::xml_node instance, pugi::xml_node data) {
    std::string name = nameIn(instance, "CATEGORY");
    if (!name.empty()) return name;
    const std::size_t axes = childrenOf(childOf(data, "SW-AXIS-CONTS"), "SW-AXIS-CONT").size();
    if (axes > 0) return axes == 1 ? "CURVE" : "MAP";
    const pugi::xml_node container = childOf(data, "SW-VALUE-CONT");
    const pugi::xml_node values = childOf(container, "SW-VALUES-PHYS");
    const std::size_t count = childrenOf(values, "V").size() + childrenOf(values, "VT").size();
    return count == 1 && !childOf(container, "SW-ARRAYSIZE") ? "VALUE" : "VAL_BLK";
}

/// What an instance inside another one takes over from it.
struct Outer {
    std::string name = {};
    std::string function = {};
};

class CdfxReader {
  public:
    Result<ReadSet> read(std::string_view bytes) {
        if (auto loaded = input_.load(bytes); !loaded) return loaded.error();
        if (auto checked = readRoot(); !checked) return checked.error();
        for (const pugi::xml_node systems : childrenOf(input_.root(), "SW-SYSTEMS")) {
            for (const pugi::xml_node system : childrenOf(systems, "SW-SYSTEM")) {
                if (auto done = readSystem(system); !done) return done.error();
            }
        }
        return std::move(reading_).finish();
    }

  private:
    Error fault(pugi::xml_node node, std::string_view what) const {
        return reading_.error(input_.lineOf(node), what);
    }

    Result<void> readRoot();
    Result<void> readSystem(pugi::xml_node system);
    Result<void> readInstance(pugi::xml_node instance, const Outer& outer);
    Result<std::string> fullName(pugi::xml_node instance, const Outer& outer) const;
    Result<pugi::xml_node> dataOf(pugi::xml_node instance, const std::string& name) const;
    Result<void> readParameter(pugi::xml_node instance, pugi::xml_node data, Parameter parameter);
    Result<void> readValues(pugi::xml_node container, const Category& category, Parameter& parameter) const;
    Result<void> readAxes(pugi::xml_node data, Parameter& parameter) const;
    Result<ParameterAxis> readAxis(pugi::xml_node container, const Parameter& parameter,
                                   std::size_t dimension) const;

    XmlInput input_;
    SetReading reading_{"CDFX"};
};

Result<void> CdfxReader::readRoot() {
    const pugi::xml_node root = input_.root();
    if (localName(root) != "MSRSW")
        return fault(root, fmt::format("'{}' where MSRSW has to be: is it a CDFX file?", localName(root)));
    const std::string category = nameIn(root, "CATEGORY");
    if (!category.empty() && !category.starts_with("CDF2"))
        return fault(root, fmt::format("CATEGORY '{}'; CDF20 and CDF21 are read", printableText(category)));
    reading_.origin().creator = asLine(root.attribute("CREATOR").value());
    return {};
}

Result<void> CdfxReader::readSystem(pugi::xml_node system) {
    Origin& origin = reading_.origin();
    if (origin.ecu.empty()) origin.ecu = nameIn(system, "SHORT-NAME");
    for (const pugi::xml_node spec : childrenOf(system, "SW-INSTANCE-SPEC")) {
        for (const pugi::xml_node tree : childrenOf(spec, "SW-INSTANCE-TREE")) {
            if (origin.a2lFile.empty())
                origin.a2lFile = nameIn(childOf(tree, "SW-INSTANCE-TREE-ORIGIN"), "SYMBOLIC-FILE");
            for (const pugi::xml_node instance : childrenOf(tree, "SW-INSTANCE")) {
                if (auto done = readInstance(instance, {}); !done) return done;
            }
        }
    }
    return {};
}

Result<void> CdfxReader::readInstance(pugi::xml_node instance, const Outer& outer) {
    auto name = fullName(instance, outer);
    if (!name) return name.error();
    Parameter parameter;
    parameter.name = std::move(name.value());
    parameter.description = nameIn(instance, "LONG-NAME");
    parameter.function = nameIn(instance, "SW-FEATURE-REF");
    if (parameter.function.empty()) parameter.function = outer.function;
    const Outer own = {parameter.name, parameter.function};
    const auto data = dataOf(instance, parameter.name);
    if (!data) return data.error();
    const auto parts = childrenOf(instance, "SW-INSTANCE");
    if (childOf(childOf(data.value(), "SW-VALUE-CONT"), "SW-VALUES-PHYS")) {
        if (auto done = readParameter(instance, data.value(), std::move(parameter)); !done) return done;
    } else if (parts.empty()) {
        reading_.leaveOut(input_.lineOf(instance), own.name, "has no values");
    }
    for (const pugi::xml_node part : parts) {
        if (auto done = readInstance(part, own); !done) return done;
    }
    return {};
}

Result<std::string> CdfxReader::fullName(pugi::xml_node instance, const Outer& outer) const {
    const std::string name = nameIn(instance, "SHORT-NAME");
    if (!name.empty()) return outer.name.empty() ? name : outer.name + "." + name;
    std::string indexed = outer.name;
    for (const pugi::xml_node index : childrenOf(instance, "SW-ARRAY-INDEX")) {
        const std::string text = textOf(index);
        const auto number = parseUnsigned(trimmed(text), NumberBase::decimal, kMostFileBytes);
        if (!number || outer.name.empty()) {
            return fault(index, fmt::format("SW-ARRAY-INDEX '{}' is no index inside an instance",
                                            printableText(text)));
        }
        indexed += fmt::format("[{}]", number.value());
    }
    if (indexed == outer.name) return fault(instance, "an SW-INSTANCE without a SHORT-NAME");
    return indexed;
}

// Files with variants wrap the data of parameters without any, too.
Result<pugi::xml_node> CdfxReader::dataOf(pugi::xml_node instance, const std::string& name) const {
    const auto variants =
        childrenOf(childOf(instance, "SW-INSTANCE-PROPS-VARIANTS"), "SW-INSTANCE-PROPS-VARIANT");
    if (variants.empty()) return instance;
    if (variants.size() == 1) return variants.front();
    return fault(variants[1], fmt::format("{} has {} variants; export the one you want alone",
                                          printableText(name), variants.size()));
}

Result<void> CdfxReader::readParameter(pugi::xml_node instance, pugi::xml_node data, Parameter parameter) {
    const std::string categoryName = categoryOf(instance, data);
    const auto* category = std::find_if(kCategories.begin(), kCategories.end(),
                                        [&](const Category& known) { return known.name == categoryName; });
    if (category == kCategories.end()) {
        reading_.leaveOut(input_.lineOf(instance), parameter.name,
                          fmt::format("is of category '{}'", printableText(categoryName)));
        return {};
    }
    parameter.shape = category->shape;
    if (auto done = readValues(childOf(data, "SW-VALUE-CONT"), *category, parameter); !done) return done;
    if (category->axes > 0) {
        if (auto done = readAxes(data, parameter); !done) return done;
    }
    return reading_.add(std::move(parameter), input_.lineOf(instance));
}

Result<void> CdfxReader::readValues(pugi::xml_node container, const Category& category,
                                    Parameter& parameter) const {
    auto read = readCdfxValues(reading_, input_, container);
    if (!read) return read.error();
    CdfxValues& values = read.value();
    parameter.unit = std::move(values.unit);
    if (values.values.empty()) return {};  // told by who takes the parameter
    if (category.rank == std::size_t{0}) {
        if (values.values.size() > 1) {
            return fault(container, fmt::format("{}: {} values for a {}", parameter.name,
                                                values.values.size(), category.name));
        }
    } else {
        auto dimensions = dimensionsOf(values, category.rank);
        if (!dimensions) return fault(container, parameter.name + ": " + dimensions.error().text());
        parameter.dimensions = std::move(dimensions.value());
    }
    if (category.name == "RES_AXIS" && parameter.dimensions[0] != 2)
        return fault(container, parameter.name + ": a RES_AXIS wants a VG of two values for each point");
    if (category.shape == Shape::text && !std::holds_alternative<std::string>(values.values[0]))
        return fault(container, parameter.name + ": an ASCII wants a VT");
    if (category.name == "BOOLEAN") {
        if (sameValue(values.values[0], "true")) values.values[0] = 1.0;
        if (sameValue(values.values[0], "false")) values.values[0] = 0.0;
    }
    parameter.values = std::move(values.values);
    return {};
}

Result<void> CdfxReader::readAxes(pugi::xml_node data, Parameter& parameter) const {
    for (const pugi::xml_node container : childrenOf(childOf(data, "SW-AXIS-CONTS"), "SW-AXIS-CONT")) {
        const std::size_t at = parameter.axes.size();
        // One axis too many is found by who checks the shape.
        const std::size_t dimension = at < parameter.dimensions.size() ? parameter.dimensions[at] : 0;
        auto axis = readAxis(container, parameter, dimension);
        if (!axis) return axis.error();
        parameter.axes.push_back(std::move(axis.value()));
    }
    return {};
}

Result<ParameterAxis> CdfxReader::readAxis(pugi::xml_node container, const Parameter& parameter,
                                           std::size_t dimension) const {
    ParameterAxis axis;
    axis.reference = nameIn(container, "SW-INSTANCE-REF");
    const std::string categoryName = nameIn(container, "CATEGORY");
    const auto* category =
        std::find_if(kAxisCategories.begin(), kAxisCategories.end(),
                     [&](const AxisCategory& known) { return known.name == categoryName; });
    if (category != kAxisCategories.end()) {
        axis.kind = category->kind;
    } else if (categoryName.empty()) {
        axis.kind = axis.reference.empty() ? AxisKind::standard : AxisKind::common;
    } else {
        return fault(container, fmt::format("{}: axis of category '{}'; STD_AXIS, FIX_AXIS, COM_AXIS, "
                                            "RES_AXIS and CURVE_AXIS are read",
                                            parameter.name, printableText(categoryName)));
    }
    auto read = readCdfxValues(reading_, input_, container);
    if (!read) return read.error();
    const std::vector<std::size_t>& sizes = read.value().sizes;
    if (sizes.size() == 1 && sizes[0] != dimension && !parameter.values.empty()) {
        return fault(container, fmt::format("{}: SW-ARRAYSIZE {} for {} value(s) along this axis",
                                            parameter.name, sizes[0], dimension));
    }
    axis.unit = std::move(read.value().unit);
    axis.points = std::move(read.value().values);
    return axis;
}

}  // namespace

Result<ReadSet> readCdfx(std::string_view bytes) {
    return CdfxReader().read(bytes);
}

}  // namespace lm::params
