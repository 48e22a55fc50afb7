// The JSON form of a recording's description, both ways.
#include <cmath>
#include <exception>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "storage/format/recording_meta.h"

namespace lm::storage {
namespace {

using value::Conversion;
using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

// --- Writing

/// JSON has no infinities and no NaN: they are written as texts.
OrderedJson realToJson(double value) {
    if (std::isfinite(value)) return value;
    if (std::isnan(value)) return "nan";
    return value > 0 ? "inf" : "-inf";
}

template <typename... Reals>
OrderedJson realsToJson(Reals... values) {
    OrderedJson array = OrderedJson::array();
    (array.push_back(realToJson(values)), ...);
    return array;
}

/// Adds type and parameters of each kind of conversion.
struct KindWriter {
    OrderedJson& json;

    void operator()(const Conversion::Identical& /*kind*/) const { setType("identical"); }
    void operator()(const Conversion::Linear& kind) const {
        setType("linear");
        json["linear"] = realsToJson(kind.a, kind.b);
    }
    void operator()(const Conversion::Rational& kind) const {
        setType("ratFunc");
        json["ratFunc"] = realsToJson(kind.a, kind.b, kind.c, kind.d, kind.e, kind.f);
    }
    void operator()(const Conversion::NumericTable& kind) const {
        setType("table");
        json["interpolate"] = kind.interpolate;
        OrderedJson pairs = OrderedJson::array();
        for (const auto& pair : kind.pairs)
            pairs.push_back(realsToJson(pair.first, pair.second));
        json["table"] = std::move(pairs);
        if (kind.defaultValue) json["defaultNumeric"] = realToJson(*kind.defaultValue);
    }
    void operator()(const Conversion::VerbalTable& kind) const {
        setType("verbal");
        OrderedJson ranges = OrderedJson::array();
        for (const auto& range : kind.ranges) {
            OrderedJson entry;
            entry["min"] = realToJson(range.lower);
            entry["max"] = realToJson(range.upper);
            entry["text"] = range.text;
            ranges.push_back(std::move(entry));
        }
        json["verbal"] = std::move(ranges);
        if (!kind.defaultText.empty()) json["defaultText"] = kind.defaultText;
    }
    void operator()(const Conversion::Formulas& kind) const {
        setType("formula");
        json["formula"] = kind.forward.text();
        if (kind.inverse) json["formulaInv"] = kind.inverse->text();
    }

