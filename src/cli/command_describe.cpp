#include "cli/command_describe.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "a2l/object.h"
#include "a2l/object_name.h"
#include "a2l/similar_names.h"
#include "cli/conversion_facts.h"
#include "cli/object_facts.h"
#include "cli/object_parts.h"
#include "cli/offline_a2l.h"
#include "cli/option_set.h"
#include "core/log.h"
#include "core/text.h"
#include "session/dependents.h"
#include "session/ecu_group.h"

namespace lm::cli {
namespace {

constexpr std::string_view kConversionKind = "conversion";

/// Lines of a label and a text; of several texts under one label the first line has the label.
class Sheet {
  public:
    explicit Sheet(Output& output) : output_(output) {}

    void line(std::string_view label, std::string_view text) {
        output_.append("  ");
        output_.appendPadded(label, 14);
        output_.append(' ');
        output_.appendPadded(text, 0);
        output_.append('\n');
    }
    void lineIf(std::string_view label, std::string_view text) {
        if (!text.empty()) line(label, text);
    }
    void lines(std::string_view label, const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            line(std::exchange(label, ""), text);
    }

  private:
    Output& output_;
};

std::string rangeText(const std::pair<double, double>& range) {
    return fmt::format("{} to {}", formatShortest(range.first), formatShortest(range.second));
}

std::string bitsText(const a2l::BitField& bits) {
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (bits.mask != 0 || bits.emptyMask) add(fmt::format("mask 0x{:X}", bits.mask));
    if (bits.leftShift != 0) add(fmt::format("left shift {}", bits.leftShift));
    if (bits.rightShift != 0) add(fmt::format("right shift {}", bits.rightShift));
    if (bits.signExtend) add("sign extended");
    return text;
}

class DescribeReport final : public IReport {
  public:
    DescribeReport(const a2l::Description& description, const ObjectFacts& object)
        : description_(description),
          object_(object),
          uses_(usesOf(description, object)),
          parts_(partsOf(description, object.name)),
          relations_(relationsOf(description, object.name, object.instance)),
          computed_(session::virtualOf(description, object.name)) {}

    void print(Output& output) const override {
        output.appendPadded(fmt::format("{} ({})", object_.name, object_.kind), 0);
        output.append('\n');
        Sheet sheet(output);
        sheet.lineIf("description", object_.description);
        sheet.lineIf("display name", object_.displayName);
        printValue(sheet);
        printMemory(sheet);
        printAccess(sheet);
        printAxes(sheet);
        sheet.lineIf("computed from", relations_.computedFrom);
        sheet.lines("conversion", conversionLines(description_, object_.conversion));
        printUses(sheet);
        sheet.lines("dependents", relations_.dependents);
        sheet.lines("folders", relations_.folders);
        sheet.lines("rests on", parts_.restsOn);
    }

    void write(JsonWriter& json) const override {
        json.key("object").beginObject();
        json.member("kind", object_.kind);
        json.member("name", object_.name);
        json.member("description", object_.description);
        if (!object_.displayName.empty()) json.member("displayName", object_.displayName);
        if (object_.kind != kConversionKind) {
            writeValue(json);
            writeMemory(json);
            writeAccess(json);
            writeAxes(json);
            writeParts(json, parts_);
            writeRelations(json, relations_);
        }
        writeConversion(json, description_, object_.conversion);
        writeUses(json);
        json.endObject();
    }

  private:
    static constexpr std::size_t kMostUses = 20;

    const a2l::CompuMethod* method() const { return description_.findCompuMethod(object_.conversion); }
    std::string_view unit() const {
        if (object_.physUnit) return *object_.physUnit;
        return method() == nullptr ? std::string_view() : method()->unit;
    }
    std::string_view format() const {
        if (!object_.format.empty()) return object_.format;
        return method() == nullptr ? std::string_view() : method()->format;
    }
    const a2l::RecordLayout* layout() const { return description_.findRecordLayout(object_.recordLayout); }

