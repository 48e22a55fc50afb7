#include "a2l/placed_object.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <utility>

#include "a2l/object_name.h"

namespace lm::a2l {
namespace {

std::size_t productOf(std::span<const std::uint32_t> counts) {
    return std::accumulate(counts.begin(), counts.end(), std::size_t{1}, std::multiplies());
}

/// The pieces of a grid in which its values touch.
void addSpans(const Grid& grid, std::vector<MemorySpan>& spans) {
    struct Step {
        std::uint64_t stride;
        std::uint32_t count;
    };
    std::vector<Step> steps;
    for (std::size_t i = 0; i < grid.counts.size(); ++i)
        if (grid.uneven != i) steps.push_back({grid.strides[i], grid.counts[i]});
    std::sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) { return a.stride < b.stride; });
    std::uint64_t run = grid.size;
    std::size_t inner = 0;
    for (; inner < steps.size() && (steps[inner].stride == run || steps[inner].count == 1); ++inner)
        if (steps[inner].count > 1) run *= steps[inner].count;

    std::vector<std::uint64_t> starts = {0};
    if (grid.uneven) starts.assign(grid.starts.begin(), grid.starts.end());
    for (; inner < steps.size(); ++inner) {
        std::vector<std::uint64_t> more;
        more.reserve(starts.size() * steps[inner].count);
        for (const std::uint64_t start : starts)
            for (std::uint32_t i = 0; i < steps[inner].count; ++i)
                more.push_back(start + i * steps[inner].stride);
        starts = std::move(more);
    }
    for (const std::uint64_t start : starts) {
        spans.push_back({{grid.base.address + static_cast<std::uint32_t>(start), grid.base.extension},
                         static_cast<std::size_t>(run)});
    }
}

}  // namespace

xcp::Address Grid::address(std::size_t number) const {
    std::uint64_t at = 0;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        std::size_t index = number % counts[i];
        number /= counts[i];
        if (decreasing[i]) index = counts[i] - 1 - index;
        at += uneven == i ? starts[index] : index * strides[i];
    }
    return {base.address + static_cast<std::uint32_t>(at), base.extension};
}

std::uint64_t Grid::extent() const {
    std::uint64_t end = size;
    for (std::size_t i = 0; i < counts.size(); ++i)
        end += uneven == i ? starts.back() : (counts[i] - 1) * strides[i];
    return end;
}

value::Element PlacedAxis::element(std::size_t point) const {
    value::Element element = axis_->point;
    element.name = name_ + "[" + std::to_string(point) + "]";
    element.address = grid_.address(point);
    return element;
}

std::size_t PlacedObject::elementCount() const {
    return productOf(dimensions_);
}

xcp::Address PlacedObject::address(std::size_t number) const {
    if (maps_.empty()) return values_.address(number);
    const std::size_t perMap = maps_.front().elementCount();
    return maps_[number / perMap].address(number % perMap);
}

value::Element PlacedObject::element(std::size_t number) const {
    value::Element element =
        maps_.empty() ? object_->first : maps_[number / maps_.front().elementCount()].object().first;
    element.name = object_->name + indexText(number, dimensions_);
    element.address = address(number);
    return element;
}

std::vector<MemorySpan> PlacedObject::spans(std::size_t bytesPerPacket,
                                            std::optional<std::size_t> only) const {
    std::vector<MemorySpan> all;
    const auto add = [&](std::vector<MemorySpan> record) {
        const auto joined = merged(std::move(record), bytesPerPacket);
        all.insert(all.end(), joined.begin(), joined.end());
    };
    const auto addPlaces = [&](const std::vector<PlacedBy>& places, std::vector<MemorySpan>& record) {
        for (const PlacedBy& place : places)
            (place.inRecord ? record : all).push_back(place.span());
    };
    // What lies between the parts of a record belongs to it. What lies between objects may not be there.
    std::vector<MemorySpan> record;
    std::vector<MemorySpan> pointed;
    std::vector<MemorySpan>& values = pointsAway_ ? pointed : record;
    if (maps_.empty() && only) values.push_back({address(*only), object_->first.size()});
    if (maps_.empty() && !only) addSpans(values_, values);
    addPlaces(placedBy_, record);
    for (const PlacedAxis& axis : axes_) {
        std::vector<MemorySpan> points;
        if (!only && (axis.isStored() || axis.hasPairs())) addSpans(axis.grid_, points);
        if (axis.pointsAway_) add(std::exchange(points, {}));
        addPlaces(axis.placedBy_, points);
        if (axis.axis_->shared) add(std::exchange(points, {}));
        record.insert(record.end(), points.begin(), points.end());
    }
    add(record);
    add(pointed);
    const std::size_t perMap = maps_.empty() ? 1 : maps_.front().elementCount();
    if (!maps_.empty() && only) add(maps_[*only / perMap].spans(bytesPerPacket, *only % perMap));
    for (const PlacedObject& map : maps_)
        if (!only) add(map.spans(bytesPerPacket));
    return merged(std::move(all), 0);
}

std::vector<PlacedBy> PlacedObject::placedBy() const {
    std::vector<PlacedBy> all = placedBy_;
    for (const PlacedAxis& axis : axes_)
        all.insert(all.end(), axis.placedBy_.begin(), axis.placedBy_.end());
    for (const PlacedObject& map : maps_) {
        const auto places = map.placedBy();
        all.insert(all.end(), places.begin(), places.end());
    }
    return all;
}

bool PlacedObject::isStillPlaced(const MemoryImage& image) const {
    const auto places = placedBy();
    return std::all_of(places.begin(), places.end(), [&](const PlacedBy& place) {
        const std::uint8_t* const now = image.at(place.address, place.bytes.size());
        return now == nullptr || std::equal(place.bytes.begin(), place.bytes.end(), now);
    });
}

Result<void> PlacedObject::checkMaps(const MemoryImage& image) const {
    for (const PlacedObject& map : maps_) {
        for (std::size_t i = 0; i < map.axes_.size(); ++i) {
            const PlacedAxis& first = maps_.front().axes_[i];
            const PlacedAxis& axis = map.axes_[i];
            const auto wanted = first.raw(image);
            const auto points = axis.raw(image);
            if (!wanted) return wanted.error();
            if (!points) return points.error();
            const auto isSame = [&](const value::Value& a, const value::Value& b) {
                return value::toDouble(first.physical(a)) == value::toDouble(axis.physical(b));
            };
            const bool allSame = std::equal(wanted.value().begin(), wanted.value().end(),
                                            points.value().begin(), points.value().end(), isSame);
            if (allSame) continue;
            return Error{ErrorCode::invalidArgument,
                         object_->name + ": the maps '" + maps_.front().object_->name + "' and '" +
                             map.object_->name + "' of MAP_LIST differ in the points of axis " +
                             std::string(axisSuffix(i).substr(1))};
        }
    }
    return {};
}

}  // namespace lm::a2l
