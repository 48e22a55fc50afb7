#include "session/wanted_content.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "a2l/axis_points.h"
#include "core/text.h"
#include "params/parameter_diff.h"
#include "session/parameter_reading.h"

namespace lm::session {
namespace {

using a2l::MemoryImage;
using params::Parameter;
using value::Element;
using value::Value;

Error faultOf(const std::string& name, const std::string& what) {
    return {ErrorCode::invalidArgument, name + ": " + what};
}

std::string shown(const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return "'" + *text + "'";
    if (const auto* exact = std::get_if<value::Exact>(&value)) return exact->shortest();
    const double number = std::get<double>(value);
    return std::isfinite(number) ? formatShortest(number) : "no number";
}

/// "0x" and two digits for each byte.
std::optional<std::vector<std::uint8_t>> bytesOfText(std::string_view text) {
    constexpr int kHex = 16;
    if (!text.starts_with("0x") || text.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 2; i < text.size(); i += 2) {
        std::uint8_t byte = 0;
        const char* const end = text.data() + i + 2;
        const auto [last, failure] = std::from_chars(text.data() + i, end, byte, kHex);
        if (failure != std::errc() || last != end) return std::nullopt;
        bytes.push_back(byte);
    }
    return bytes;
}

bool isSignedZero(const Value& value) {
    const auto* const number = std::get_if<double>(&value);
    return number != nullptr && *number == 0 && std::signbit(*number);
}

/// Numbers of one kind: the values, or the points of an axis.
struct ValueList {
    const std::vector<Value>& values;
    const std::vector<Value>& raws;
};

class Wanting {
  public:
    Wanting(const a2l::ObjectContent& content, const Parameter& held, const Parameter& wanted,
            RawSteps& steps)
        : content_(content), placed_(content.placed), held_(held), wanted_(wanted), steps_(steps) {}

    Result<MemoryImage> run() {
        const std::string why = params::whyNotComparable(held_, wanted_, "the ECU", "the file");
        if (!why.empty()) return faultOf(name(), why);
        if (held_.shape == params::Shape::text) return text();
        if (auto taken = takeAll(); !taken) return taken.error();
        auto image = a2l::changed(content_, changes_);
        if (!image) return image;
        for (const RawChange& change : raws_)
            if (auto stored = storeRaw(change, image.value()); !stored) return stored.error();
        if (!raws_.empty())
            if (auto meant = checkMeaning(image.value()); !meant) return meant.error();
        return image;
    }

  private:
    struct RawChange {
        std::optional<std::size_t> axis;
        std::size_t number;
        const Value* raw;
    };

    const std::string& name() const { return held_.name; }
    bool isAxisObject() const { return placed_.object().kind == a2l::ObjectKind::axisPoints; }

    Result<MemoryImage> text() {
        const auto* const characters = std::get_if<std::string>(&wanted_.values.front());
        if (characters == nullptr) return faultOf(name(), "is a text, the file has a number");
        if (wanted_.raws.empty()) {
            const bool isSameText = params::isSame(held_.values.front(), wanted_.values.front());
            if (isSameText && !wantsOtherBytes()) return content_.image;
            return a2l::changedText(content_, *characters);
        }
        const auto* const digits = std::get_if<std::string>(&wanted_.raws.front());
        const auto bytes = digits != nullptr ? bytesOfText(*digits) : std::nullopt;
        const std::size_t size = placed_.elementCount() * placed_.object().first.size();
        if (!bytes || bytes->size() != size)
            return faultOf(name(), fmt::format("its raw value is not 0x with {} bytes of two digits", size));
        a2l::ObjectContent after = content_;
        after.image.add(placed_.address(0), *bytes);
        if (after.text() != *characters) return misfit(name(), after.text(), *characters);
        return after.image;
    }

    Result<void> takeAll() {
        if (auto taken = take({held_.values, held_.raws}, {wanted_.values, wanted_.raws}, std::nullopt);
            !taken)
            return taken;
        for (std::size_t i = 0; i < std::min(held_.axes.size(), wanted_.axes.size()); ++i) {
            const params::ParameterAxis& held = held_.axes[i];
            const params::ParameterAxis& wanted = wanted_.axes[i];
            // The parameter that holds the points of such an axis is one of its own.
            if (!held.reference.empty() || wanted.points.size() != held.points.size()) continue;
            if (auto taken = take({held.points, held.raws}, {wanted.points, wanted.raws}, i); !taken)
                return taken;
        }
        return {};
    }