    void printValue(Sheet& sheet) const {
        sheet.lineIf("type", object_.type);
        sheet.lineIf("defined as", object_.typeDefinition);
        if (object_.instance != object_.name) sheet.lineIf("part of", object_.instance);
        if (object_.limits) sheet.line("limits", rangeText(*object_.limits));
        if (object_.extendedLimits) sheet.line("extended", rangeText(*object_.extendedLimits));
        if (!parts_.dimensions.empty())
            sheet.line("elements", fmt::format("{}", fmt::join(parts_.dimensions, " x ")));
        else if (object_.elementCount > 1)
            sheet.line("elements", std::to_string(object_.elementCount));
        if (object_.leafCount) sheet.line("parts", fmt::format("{}", *object_.leafCount));
        if (object_.kind == kConversionKind) return;  // which tells them with its formula
        sheet.lineIf("unit", unit());
        sheet.lineIf("format", format());
    }

    void writeValue(JsonWriter& json) const {
        json.member("type", object_.type);
        if (!object_.typeDefinition.empty()) json.member("typeDefinition", object_.typeDefinition);
        if (!object_.instance.empty()) json.member("instance", object_.instance);
        if (object_.leafCount) json.member("leaves", *object_.leafCount);
        if (object_.limits)
            json.listMember("limits", std::array{object_.limits->first, object_.limits->second});
        if (object_.extendedLimits) {
            json.listMember("extendedLimits",
                            std::array{object_.extendedLimits->first, object_.extendedLimits->second});
        }
        json.member("elements", object_.elementCount);
        json.member("unit", unit());
        json.member("format", format());
    }

    void printMemory(Sheet& sheet) const {
        if (object_.address) {
            const std::string extension =
                object_.addressExtension == 0 ? "" : fmt::format(", extension {}", object_.addressExtension);
            sheet.line("address", fmt::format("0x{:08X}{}{}", *object_.address, extension,
                                              object_.isPointer ? ", of a pointer to the value" : ""));
        }
        if (object_.isVirtual) sheet.line("address", "none, it is computed (VIRTUAL_CHARACTERISTIC)");
        if (object_.byteOrder) sheet.line("byte order", byteOrderName(*object_.byteOrder));
        sheet.lineIf("bits", bitsText(object_.bits));
        sheet.lines("pointers", object_.pointers);
        sheet.lineIf("record layout", layoutText());
        sheet.lines("parts", partLines());
    }

    /// Of more than one value, where each part lies.
    std::vector<std::string> partLines() const {
        std::vector<std::string> lines;
        if (parts_.dimensions.empty() && object_.axes.empty() && !parts_.memoryTells) return lines;
        for (const MemoryPart& part : parts_.parts)
            lines.push_back(fmt::format("0x{:08X}, {} byte(s): {}", part.address, part.size, part.name));
        if (parts_.memoryTells) lines.emplace_back("where they lie depends on what the ECU's memory holds");
        if (!parts_.notPlaced.empty()) lines.push_back(parts_.notPlaced);
        return lines;
    }

    std::string layoutText() const {
        if (object_.recordLayout.empty()) return {};
        std::string text(object_.recordLayout);
        if (layout() == nullptr) return text + ", which is not in the A2L";
        const auto* values = layout()->find(a2l::RecordLayout::Field::functionValues);
        if (values == nullptr) return text;
        return text + fmt::format(": values {}, {}, {}", value::dataTypeName(values->dataType),
                                  a2l::indexModeName(values->indexMode),
                                  a2l::addressTypeName(values->addressType));
    }

    void writeMemory(JsonWriter& json) const {
        json.key("address");
        object_.address ? json.value(*object_.address) : json.null();
        json.member("addressExtension", object_.addressExtension);
        if (object_.byteOrder) json.member("byteOrder", byteOrderName(*object_.byteOrder));
        json.member("pointer", object_.isPointer);
        json.member("virtual", object_.isVirtual);
        if (const std::string text = bitsText(object_.bits); !text.empty()) {
            json.key("bits").beginObject();
            json.member("mask", object_.bits.mask);
            json.member("leftShift", object_.bits.leftShift);
            json.member("rightShift", object_.bits.rightShift);
            json.member("signExtend", object_.bits.signExtend);
            json.endObject();
        }
        if (object_.recordLayout.empty()) return;
        json.key("recordLayout").beginObject();
        json.member("name", object_.recordLayout);
        const auto* values =
            layout() == nullptr ? nullptr : layout()->find(a2l::RecordLayout::Field::functionValues);
        if (values != nullptr) {
            json.member("type", value::dataTypeName(values->dataType));
            json.member("indexMode", a2l::indexModeName(values->indexMode));
            json.member("addressType", a2l::addressTypeName(values->addressType));
        }
        json.endObject();
    }

