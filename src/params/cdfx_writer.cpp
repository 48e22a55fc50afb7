#include "params/cdfx_writer.h"

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

using Names = std::unordered_set<std::string_view>;

/// Line breaks and tabs as references: readers turn bare ones into other blanks.
std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\t':
            case '\n':
            case '\r':
                out += fmt::format("&#{};", static_cast<int>(c));
                break;
            default:
                out += c;
        }
    }
    return out;
}

class XmlLines {
  public:
    void open(std::string_view name) {
        line(fmt::format("<{}>", name));
        ++depth_;
    }
    void close(std::string_view name) {
        --depth_;
        line(fmt::format("</{}>", name));
    }
    void text(std::string_view name, std::string_view text) {
        line(fmt::format("<{0}>{1}</{0}>", name, escaped(text)));
    }
    /// Left away when empty.
    void optionalText(std::string_view name, std::string_view content) {
        if (!content.empty()) text(name, content);
    }
    void line(std::string_view content) {
        text_.append(depth_, ' ');
        text_ += content;
        text_ += '\n';
    }
    std::string take() { return std::move(text_); }

  private:
    std::string text_;
    std::size_t depth_ = 0;
};

std::string cells(std::span<const value::Value> values) {
    std::string line;
    for (const value::Value& value : values) {
        if (const auto* text = std::get_if<std::string>(&value)) {
            line += "<VT>" + escaped(*text) + "</VT>";
        } else {
            line += "<V>" + numberText(value).value_or("0") + "</V>";
        }
    }
    return line;
}

/// The rows of one group; `sizes` are those along X, Y, ... inside it, two at least.
void writeRows(XmlLines& xml, std::span<const value::Value> values, std::span<const std::size_t> sizes) {
    const std::size_t rows = sizes.back();
    const std::size_t length = values.size() / rows;
    for (std::size_t i = 0; i < rows; ++i) {
        const auto row = values.subspan(i * length, length);
        if (sizes.size() == 2) {
            xml.line("<VG>" + cells(row) + "</VG>");
            continue;
        }
        xml.open("VG");
        writeRows(xml, row, sizes.first(sizes.size() - 1));
        xml.close("VG");
    }
}

void writeValues(XmlLines& xml, std::span<const value::Value> values, std::span<const std::size_t> sizes) {
    if (sizes.size() < 2) {
        xml.line("<SW-VALUES-PHYS>" + cells(values) + "</SW-VALUES-PHYS>");
        return;
    }
    xml.open("SW-VALUES-PHYS");
    writeRows(xml, values, sizes);
    xml.close("SW-VALUES-PHYS");
}

void writeArraySize(XmlLines& xml, std::span<const std::size_t> sizes) {
    std::string line = "<SW-ARRAYSIZE>";
    for (const std::size_t size : sizes)
        line += fmt::format("<V>{}</V>", size);
    xml.line(line + "</SW-ARRAYSIZE>");
}

bool needsLaterVersion(Shape shape) {
    return shape == Shape::cuboid || shape == Shape::cube4 || shape == Shape::cube5;
}

std::string_view categoryOf(const Parameter& parameter, const Names& curveAxes) {
    switch (parameter.shape) {
        case Shape::scalar:
            return "VALUE";
        case Shape::text:
            return "ASCII";
        case Shape::block:
            return "VAL_BLK";
        case Shape::curve:
            return curveAxes.count(parameter.name) > 0 ? "CURVE_AXIS" : "CURVE";
        case Shape::map:
            return "MAP";
        case Shape::cuboid:
            return "CUBOID";
        case Shape::cube4:
            return "CUBE_4";
        case Shape::cube5:
            return "CUBE_5";
        case Shape::axis:
            return parameter.dimensions.size() == 1 ? "COM_AXIS" : "RES_AXIS";
    }
    return {};
}

std::string_view categoryOf(AxisKind kind) {
    switch (kind) {
        case AxisKind::standard:
            return "STD_AXIS";
        case AxisKind::fixed:
            return "FIX_AXIS";
        case AxisKind::common:
            return "COM_AXIS";
        case AxisKind::rescale:
            return "RES_AXIS";
        case AxisKind::curve:
            return "CURVE_AXIS";
    }
    return {};
}

/// Why this form cannot hold what others can; empty: it can.
std::string whyNotInCdfx(const Parameter& parameter) {
    const bool isAxis = parameter.shape == Shape::axis;
    const std::size_t rank = parameter.dimensions.size();
    if (isAxis && rank != 1 && (rank != 2 || parameter.dimensions[0] != 2))
        return "is an axis of neither points nor pairs";
    return whyNotHeld(parameter, LineBreaks::held);
}

class CdfxWriter {
  public:
    explicit CdfxWriter(const ParameterSet& set) : set_(set) {}

    Result<WrittenSet> write() {
        for (const Parameter& parameter : set_.parameters) {
            if (auto fits = checkShape(parameter); !fits) return fits.error();
            std::string why = whyNotInCdfx(parameter);
            if (!why.empty()) {
                written_.leftOut.push_back({parameter.name, std::move(why)});
                continue;
            }
            held_.push_back(&parameter);
            heldNames_.insert(parameter.name);
            if (!isExact(parameter)) written_.notExact.push_back(parameter.name);
            for (const ParameterAxis& axis : parameter.axes) {
                if (axis.kind == AxisKind::curve) curveAxes_.insert(axis.reference);
            }
        }
        writeFile();
        written_.text = xml_.take();
        return std::move(written_);
    }