    Result<void> take(ValueList held, ValueList wanted, std::optional<std::size_t> axis) {
        for (std::size_t i = 0; i < std::min(held.values.size(), wanted.values.size()); ++i) {
            const Value& value = wanted.values[i];
            if (!wanted.raws.empty()) {
                if (!held.raws.empty() && params::isSame(held.raws[i], wanted.raws[i])) continue;
                raws_.push_back({axis, i, &wanted.raws[i]});
                continue;
            }
            const bool mayDiffer = wantsOtherBytes() || isSignedZero(value) || isSignedZero(held.values[i]);
            const bool isHeld =
                isSame(axis, held.values[i], value) &&
                !(mayDiffer && params::isSame(held.values[i], value) && leadsToOtherBytes(axis, i, value));
            if (isHeld) continue;
            const auto* const number = std::get_if<double>(&value);
            if (number != nullptr && !std::isfinite(*number))
                return faultOf(elementOf(axis, i).name, "the file has no finite number");
            changes_.push_back({axis, i, asTheA2lHasIt(axis, i, value)});
        }
        return {};
    }

    /// A truth value in the words of another tool.
    Value asTheA2lHasIt(std::optional<std::size_t> axis, std::size_t number, const Value& value) const {
        const auto* const text = std::get_if<std::string>(&value);
        if (text == nullptr) return value;
        const Element element = elementOf(axis, number);
        if (element.conversion->rawFromText(*text)) return value;
        const auto raw = rawOfText(element, *text);
        const auto own = raw ? element.conversion->verbalText(*raw) : std::nullopt;
        return own ? Value(std::string(*own)) : value;
    }

    /// A file that tells the digest and no raw values means the bytes to which its values lead; where several
    /// bytes have one physical value, as with signed zeros, these may be others.
    bool wantsOtherBytes() const { return !wanted_.digest.empty() && wanted_.digest != held_.digest; }

    bool leadsToOtherBytes(std::optional<std::size_t> axis, std::size_t number, const Value& physical) const {
        if (axis || isAxisObject()) {
            const a2l::PlacedAxis& about = placed_.axes()[axis.value_or(0)];
            if (!about.isStored() || about.about().difference) return false;
        }
        const Element element = elementOf(axis, number);
        const std::uint8_t* const bytes = content_.image.at(element.address, element.size());
        std::vector<std::uint8_t> buffer(bytes, bytes + element.size());
        const auto encoded = value::encodePhysical(element, physical, buffer);
        return !encoded || !std::equal(buffer.begin(), buffer.end(), bytes);
    }

    bool isSame(std::optional<std::size_t> axis, const Value& a, const Value& b) {
        return params::isSame(a, b) || steps_.within(held_, axis, a, b);
    }

    Element elementOf(std::optional<std::size_t> axis, std::size_t number) const {
        if (!axis) return placed_.element(number);
        const a2l::PlacedAxis& points = placed_.axes()[*axis];
        return points.isStored() ? points.element(number) : points.about().point;
    }

    const a2l::PlacedAxis* axisOf(const RawChange& change) const {
        if (change.axis) return &placed_.axes()[*change.axis];
        return isAxisObject() && !placed_.axes().front().hasPairs() ? &placed_.axes().front() : nullptr;
    }

    Result<void> storeRaw(const RawChange& change, MemoryImage& image) {
        const a2l::PlacedAxis* const axis = axisOf(change);
        const Element element = elementOf(change.axis, change.number);
        if (axis != nullptr && !axis->isOwn() && change.axis)
            return faultOf(element.name, "its points are not stored here and cannot be set");
        std::uint8_t* const bytes = image.at(element.address, element.size());
        const std::vector<std::uint8_t> before(bytes, bytes + element.size());
        const std::span<std::uint8_t> buffer(bytes, element.size());
        if (auto encoded = encode(change, axis, element, buffer); !encoded)
            return faultOf(element.name, encoded.error().text());
        if (std::equal(before.begin(), before.end(), bytes)) return {};
        if (change.axis && axis != nullptr && axis->about().readOnly)
            return faultOf(element.name, "is read-only");
        const bool isStep = axis != nullptr && axis->about().difference;
        if (isStep) return {};  // that of the point is seen once all are there
        const double physical =
            element.conversion->toPhysical(value::toDouble(value::rawValue(element, bytes)));
        if (isNoNumber(*change.raw) && std::isnan(physical)) return {};
        return checkLimits(element, physical);
    }

    /// Raw points of DEPOSIT DIFFERENCE are the sums of the steps, of a float the steps.
    Result<void> encode(const RawChange& change, const a2l::PlacedAxis* axis, const Element& element,
                        std::span<std::uint8_t> buffer) const {
        const Value& raw = *change.raw;
        if (isNoNumber(raw)) return encodeBits(std::get<std::string>(raw), element, buffer);
        if (value::isFloat(element.coding.dataType))
            return value::encodeRaw(value::toDouble(raw), element.coding, buffer);
        value::Int128 whole = wholeOf(raw);
        const auto& raws = change.axis ? wanted_.axes[*change.axis].raws : wanted_.raws;
        if (axis != nullptr && axis->about().difference && change.number > 0)
            whole -= wholeOf(raws[change.number - 1]);
        return value::encodeInteger(whole, element.coding, buffer);
    }