    /// Why this program cannot read it; empty when it can.
    std::string obstacle() const {
        if (!object_.writable) return {};  // no measurement or parameter
        if (computed_ != nullptr) return withoutName(a2l::formulaOf(description_, *computed_));
        return withoutName(a2l::findObject(description_, object_.name));
    }

    /// Of an error its text, of all else nothing.
    template <typename T>
    std::string withoutName(const Result<T>& result) const {
        if (result) return {};
        const std::string text = result.error().text();
        const std::string prefix = std::string(object_.name) + ": ";
        return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
    }

    void printAccess(Sheet& sheet) const {
        const bool isMeasurement = object_.kind == "measurement";
        if (const std::string text = obstacle(); !text.empty()) {
            sheet.line("not readable", text);
        } else if (computed_ != nullptr) {
            sheet.line("access", "read only, computed when it is read");
        } else if (object_.writable) {
            sheet.line("access", *object_.writable ? "read and write"
                                 : isMeasurement   ? "read (`set -m` writes it, too)"
                                                   : "read only");
        }
        if (!object_.events.empty()) sheet.line("events", eventsText());
    }

    /// Numbers, with names where the A2L has them.
    std::string eventsText() const {
        std::vector<std::string> texts;
        for (const std::uint16_t number : object_.events) {
            std::string text = std::to_string(number);
            if (description_.xcp.daq) {
                for (const a2l::XcpEvent& event : description_.xcp.daq->events)
                    if (event.channel == number) text += " (" + event.name + ")";
            }
            texts.push_back(std::move(text));
        }
        return fmt::format("{}", fmt::join(texts, ", "));
    }

    void writeAccess(JsonWriter& json) const {
        if (object_.writable) json.member("writable", *object_.writable && computed_ == nullptr);
        json.listMember("events", object_.events);
        if (const std::string text = obstacle(); !text.empty()) json.member("notReadable", text);
    }

    std::string reference(const a2l::AxisDescription& axis) const {
        return object_.leaf == nullptr ? std::string(axis.reference)
                                       : a2l::resolveReference(*object_.leaf, axis.reference);
    }

    void printAxes(Sheet& sheet) const {
        sheet.lineIf("input", object_.inputQuantity);
        if (object_.maxAxisPoints) sheet.line("points", fmt::format("{} at most", *object_.maxAxisPoints));
        for (std::size_t i = 0; i < object_.axes.size(); ++i) {
            const a2l::AxisDescription& axis = object_.axes[i];
            const std::string points =
                axis.reference.empty() ? "" : fmt::format(", points in {}", reference(axis));
            sheet.line(fmt::format("axis {}", i + 1),
                       fmt::format("{}, input {}, {} points at most, limits {}, conversion {}{}",
                                   a2l::axisKindName(axis.kind), axis.inputQuantity, axis.maxAxisPoints,
                                   rangeText({axis.lowerLimit, axis.upperLimit}), axis.conversion, points));
        }
    }

    void writeAxes(JsonWriter& json) const {
        if (!object_.inputQuantity.empty()) json.member("inputQuantity", object_.inputQuantity);
        if (object_.maxAxisPoints) json.member("maxAxisPoints", *object_.maxAxisPoints);
        json.key("axes").beginArray();
        for (const a2l::AxisDescription& axis : object_.axes) {
            json.beginObject();
            json.member("attribute", a2l::axisKindName(axis.kind));
            json.member("inputQuantity", axis.inputQuantity);
            json.member("conversion", axis.conversion);
            json.member("maxAxisPoints", axis.maxAxisPoints);
            json.listMember("limits", std::array{axis.lowerLimit, axis.upperLimit});
            if (!axis.reference.empty()) json.member("axisPoints", reference(axis));
            json.endObject();
        }
        json.endArray();
    }

