#include "session/parameter_reading.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include <spdlog/fmt/chrono.h>
#include <spdlog/fmt/fmt.h>

#include "core/sha256.h"
#include "core/text.h"
#include "session/dependents.h"
#include "session/masked_write.h"
#include "session/name_pattern.h"

namespace lm::session {
namespace {

using params::Parameter;
using params::Shape;
using value::Element;
using value::Value;

constexpr std::size_t kLongestValue = sizeof(std::uint64_t);

/// Whatever the limits say: what an ECU holds is kept as it is.
Element withoutLimits(Element element) {
    element.lowerLimit = -std::numeric_limits<double>::infinity();
    element.upperLimit = std::numeric_limits<double>::infinity();
    return element;
}

/// A number that no text of a number gives back has its bits instead: "0x7FC00000".
Value storedRaw(const Element& element, const std::uint8_t* bytes) {
    Value raw = value::wholeRaw(element, bytes);
    if (!value::isFloat(element.coding.dataType) || std::isfinite(value::toDouble(raw))) return raw;
    std::string text = "0x";
    for (std::size_t i = 0; i < element.size(); ++i) {
        const bool isLittle = element.coding.byteOrder == ByteOrder::littleEndian;
        text += fmt::format("{:02X}", bytes[isLittle ? element.size() - 1 - i : i]);
    }
    return text;
}

/// Numbers of one coding and conversion: the values of an object, or the points of an axis.
class Numbers {
  public:
    Numbers(const Element& like, std::size_t count) {
        goOnWith(like);
        values.reserve(count);
        raws.reserve(count);
    }

    /// Those that are added from now on.
    void goOnWith(const Element& like) {
        element_ = withoutLimits(like);
        mask_ = isMasked(like) ? maskBytes(like) : std::vector<std::uint8_t>();
        isShortened_ = value::isFloat(like.coding.dataType) && like.coding.dataType != kDouble &&
                       like.conversion->isBinaryScale();
    }

    void add(const std::uint8_t* bytes) {
        Value physical = value::physicalValue(element_, value::rawValue(element_, bytes));
        if (isShortened_) shorten(physical, bytes);
        isExact_ = isExact_ && givesBack(physical, bytes);
        raws.push_back(storedRaw(element_, bytes));
        values.push_back(std::move(physical));
        const std::size_t begin = held.size();
        held.append(reinterpret_cast<const char*>(bytes), element_.size());
        for (std::size_t i = 0; i < mask_.size(); ++i)
            held[begin + i] = static_cast<char>(bytes[i] & mask_[i]);
    }

    /// Points that are the sums of what is stored; of whole numbers the sums tell the steps.
    void replaceValues(std::vector<Value> physicals, std::vector<Value> sums) {
        const bool isWhole = !value::isFloat(element_.coding.dataType);
        isExact_ = isWhole;
        for (std::size_t i = 0; isExact_ && i < sums.size(); ++i) {
            const auto raw = element_.conversion->toRaw(value::toDouble(physicals[i]));
            const double sum = value::toDouble(sums[i]);
            isExact_ = raw && std::round(raw.value()) == sum && std::fabs(sum) < 0x1p53;
        }
        values = std::move(physicals);
        if (isWhole) raws = std::move(sums);
    }

    /// None when the values alone give the bytes.
    std::vector<Value> neededRaws() { return isExact_ ? std::vector<Value>() : std::move(raws); }

    std::vector<Value> values;
    std::vector<Value> raws;
    std::string held;  ///< the bytes, without the bits of others

  private:
    static constexpr value::DataType kDouble = value::DataType::float64;

    bool givesBack(const Value& physical, const std::uint8_t* bytes) const {
        std::array<std::uint8_t, kLongestValue> buffer{};
        std::memcpy(buffer.data(), bytes, element_.size());
        // What does not write a bit must not seem to give it back.
        for (std::size_t i = 0; i < element_.size(); ++i)
            buffer[i] ^= mask_.empty() ? std::uint8_t{0xFF} : mask_[i];
        const auto encoded = value::encodePhysical(element_, physical, {buffer.data(), element_.size()});
        return encoded && std::memcmp(buffer.data(), bytes, element_.size()) == 0;
    }

    void shorten(Value& physical, const std::uint8_t* bytes) const {
        const auto* const number = std::get_if<double>(&physical);
        if (number == nullptr || !std::isfinite(*number)) return;
        const auto shorter = parseDouble(value::shortestFloat(*number, element_.coding.dataType));
        if (shorter && givesBack(*shorter, bytes)) physical = *shorter;
    }