    static bool isNoNumber(const Value& raw) { return std::holds_alternative<std::string>(raw); }

    /// The bits of a float that is no finite number, the first digit the highest.
    static Result<void> encodeBits(std::string_view digits, const Element& element,
                                   std::span<std::uint8_t> buffer) {
        auto bits = bytesOfText(digits);
        const Error error{ErrorCode::invalidArgument, "the file has no finite number"};
        if (!bits || bits->size() != buffer.size() || !value::isFloat(element.coding.dataType)) return error;
        if (element.coding.byteOrder == ByteOrder::littleEndian) std::reverse(bits->begin(), bits->end());
        if (std::isfinite(value::toDouble(value::rawValue(element, bits->data())))) return error;
        std::copy(bits->begin(), bits->end(), buffer.begin());
        return {};
    }

    static value::Int128 wholeOf(const Value& raw) {
        const auto* const exact = std::get_if<value::Exact>(&raw);
        if (exact != nullptr && exact->exponent == 0) return exact->units;
        return static_cast<value::Int128>(std::round(value::toDouble(raw)));
    }

    static Result<void> checkLimits(const Element& element, double physical) {
        if (std::isnan(physical)) return faultOf(element.name, "the file has no finite number");
        if (!value::isBeyondLimits(element, physical)) return {};
        Element wider = element;
        if (element.takesExtended && element.extendedLimits)
            std::tie(wider.lowerLimit, wider.upperLimit) = *element.extendedLimits;
        if (!value::isBeyondLimits(wider, physical)) return {};
        return faultOf(element.name,
                       fmt::format("{} outside the limits [{}, {}]", formatGeneral(physical),
                                   formatGeneral(wider.lowerLimit), formatGeneral(wider.upperLimit)));
    }

    static Error misfit(const std::string& where, const Value& meant, const Value& beside) {
        Error error = faultOf(where, fmt::format("its raw value means {}, the value beside it is {}",
                                                 shown(meant), shown(beside)));
        error.hint = "after changing a value by hand remove its \"raw\" or \"raws\"";
        return error;
    }

    /// Who changed a value by hand may have left the raw one as it was.
    Result<void> checkMeaning(const MemoryImage& image) {
        const Parameter after = parameterOf({placed_, image}, {});
        for (const RawChange& change : raws_) {
            const std::size_t i = change.number;
            const auto& meant = change.axis ? after.axes[*change.axis].points : after.values;
            const auto& beside = change.axis ? wanted_.axes[*change.axis].points : wanted_.values;
            const bool isBits = isNoNumber(*change.raw) && params::isSame(beside[i], Value(std::nan("")));
            if (!isBits && !isSame(change.axis, meant[i], beside[i]))
                return misfit(elementOf(change.axis, i).name, meant[i], beside[i]);
        }
        for (const RawChange& change : raws_) {
            if (auto fits = checkSum(change, after); !fits) return fits;
        }
        return checkMonotony(image);
    }

    /// The limits are those of the points, which are sums of what is stored.
    Result<void> checkSum(const RawChange& change, const Parameter& after) const {
        const a2l::PlacedAxis* const axis = axisOf(change);
        if (axis == nullptr || !axis->about().difference) return {};
        const Value& held =
            change.axis ? held_.axes[*change.axis].points[change.number] : held_.values[change.number];
        const Value& meant =
            change.axis ? after.axes[*change.axis].points[change.number] : after.values[change.number];
        if (params::isSame(held, meant)) return {};
        return checkLimits(elementOf(change.axis, change.number), value::toDouble(meant));
    }

    /// That of points which came as raw values; a2l::changed() has seen the others.
    Result<void> checkMonotony(const MemoryImage& image) const {
        for (const a2l::PlacedAxis& axis : placed_.axes()) {
            if (!axis.isStored() || axis.hasPairs()) continue;
            const auto before = axis.raw(content_.image);
            const auto after = axis.raw(image);
            if (!before || !after) continue;
            const auto broken = a2l::brokenMonotony(before.value(), after.value(), axis.about().monotony);
            if (broken < after.value().size())
                return faultOf(axis.element(broken).name, "breaks the monotony of its axis");
        }
        return {};
    }

    const a2l::ObjectContent& content_;
    const a2l::PlacedObject& placed_;
    const Parameter& held_;
    const Parameter& wanted_;
    RawSteps& steps_;
    std::vector<a2l::ObjectChange> changes_;
    std::vector<RawChange> raws_;
};

}  // namespace

Result<a2l::MemoryImage> wantedContent(const a2l::ObjectContent& content, const params::Parameter& held,
                                       const params::Parameter& wanted, RawSteps& steps) {
    return Wanting(content, held, wanted, steps).run();
}

}  // namespace lm::session