    void printUses(Sheet& sheet) const {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < uses_.size() && i < kMostUses; ++i) {
            const Use& use = uses_[i];
            texts.push_back(use.axis == 0 ? fmt::format("{} of {}", use.how, use.by)
                                          : fmt::format("{} of axis {} of {}", use.how, use.axis, use.by));
        }
        if (uses_.size() > kMostUses)
            texts.push_back(fmt::format("and {} more (--json tells all)", uses_.size() - kMostUses));
        sheet.lines("used as", texts);
    }

    void writeUses(JsonWriter& json) const {
        json.key("uses").beginArray();
        for (const Use& use : uses_) {
            json.beginObject();
            json.member("by", use.by);
            json.member("as", use.how);
            if (use.axis != 0) json.member("axis", use.axis);
            json.endObject();
        }
        json.endArray();
    }

    const a2l::Description& description_;
    const ObjectFacts& object_;
    const std::vector<Use> uses_;
    const ObjectParts parts_;
    const Relations relations_;
    const a2l::Dependency* const computed_;  ///< of what has no place in the ECU
};

/// Whether an object may have such an element or axis, as far as the A2L tells it. Errors: those of `get`.
Result<void> checkPart(const a2l::Description& description, const a2l::ObjectName& part) {
    const auto object = a2l::findObject(description, part.object);
    if (!object) return {};  // what keeps it from being read is told there
    const a2l::Object& whole = object.value();
    if (part.axis && *part.axis >= whole.axes.size()) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("{}: {} has {} {}", part.text, part.object, whole.axes.size(),
                                 whole.axes.size() == 1 ? "axis" : "axes")};
    }
    std::vector<std::uint32_t> dimensions = whole.dimensions;
    if (part.axis) dimensions = {whole.axes[*part.axis].maxPoints};
    return part.indices.empty() ? Result<void>() : a2l::checkIndices(part, dimensions);
}

/// What the name stands for. Errors: as of writeDescription().
Result<ObjectFacts> factsOf(const a2l::Description& description, const std::string& name) {
    auto object = findFacts(description, name);
    // Of an element or an axis there is no more to say than the object that it lies in tells.
    if (const auto part = a2l::parseObjectName(description, name); !object && part) {
        if (auto fits = checkPart(description, part.value()); !fits) return fits.error();
        object = findFacts(description, part.value().object);
    }
    if (object) return std::move(*object);
    if (a2l::belongsToInstance(description, name)) return a2l::findLeaf(description, name).error();
    Error unknown{ErrorCode::notFound, "'" + name + "' is not in the A2L"};
    unknown.hint = a2l::unknownNameHint(description, name);
    return unknown;
}

}  // namespace

void DescribeCommand::addOptions(OptionSet& options) {
    options.add("name", name_, "Name of an object, an INSTANCE, one of its parts, or a COMPU_METHOD")
        .required();
}

int DescribeCommand::show(Workplace& place, const a2l::Description& description,
                          const std::string& name) const {
    const auto object = factsOf(description, name);
    if (!object) {
        place.results.fail("describe", object.error(), name);
        return 1;
    }
    place.results.show(DescribeReport(description, object.value()));
    return 0;
}

int DescribeCommand::run(Workplace& place) {
    if (place.ecuConfigs.empty()) {
        const auto description = loadA2l(place);
        return description ? show(place, *description, name_) : 1;
    }
    std::vector<a2l::Description> descriptions;
    descriptions.reserve(place.ecuConfigs.size());  // they are borrowed
    std::vector<session::NameSearch::Ecu> ecus;
    for (const session::SessionConfig& ecu : place.ecuConfigs) {
        const log::Subject subject(ecu.name);
        place.config = ecu;
        auto description = loadA2l(place);
        if (!description) return 1;
        descriptions.push_back(std::move(*description));
        ecus.push_back({ecu.name, &descriptions.back()});
    }
    const auto found = session::NameSearch(std::move(ecus)).find(name_);
    if (!found) {
        place.results.fail("describe", found.error(), name_);
        return 1;
    }
    const auto& one = found.value().front();
    return show(place, descriptions[one.ecu], one.text);
}

Result<void> writeDescription(const a2l::Description& description, const std::string& name,
                              JsonWriter& json) {
    const auto object = factsOf(description, name);
    if (!object) return object.error();
    DescribeReport(description, object.value()).write(json);
    return {};
}

}  // namespace lm::cli
