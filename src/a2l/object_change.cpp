// What the bytes of an object become when values or points of it are set.

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <string>
#include <utility>

#include "a2l/axis_points.h"
#include "a2l/object_content.h"
#include "core/text.h"
#include "value/value_text.h"

namespace lm::a2l {
namespace {

Error fault(const std::string& name, const std::string& what) {
    return {ErrorCode::invalidArgument, name + ": " + what};
}

Result<void> encodeAt(MemoryImage& image, const value::Element& element, const value::Value& physical) {
    std::uint8_t* const bytes = image.at(element.address, element.size());
    return value::encodePhysical(element, physical, {bytes, element.size()});
}

/// The raw value of a point that need not fit the type of the steps.
Result<value::Value> wideRaw(value::Element element, const value::Value& physical) {
    element.coding.byteOrder = ByteOrder::littleEndian;
    // A float has the precision of its type, or the steps beside it would hold what rounding leaves.
    value::DataType& type = element.coding.dataType;
    if (!value::isFloat(type) && type != value::DataType::uint64) type = value::DataType::int64;
    std::array<std::uint8_t, sizeof(std::uint64_t)> bytes{};
    if (auto encoded = value::encodePhysical(element, physical, bytes); !encoded) return encoded.error();
    return value::rawValue(element, bytes.data());
}

value::Int128 whole(const value::Value& raw) {
    const auto* const exact = std::get_if<value::Exact>(&raw);
    return exact != nullptr ? exact->units : static_cast<value::Int128>(std::round(value::toDouble(raw)));
}

Result<void> encodeStep(const value::Element& element, const value::Value& from, const value::Value& to,
                        std::uint8_t* bytes) {
    const std::span<std::uint8_t> buffer(bytes, element.size());
    const auto misfit = [&](const std::string& step) {
        return fault(element.name, "the step from the point before would be " + step + ", which a " +
                                       std::string(value::dataTypeName(element.coding.dataType)) +
                                       " does not hold");
    };
    if (value::isFloat(element.coding.dataType)) {
        const double step = value::toDouble(to) - value::toDouble(from);
        const bool fits = value::requireFinite(step, element.coding.dataType).ok();
        return fits ? value::encodeRaw(step, element.coding, buffer) : misfit(formatGeneral(step));
    }
    const value::Exact step{whole(to) - whole(from)};
    if (value::encodeInteger(step.units, element.coding, buffer)) return {};
    return misfit(step.shortest());
}

/// Changes of one axis, all at once: monotony is a matter of them together.
class AxisChange {
  public:
    AxisChange(const PlacedObject& object, std::size_t number, MemoryImage& image)
        : axis_(object.axes()[number]),
          isObject_(object.object().kind == ObjectKind::axisPoints),
          ofMaps_(!object.object().maps.empty()),
          name_(axis_.about().point.name),
          image_(image) {}

    Result<void> make(const std::map<std::size_t, value::Value>& values) {
        if (auto allowed = checkAllowed(); !allowed) return allowed;
        auto points = axis_.raw(image_);
        if (!points) return points.error();
        points_ = points.value();
        isChanged_.assign(points_.size(), false);
        for (const auto& [point, physical] : values)
            if (auto set = setPoint(point, physical); !set) return set;
        if (axis_.about().difference)
            if (auto stored = storeSteps(); !stored) return stored;
        return checkMonotony(points.value());
    }

  private:
    Result<void> checkAllowed() const {
        const Axis& about = axis_.about();
        if (about.shared != nullptr && about.kind != AxisKind::curve) {
            return fault(name_,
                         "its points are those of AXIS_PTS '" + about.shared->name + "': set them there");
        }
        if (ofMaps_) return fault(name_, "its points are those of the maps in MAP_LIST: set them there");
        if (!axis_.isStored()) return fault(name_, "its points are computed and cannot be set");
        if (about.readOnly && !isObject_) return fault(name_, "is read-only");
        return {};
    }