    void setType(const char* type) const { json["type"] = type; }
};

OrderedJson conversionToJson(const Conversion& conversion) {
    OrderedJson parameters;
    std::visit(KindWriter{parameters}, conversion.kind());
    OrderedJson json;
    json["type"] = parameters["type"];
    if (!conversion.unit().empty()) json["unit"] = conversion.unit();
    if (!conversion.formatText().empty()) json["format"] = conversion.formatText();
    json.update(parameters);
    return json;
}

OrderedJson signalToJson(const SignalInfo& signal) {
    OrderedJson json;
    json["name"] = signal.name;
    json["description"] = signal.description;
    json["displayName"] = signal.displayName;
    json["type"] = std::string(value::dataTypeName(signal.coding.dataType));
    json["byteOrder"] = signal.coding.byteOrder == ByteOrder::bigEndian ? "MSB_FIRST" : "MSB_LAST";
    json["bitMask"] = signal.coding.bitMask;
    json["recordOffset"] = signal.recordOffset;
    if (signal.hasLimits) json["limits"] = realsToJson(signal.lowerLimit, signal.upperLimit);
    json["conversion"] = conversionToJson(*signal.conversion);
    return json;
}

OrderedJson groupToJson(const GroupInfo& group) {
    OrderedJson json;
    json["recordSize"] = group.recordSize;
    json["cycleNs"] = group.cycleNs;
    json["name"] = group.name;
    if (!group.ecu.empty()) json["ecu"] = group.ecu;
    if (group.clock) json["clock"] = *group.clock == GroupInfo::Clock::ecu ? "ecu" : "host";
    OrderedJson signals = OrderedJson::array();
    for (const SignalInfo& signal : group.signals)
        signals.push_back(signalToJson(signal));
    json["signals"] = std::move(signals);
    return json;
}

// --- Reading. What is wrong is thrown and caught in one place, like what the JSON library throws.

class MetaError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::string textAt(const Json& json, const char* key) {
    return json.at(key).get<std::string>();
}

std::string textOrEmpty(const Json& json, const char* key) {
    return json.contains(key) ? textAt(json, key) : std::string();
}

std::uint64_t unsignedAt(const Json& json, const char* key, std::uint64_t maximum) {
    const Json& number = json.at(key);
    if (!number.is_number_unsigned() || number.get<std::uint64_t>() > maximum) {
        throw MetaError("\"" + std::string(key) + "\" is not a whole number from 0 to " +
                        std::to_string(maximum));
    }
    return number.get<std::uint64_t>();
}

std::int64_t signedAt(const Json& json, const char* key) {
    const Json& number = json.at(key);
    constexpr auto kMaximum = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const bool tooLarge = number.is_number_unsigned() && number.get<std::uint64_t>() > kMaximum;
    if (!number.is_number_integer() || tooLarge) {
        throw MetaError("\"" + std::string(key) + "\" is not a whole number of 64 bits");
    }
    return number.get<std::int64_t>();
}

const Json& arrayAt(const Json& json, const char* key) {
    const Json& array = json.at(key);
    if (!array.is_array()) throw MetaError("\"" + std::string(key) + "\" is not an array");
    return array;
}

double realFrom(const Json& json) {
    if (json.is_number()) return json.get<double>();
    if (json == "nan") return std::numeric_limits<double>::quiet_NaN();
    if (json == "inf") return std::numeric_limits<double>::infinity();
    if (json == "-inf") return -std::numeric_limits<double>::infinity();
    // The text of an array or object would take a stack as deep as it is nested.
    if (json.is_structured()) throw MetaError("not a number: " + std::string(json.type_name()));
    throw MetaError("not a number: " + json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::vector<double> realsFrom(const Json& array, std::size_t count, const char* key) {
    if (!array.is_array() || array.size() != count) {
        throw MetaError("\"" + std::string(key) + "\" does not hold " + std::to_string(count) + " numbers");
    }
    std::vector<double> values;
    for (const Json& element : array)
        values.push_back(realFrom(element));
    return values;
}

Conversion::NumericTable tableFrom(const Json& json) {
    Conversion::NumericTable table;
    table.interpolate = json.at("interpolate").get<bool>();
    for (const Json& element : arrayAt(json, "table")) {
        const std::vector<double> pair = realsFrom(element, 2, "table");
        // NaN has no place in an order.
        if (std::isnan(pair[0]) || (!table.pairs.empty() && pair[0] < table.pairs.back().first)) {
            throw MetaError("\"table\" is not in the order of its inputs");
        }
        table.pairs.emplace_back(pair[0], pair[1]);
    }
    if (table.pairs.empty()) throw MetaError("conversion table is empty");
    if (json.contains("defaultNumeric")) table.defaultValue = realFrom(json.at("defaultNumeric"));
    return table;
}

Conversion::VerbalTable verbalFrom(const Json& json) {
    Conversion::VerbalTable table;
    for (const Json& element : arrayAt(json, "verbal")) {
        table.ranges.push_back(
            {realFrom(element.at("min")), realFrom(element.at("max")), textAt(element, "text")});
    }
    table.defaultText = textOrEmpty(json, "defaultText");
    return table;
}

value::Formula compiled(const std::string& text) {
    auto formula = value::Formula::compile(text, {});
    if (!formula) throw MetaError(formula.error().text());
    return std::move(formula).value();
}

Conversion::Formulas formulasFrom(const Json& json) {
    Conversion::Formulas formulas{compiled(textAt(json, "formula")), std::nullopt};
    if (json.contains("formulaInv")) formulas.inverse = compiled(textAt(json, "formulaInv"));
    return formulas;
}

Conversion::Kind kindFrom(const Json& json) {
    const std::string type = textAt(json, "type");
    if (type == "identical") return Conversion::Identical{};
    if (type == "linear") {
        const std::vector<double> c = realsFrom(json.at("linear"), 2, "linear");
        return Conversion::Linear{c[0], c[1]};
    }
    if (type == "ratFunc") {
        const std::vector<double> c = realsFrom(json.at("ratFunc"), 6, "ratFunc");
        return Conversion::Rational{c[0], c[1], c[2], c[3], c[4], c[5]};
    }
    if (type == "table") return tableFrom(json);
    if (type == "verbal") return verbalFrom(json);
    if (type == "formula") return formulasFrom(json);
    throw MetaError("unknown conversion " + type);
}

SignalInfo signalFrom(const Json& json) {
    SignalInfo signal;
    signal.name = textAt(json, "name");
    signal.description = textAt(json, "description");
    signal.displayName = textAt(json, "displayName");
    const std::string type = textAt(json, "type");
    const auto dataType = value::dataTypeFromName(type);
    if (!dataType) throw MetaError("unknown type " + type);
    signal.coding.dataType = *dataType;
    const std::string order = textAt(json, "byteOrder");
    if (order != "MSB_FIRST" && order != "MSB_LAST") throw MetaError("unknown byte order " + order);
    signal.coding.byteOrder = order == "MSB_FIRST" ? ByteOrder::bigEndian : ByteOrder::littleEndian;
    signal.coding.bitMask = unsignedAt(json, "bitMask", std::numeric_limits<std::uint64_t>::max());
    constexpr std::uint64_t kMaxOffset = std::numeric_limits<std::uint32_t>::max();
    signal.recordOffset = static_cast<std::uint32_t>(unsignedAt(json, "recordOffset", kMaxOffset));
    if (json.contains("limits")) {
        const std::vector<double> limits = realsFrom(json.at("limits"), 2, "limits");
        signal.hasLimits = true;
        signal.lowerLimit = limits[0];
        signal.upperLimit = limits[1];
    }
    const Json& conversion = json.at("conversion");
    signal.conversion = std::make_shared<const Conversion>(
        kindFrom(conversion), textOrEmpty(conversion, "format"), textOrEmpty(conversion, "unit"));
    return signal;
}

GroupInfo groupFrom(const Json& json) {
    GroupInfo group;
    group.name = textAt(json, "name");
    group.ecu = textOrEmpty(json, "ecu");
    const std::string clock = textOrEmpty(json, "clock");
    if (clock == "ecu") group.clock = GroupInfo::Clock::ecu;
    if (clock == "host") group.clock = GroupInfo::Clock::host;
    group.recordSize = static_cast<std::uint32_t>(unsignedAt(json, "recordSize", kMaxRecordSize));
    group.cycleNs = static_cast<std::int64_t>(
        unsignedAt(json, "cycleNs", static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
    for (const Json& signal : arrayAt(json, "signals"))
        group.signals.push_back(signalFrom(signal));
    if (auto placed = checkSignalPlaces(group); !placed) throw MetaError(placed.error().text());
    return group;
}

/// The error for another version than ours, none for ours.
std::optional<Error> checkVersion(const Json& json) {
    const std::uint64_t version =
        unsignedAt(json, "formatVersion", std::numeric_limits<std::uint64_t>::max());
    if (version == kFormatVersion) return std::nullopt;
    std::string message = "unsupported recording format version " + std::to_string(version);
    if (version < kFormatVersion) message += " (recorded by an older XCP-Lumo)";
    return Error{ErrorCode::unsupported, std::move(message)};
}

/// An open level costs many times the byte that opens it; ours are eight.
bool refuseDeepNesting(int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
    constexpr int kMaxDepth = 64;
    if (depth > kMaxDepth) throw MetaError("nested deeper than 64 levels");
    return true;
}

std::int32_t utcOffsetFrom(const Json& json) {
    constexpr std::int64_t kMinutesOfDay = 24 * 60;
    const std::int64_t minutes = signedAt(json, "utcOffsetMin");
    if (minutes <= -kMinutesOfDay || minutes >= kMinutesOfDay) {
        throw MetaError("\"utcOffsetMin\" is a day or more");
    }
    return static_cast<std::int32_t>(minutes);
}

PartInfo partFrom(const Json& json) {
    PartInfo part;
    part.series = textAt(json, "series");
    part.number = unsignedAt(json, "number", std::numeric_limits<std::uint64_t>::max());
    part.previous = textOrEmpty(json, "previous");
    if (part.series.empty() || part.number == 0) throw MetaError("\"part\" has no series or number");
    return part;
}

OrderedJson partToJson(const PartInfo& part) {
    OrderedJson json = {{"series", part.series}, {"number", part.number}};
    if (!part.previous.empty()) json["previous"] = part.previous;
    return json;
}

EcuInfo ecuFrom(const Json& json) {
    EcuInfo ecu{textAt(json, "name"), textOrEmpty(json, "source")};
    ecu.a2lName = textOrEmpty(json, "a2lName");
    ecu.a2lSha256 = textOrEmpty(json, "a2lSha256");
    ecu.ecuEpk = textOrEmpty(json, "ecuEpk");
    ecu.a2lEpk = textOrEmpty(json, "a2lEpk");
    return ecu;
}

OrderedJson ecuToJson(const EcuInfo& ecu) {
    OrderedJson json = {{"name", ecu.name}, {"source", ecu.source}};
    if (!ecu.a2lName.empty()) json["a2lName"] = ecu.a2lName;
    if (!ecu.a2lSha256.empty()) json["a2lSha256"] = ecu.a2lSha256;
    if (!ecu.ecuEpk.empty()) json["ecuEpk"] = ecu.ecuEpk;
    if (!ecu.a2lEpk.empty()) json["a2lEpk"] = ecu.a2lEpk;
    return json;
}

Result<RecordingInfo> infoFrom(const Json& json) {
    if (auto error = checkVersion(json)) return *std::move(error);
    RecordingInfo info;
    info.source = textOrEmpty(json, "source");
    info.startUtcNs = signedAt(json, "startUtcNs");
    info.startHostNs = signedAt(json, "startHostNs");
    info.name = textAt(json, "name");
    info.ecu = textAt(json, "ecu");
    if (json.contains("utcOffsetMin")) info.utcOffsetMinutes = utcOffsetFrom(json);
    info.a2lName = textOrEmpty(json, "a2lName");
    info.a2lSha256 = textOrEmpty(json, "a2lSha256");
    info.ecuEpk = textOrEmpty(json, "ecuEpk");
    info.a2lEpk = textOrEmpty(json, "a2lEpk");
    if (json.contains("commandLine")) {
        for (const Json& word : arrayAt(json, "commandLine"))
            info.commandLine.push_back(word.get<std::string>());
    }
    if (json.contains("part")) info.part = partFrom(json.at("part"));
    if (json.contains("ecus")) {
        for (const Json& ecu : arrayAt(json, "ecus"))
            info.ecus.push_back(ecuFrom(ecu));
    }
    for (const Json& group : arrayAt(json, "groups"))
        info.groups.push_back(groupFrom(group));
    return info;
}

}  // namespace

std::string metaToJson(const RecordingInfo& info) {
    OrderedJson json;
    json["formatVersion"] = kFormatVersion;
    json["source"] = info.source;
    json["startUtcNs"] = info.startUtcNs;
    json["startHostNs"] = info.startHostNs;
    json["name"] = info.name;
    json["ecu"] = info.ecu;
    if (info.utcOffsetMinutes) json["utcOffsetMin"] = *info.utcOffsetMinutes;
    if (!info.a2lName.empty()) json["a2lName"] = info.a2lName;
    if (!info.a2lSha256.empty()) json["a2lSha256"] = info.a2lSha256;
    if (!info.ecuEpk.empty()) json["ecuEpk"] = info.ecuEpk;
    if (!info.a2lEpk.empty()) json["a2lEpk"] = info.a2lEpk;
    if (!info.commandLine.empty()) json["commandLine"] = info.commandLine;
    if (info.part) json["part"] = partToJson(*info.part);
    for (const EcuInfo& ecu : info.ecus)
        json["ecus"].push_back(ecuToJson(ecu));
    OrderedJson groups = OrderedJson::array();
    for (const GroupInfo& group : info.groups)
        groups.push_back(groupToJson(group));
    json["groups"] = std::move(groups);
    return json.dump(2, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
}

Result<RecordingInfo> metaFromJson(std::string_view text) {
    try {
        return infoFrom(Json::parse(text, &refuseDeepNesting));
    } catch (const std::exception& error) {
        return Error{ErrorCode::invalidArgument, "meta.json: " + std::string(error.what())};
    }
}

}  // namespace lm::storage