    Element element_;
    std::vector<std::uint8_t> mask_;
    bool isShortened_ = false;
    bool isExact_ = true;
};

Shape shapeOf(const a2l::PlacedObject& placed) {
    using Type = a2l::CharacteristicType;
    const a2l::Object& object = placed.object();
    if (object.kind == a2l::ObjectKind::axisPoints) return Shape::axis;
    switch (object.type) {
        case Type::value:
        case Type::valBlk:
            return placed.dimensions().empty() ? Shape::scalar : Shape::block;
        case Type::ascii:
            return Shape::text;
        case Type::curve:
            return Shape::curve;
        case Type::map:
            return Shape::map;
        case Type::cuboid:
            return Shape::cuboid;
        case Type::cube4:
            return Shape::cube4;
        case Type::cube5:
            return Shape::cube5;
    }
    return Shape::block;
}

Numbers numbersOf(const a2l::ObjectContent& content) {
    const a2l::PlacedObject& placed = content.placed;
    const a2l::Object& object = placed.object();
    const std::size_t count = placed.elementCount();
    const std::size_t perMap = object.maps.empty() ? count : count / object.maps.size();
    Numbers numbers(object.first, count);
    for (std::size_t i = 0; i < count; ++i) {
        const Element& like = object.maps.empty() ? object.first : object.maps[i / perMap]->first;
        if (!object.maps.empty() && i % perMap == 0) numbers.goOnWith(like);
        numbers.add(content.image.at(placed.address(i), like.size()));
    }
    return numbers;
}

/// Adds the bytes of the points that are the object's own.
params::ParameterAxis axisOf(const a2l::ObjectContent& content, std::size_t number, std::string& bytes) {
    const a2l::PlacedAxis& placed = content.placed.axes()[number];
    const a2l::Axis& about = placed.about();
    params::ParameterAxis axis;
    axis.kind = static_cast<params::AxisKind>(about.kind);
    axis.reference = about.reference;
    axis.unit = about.point.conversion->unit();
    const bool areSteps = about.difference;
    if (!placed.isOwn() || areSteps) {
        for (const Value& raw : content.points(number))
            axis.points.push_back(placed.physical(raw));
    }
    if (!placed.isOwn()) return axis;
    Numbers points(about.point, placed.count());
    for (std::size_t i = 0; i < placed.count(); ++i) {
        const Element point = placed.element(i);
        points.add(content.image.at(point.address, point.size()));
    }
    if (areSteps) points.replaceValues(std::move(axis.points), content.points(number));
    axis.raws = points.neededRaws();
    axis.points = std::move(points.values);
    bytes += points.held;
    return axis;
}

/// Fills in the text, and its bytes as hexadecimal digits where other bytes than those of the text are held.
void takeText(const a2l::ObjectContent& content, std::string_view bytes, Parameter& parameter) {
    const std::string text = content.text();
    parameter.values.emplace_back(text);
    const auto wanted = a2l::changedText(content, text);
    if (wanted && a2l::differences(content, wanted.value()).empty()) return;
    std::string raw = "0x";
    for (const char byte : bytes)
        raw += fmt::format("{:02X}", static_cast<unsigned char>(byte));
    parameter.raws.emplace_back(std::move(raw));
}

Error noParameter(const std::string& name) {
    return {ErrorCode::invalidArgument, name + " is no parameter: name a CHARACTERISTIC or AXIS_PTS"};
}

bool isParameter(const a2l::Object& object) {
    return object.kind == a2l::ObjectKind::characteristic || object.kind == a2l::ObjectKind::axisPoints;
}

std::string utcNow() {
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(now)));
}

}  // namespace

