#include "params/cdfx_values.h"

#include <string_view>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

using Dimensions = std::vector<std::size_t>;

class GroupReader {
  public:
    GroupReader(const SetReading& reading, const XmlInput& input, std::vector<value::Value>& values)
        : reading_(reading), input_(input), values_(values) {}

    Result<Dimensions> read(pugi::xml_node group) {
        std::size_t direct = 0;
        std::size_t groups = 0;
        Dimensions inner;
        for (const pugi::xml_node item : group.children()) {
            const std::string_view name = localName(item);
            if (name == "V" || name == "VF" || name == "VT") {
                ++direct;
                if (auto taken = takeValue(item, name == "VT"); !taken) return taken.error();
            } else if (name == "VG") {
                auto row = read(item);
                if (!row) return row;
                if (groups++ > 0 && row.value() != inner)
                    return fault(item, "this VG does not hold as many values as the one before it");
                inner = std::move(row.value());
            }
        }
        if (direct > 0 && groups > 0) return fault(group, "values and VG side by side");
        if (groups == 0) return Dimensions{direct};
        inner.push_back(groups);
        return inner;
    }

  private:
    Error fault(pugi::xml_node node, std::string_view what) const {
        return reading_.error(input_.lineOf(node), what);
    }

    Result<void> takeValue(pugi::xml_node item, bool isText) {
        std::string text = textOf(item);
        if (isText) {
            values_.emplace_back(std::move(text));
            return {};
        }
        const auto number = parseNumber(trimmed(text));
        if (!number || !isFiniteNumber(*number))
            return fault(item, fmt::format("'{}' is not a number", printableText(text)));
        values_.push_back(*number);
        return {};
    }

    const SetReading& reading_;
    const XmlInput& input_;
    std::vector<value::Value>& values_;
};

Result<Dimensions> readSizes(const SetReading& reading, const XmlInput& input, pugi::xml_node arraySize) {
    Dimensions sizes;
    for (const pugi::xml_node item : childrenOf(arraySize, "V")) {
        const std::string text = textOf(item);
        const auto size = parseUnsigned(trimmed(text), NumberBase::decimal, kMostFileBytes);
        if (!size) {
            return reading.error(input.lineOf(item),
                                 fmt::format("SW-ARRAYSIZE: '{}' is no count", printableText(text)));
        }
        sizes.push_back(size.value());
    }
    return sizes;
}

/// Without dimensions of 1 at the end, but for the first.
Dimensions stripped(Dimensions dimensions) {
    while (dimensions.size() > 1 && dimensions.back() == 1)
        dimensions.pop_back();
    return dimensions;
}

bool holds(const Dimensions& sizes, std::size_t count) {
    std::size_t wanted = 1;
    for (const std::size_t size : sizes) {
        if (size != 0 && wanted > count / size) return false;
        wanted *= size;
    }
    return wanted == count;
}

Error misfit(const std::string& what) {
    return {ErrorCode::invalidArgument, what};
}

}  // namespace

Result<CdfxValues> readCdfxValues(const SetReading& reading, const XmlInput& input,
                                  pugi::xml_node container) {
    CdfxValues read;
    auto nesting = GroupReader(reading, input, read.values).read(childOf(container, "SW-VALUES-PHYS"));
    if (!nesting) return nesting.error();
    read.nesting = std::move(nesting.value());
    auto sizes = readSizes(reading, input, childOf(container, "SW-ARRAYSIZE"));
    if (!sizes) return sizes.error();
    read.sizes = std::move(sizes.value());
    read.unit = asLine(textOf(childOf(container, "UNIT-DISPLAY-NAME")));
    return read;
}

Result<Dimensions> dimensionsOf(const CdfxValues& values, std::optional<std::size_t> rank) {
    const bool isFlat = values.nesting.size() == 1;
    Dimensions dimensions = values.nesting;
    if (!values.sizes.empty()) {
        const bool sameRows = isFlat || stripped(values.nesting) == stripped(values.sizes);
        if (!sameRows || !holds(values.sizes, values.values.size())) {
            return misfit(fmt::format("SW-ARRAYSIZE says {}, the values are {}",
                                      fmt::join(values.sizes, " x "), fmt::join(values.nesting, " x ")));
        }
        dimensions = values.sizes;
    } else if (!rank || *rank == 1) {
        dimensions = stripped(dimensions);
    } else if (isFlat && values.values.size() > 1) {
        return misfit("its values have to stand in a VG for each row");
    }
    if (!rank) return dimensions;
    if (dimensions.size() > *rank) dimensions = stripped(dimensions);
    if (dimensions.size() > *rank) return misfit("its VG are nested too deeply");
    dimensions.resize(*rank, 1);
    return dimensions;
}

}  // namespace lm::params