  private:
    void writeFile();
    void writeTree(const std::string& ecu);
    void writeInstance(const Parameter& parameter);
    void writeAxis(const ParameterAxis& axis, std::size_t size);
    bool hasSamePoints(const ParameterAxis& axis) const;

    const ParameterSet& set_;
    XmlLines xml_;
    WrittenSet written_;
    std::vector<const Parameter*> held_;
    Names heldNames_;
    Names curveAxes_;
};

void CdfxWriter::writeFile() {
    const bool isLater = std::any_of(held_.begin(), held_.end(), [](const Parameter* parameter) {
        return needsLaterVersion(parameter->shape);
    });
    xml_.line(R"(<?xml version="1.0" encoding="UTF-8"?>)");
    if (!isLater) {
        xml_.line(R"(<!DOCTYPE MSRSW PUBLIC "-//ASAM//DTD CALIBRATION DATA )"
                  R"(FORMAT:V2.0.0:LAI:IAI:XML:CDF200.XSD//EN" "cdf_v2.0.0.sl.dtd">)");
    }
    const std::string creator = asLine(set_.origin.creator);
    const std::string ecu(trimmed(set_.origin.ecu));
    const std::string name = ecu.empty() ? "ECU" : asLine(ecu);
    const std::string attribute = creator.empty() ? "" : " CREATOR=\"" + escaped(creator) + "\"";
    xml_.open("MSRSW" + attribute);
    xml_.text("SHORT-NAME", name);
    xml_.text("CATEGORY", isLater ? "CDF21" : "CDF20");
    xml_.open("SW-SYSTEMS");
    xml_.open("SW-SYSTEM");
    xml_.text("SHORT-NAME", name);
    xml_.open("SW-INSTANCE-SPEC");
    writeTree(name);
    for (const std::string_view element : {"SW-INSTANCE-SPEC", "SW-SYSTEM", "SW-SYSTEMS", "MSRSW"})
        xml_.close(element);
}

void CdfxWriter::writeTree(const std::string& ecu) {
    xml_.open("SW-INSTANCE-TREE");
    xml_.text("SHORT-NAME", ecu);
    xml_.text("CATEGORY", "NO_VCD");
    if (!set_.origin.a2lFile.empty()) {
        xml_.open("SW-INSTANCE-TREE-ORIGIN");
        xml_.text("SYMBOLIC-FILE", asLine(set_.origin.a2lFile));
        xml_.close("SW-INSTANCE-TREE-ORIGIN");
    }
    for (const Parameter* parameter : held_)
        writeInstance(*parameter);
    xml_.close("SW-INSTANCE-TREE");
}

void CdfxWriter::writeInstance(const Parameter& parameter) {
    xml_.open("SW-INSTANCE");
    xml_.text("SHORT-NAME", parameter.name);
    xml_.optionalText("LONG-NAME", asLine(parameter.description));
    xml_.text("CATEGORY", categoryOf(parameter, curveAxes_));
    xml_.optionalText("SW-FEATURE-REF", asLine(parameter.function));
    xml_.open("SW-VALUE-CONT");
    xml_.optionalText("UNIT-DISPLAY-NAME", asLine(parameter.unit));
    if (parameter.shape == Shape::block) writeArraySize(xml_, parameter.dimensions);
    writeValues(xml_, parameter.values, parameter.dimensions);
    xml_.close("SW-VALUE-CONT");
    if (!parameter.axes.empty()) {
        xml_.open("SW-AXIS-CONTS");
        for (std::size_t i = 0; i < parameter.axes.size(); ++i)
            writeAxis(parameter.axes[i], parameter.dimensions[i]);
        xml_.close("SW-AXIS-CONTS");
    }
    xml_.close("SW-INSTANCE");
}

// Points are not said twice, so that no one can change one copy alone.
bool CdfxWriter::hasSamePoints(const ParameterAxis& axis) const {
    const Parameter* named = axis.kind == AxisKind::common ? set_.find(axis.reference) : nullptr;
    return named != nullptr && heldNames_.count(named->name) > 0 && named->shape == Shape::axis &&
           named->dimensions.size() == 1 &&
           std::equal(axis.points.begin(), axis.points.end(), named->values.begin(), named->values.end(),
                      sameValue);
}

void CdfxWriter::writeAxis(const ParameterAxis& axis, std::size_t size) {
    xml_.open("SW-AXIS-CONT");
    xml_.text("CATEGORY", categoryOf(axis.kind));
    xml_.optionalText("UNIT-DISPLAY-NAME", asLine(axis.unit));
    xml_.optionalText("SW-INSTANCE-REF", axis.reference);
    if (axis.kind == AxisKind::rescale || axis.kind == AxisKind::curve)
        writeArraySize(xml_, std::span(&size, 1));
    if (!axis.points.empty() && !hasSamePoints(axis)) writeValues(xml_, axis.points, {});
    xml_.close("SW-AXIS-CONT");
}

}  // namespace

Result<WrittenSet> writeCdfx(const ParameterSet& set) {
    return CdfxWriter(set).write();
}

}  // namespace lm::params