Result<ParameterChoice> chooseParameters(const a2l::Description& description,
                                         const std::vector<std::string>& patterns,
                                         const FolderFilter& folders, const StopToken& stop) {
    ParameterChoice choice;
    std::vector<std::string> names;
    std::vector<std::string> typed;
    const auto refuse = [&](const std::string& name, Error error) {
        choice.unread.push_back({name, std::move(error)});
    };
    const std::vector<std::string> all = {"*"};
    for (const std::string& pattern : patterns.empty() ? all : patterns) {
        if (!patterns.empty() && !isNamePattern(description, pattern)) {
            names.push_back(pattern);
            typed.push_back(pattern);
            continue;
        }
        if (auto few = checkParts(description, pattern, "read", folders); !few) return few.error();
        auto matches = namesMatching(description, pattern, NameKind::parameters, stop, folders);
        // A pattern takes whole parameters: a name with an index behind it is that of an element.
        std::erase_if(matches, [&](const std::string& name) {
            if (description.findBlob(name) == nullptr) return false;
            choice.leftOut.push_back({name, {ErrorCode::unsupported, name + ": a BLOB has no values"}});
            return true;
        });
        std::erase_if(matches, [&](const std::string& name) {
            return (name.ends_with(']') && pattern.ends_with(']') &&
                    !a2l::findObject(description, name).ok());
        });
        if (matches.empty() && !patterns.empty())
            refuse(pattern, {ErrorCode::notFound, fmt::format("'{}' matches no parameter", pattern)});
        std::move(matches.begin(), matches.end(), std::back_inserter(names));
        if (stop.requested()) return Error::stopped("stopped");
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (const std::string& name : names) {
        if (virtualOf(description, name) != nullptr) {
            choice.computed.push_back(name);
            continue;
        }
        auto object = a2l::findObject(description, name);
        if (object && isParameter(object.value())) {
            choice.objects.push_back(std::move(object).value());
        } else if (std::find(typed.begin(), typed.end(), name) != typed.end()) {
            refuse(name, object ? noParameter(name) : object.error());
        } else {
            choice.leftOut.push_back({name, object ? noParameter(name) : object.error()});
        }
    }
    return choice;
}

Parameter parameterOf(const a2l::ObjectContent& content, std::string_view function) {
    const a2l::PlacedObject& placed = content.placed;
    const a2l::Object& object = placed.object();
    Parameter parameter;
    parameter.name = object.name;
    parameter.description = object.description;
    parameter.shape = shapeOf(placed);
    parameter.unit = object.first.conversion->unit();
    parameter.function = function;
    Numbers numbers = numbersOf(content);
    std::string bytes = numbers.held;
    const bool isAxis = parameter.shape == Shape::axis;
    if (parameter.shape == Shape::text) {
        takeText(content, bytes, parameter);
    } else {
        if (isAxis && placed.axes().front().about().difference)
            numbers.replaceValues(content.physicals(0, placed.elementCount()), content.points(0));
        parameter.dimensions.assign(placed.dimensions().begin(), placed.dimensions().end());
        // Axis value and index by turns.
        if (isAxis && placed.axes().front().hasPairs()) parameter.dimensions = {2, placed.elementCount() / 2};
        parameter.raws = numbers.neededRaws();
        parameter.values = std::move(numbers.values);
    }
    for (std::size_t i = 0; !isAxis && i < placed.axes().size(); ++i)
        parameter.axes.push_back(axisOf(content, i, bytes));
    parameter.digest = sha256Hex(bytes);
    return parameter;
}

Result<ParameterReading> readParameters(const a2l::Description& description, ParameterChoice choice,
                                        params::Origin origin, const ReadObjects& read) {
    ParameterReading reading;
    reading.unread = std::move(choice.unread);
    reading.set.origin = std::move(origin);
    reading.set.origin.a2lSha256 = description.sha256;
    reading.set.origin.time = utcNow();
    const DefiningFunctions functions(description);
    reading.set.parameters.reserve(choice.objects.size());
    const auto take = [&](std::size_t i, Result<a2l::ObjectContent> content) {
        const std::string& name = choice.objects[i].name;
        if (content) {
            reading.set.parameters.push_back(parameterOf(content.value(), functions.of(name)));
        } else {
            reading.unread.push_back({name, content.error()});
        }
    };
    if (auto done = read(choice.objects, take); !done) return done.error();
    if (auto sorted = reading.set.sortByName(); !sorted) return sorted.error();
    return reading;
}

DefiningFunctions::DefiningFunctions(const a2l::Description& description) {
    for (const a2l::Folder& function : description.functions) {
        for (const std::string_view name : a2l::namesIn(description, function, a2l::Role::defined))
            sorted_.emplace_back(name, function.name);
    }
    std::stable_sort(sorted_.begin(), sorted_.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
}

std::string_view DefiningFunctions::of(std::string_view parameter) const {
    const auto found =
        std::lower_bound(sorted_.begin(), sorted_.end(), parameter,
                         [](const auto& entry, std::string_view name) { return entry.first < name; });
    return found != sorted_.end() && found->first == parameter ? found->second : std::string_view();
}

}  // namespace lm::session