    Result<void> setPoint(std::size_t point, const value::Value& physical) {
        if (point >= points_.size())
            return fault(name_, "has " + std::to_string(points_.size()) +
                                    " points, there is none with number " + std::to_string(point));
        const value::Element element = axis_.element(point);
        isChanged_[point] = true;
        if (axis_.about().difference) {
            auto raw = wideRaw(element, physical);
            if (!raw) return raw.error();
            points_[point] = std::move(raw).value();
            return {};
        }
        if (auto encoded = encodeAt(image_, element, physical); !encoded) return encoded;
        points_[point] = value::rawValue(element, image_.at(element.address, element.size()));
        return {};
    }

    /// The step after a point changes with it: all other points stay where they are.
    Result<void> storeSteps() {
        for (std::size_t i = 0; i < points_.size(); ++i) {
            if (!isChanged_[i] && (i == 0 || !isChanged_[i - 1])) continue;
            const value::Element element = axis_.element(i);
            const value::Value from = i == 0 ? value::Value(0.0) : points_[i - 1];
            auto stored = encodeStep(element, from, points_[i], image_.at(element.address, element.size()));
            if (!stored) return stored;
        }
        // A float holds a step not always as it was meant.
        auto stored = axis_.raw(image_);
        if (!stored) return stored.error();
        points_ = std::move(stored).value();
        return {};
    }

    Result<void> checkMonotony(const std::vector<value::Value>& before) const {
        const Monotony monotony = axis_.about().monotony;
        const std::size_t broken = brokenMonotony(before, points_, monotony);
        if (broken == points_.size()) return {};
        const auto shown = [&](std::size_t point) {
            const value::Element element = axis_.element(point);
            return value::valueText(element, axis_.physical(points_[point]), value::NumberStyle::exact);
        };
        // The order is that of the stored values: under a falling conversion those shown go the other way.
        const auto rises = [](const value::Value& a, const value::Value& b) {
            return value::toDouble(a) < value::toDouble(b);
        };
        const value::Value& from = points_[broken - 1];
        const value::Value& to = points_[broken];
        const bool falls = rises(from, to)
                               ? rises(axis_.physical(to), axis_.physical(from))
                               : rises(to, from) && rises(axis_.physical(from), axis_.physical(to));
        return fault(axis_.element(broken).name,
                     shown(broken) + " after " + shown(broken - 1) + " breaks " +
                         std::string(monotonyName(monotony)) +
                         (falls ? " of the stored values, which fall where these rise" : ""));
    }

    const PlacedAxis& axis_;
    const bool isObject_;
    const bool ofMaps_;
    const std::string name_;
    MemoryImage& image_;
    std::vector<value::Value> points_;
    std::vector<bool> isChanged_;
};

}  // namespace

Result<MemoryImage> changed(const ObjectContent& content, std::span<const ObjectChange> changes) {
    const PlacedObject& placed = content.placed;
    const bool isAxis = placed.object().kind == ObjectKind::axisPoints && !placed.axes().front().hasPairs();
    MemoryImage image = content.image;
    std::map<std::size_t, std::map<std::size_t, value::Value>> axes;
    for (const ObjectChange& change : changes) {
        if (change.axis || isAxis) {
            axes[change.axis.value_or(0)].insert_or_assign(change.number, change.physical);
            continue;
        }
        if (change.number >= placed.elementCount()) {
            return fault(placed.object().name, "has " + std::to_string(placed.elementCount()) +
                                                   " elements, there is none with number " +
                                                   std::to_string(change.number));
        }
        auto encoded = encodeAt(image, placed.element(change.number), change.physical);
        if (!encoded) return encoded.error();
    }
    for (const auto& [axis, values] : axes) {
        if (axis >= placed.axes().size())
            return fault(placed.object().name, "has " + std::to_string(placed.axes().size()) +
                                                   (placed.axes().size() == 1 ? " axis" : " axes"));
        if (auto made = AxisChange(placed, axis, image).make(values); !made) return made.error();
    }
    return image;
}

}  // namespace lm::a2l
