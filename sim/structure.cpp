#include "sim/structure.h"

#include <algorithm>

#include <fmt/format.h>

namespace lm::sim {
namespace {

using T = DataType;

std::vector<Row> measurementLeaves() {
    RowList rows;
    rows.add("temp_t", "Temperature", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(80.0 + 5.0 * real(i) + 0.125 * real(tri(n, 800))))
        .limits(-40, 1000)
        .attributes("PHYS_UNIT \"degC\"\n");
    rows.add("knock_count_t", "Knocks counted", T::ulong, "CM.HEX")
        .on(kEvent10ms, SIM_WHOLE(div(n + 25 * i, 100)));
    rows.add("pressure_t", "Pressure in one stroke", T::uword, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_WHOLE(1000 + 10 * i + tri(n, 200)))
        .attributes("PHYS_UNIT \"hPa\"\n");
    rows.add("firing_t", "Whether it fires", T::ulong, "CM.ON_OFF")
        .on(kEvent10ms, SIM_WHOLE(n % 4 == i))
        .limits(0, 1);
    rows.add("speed_t", "Speed of the shaft", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(0.25 * real((p.cal_injector != 0) * (p.cal_idle_speed + 8 * tri(n, 500)))))
        .attributes("PHYS_UNIT \"rpm\"\n");
    return rows.take();
}

std::vector<Row> calibrationLeaves() {
    RowList rows;
    rows.add("limit_axis_t", "Speeds of a limit", T::uword, "CM.SPEED")
        .kind(Kind::axisPoints)
        .shape("AXIS_PTS", "RL.AXIS_UWORD", 4)
        .limits(0, 16383.75)
        .record({{T::uword, {4000, 8000, 16000, 24000}}});
    rows.last().input = "engine_speed";
    rows.add("limit_curve_t", "Limit over the speed", T::float32, "CM.IDENTICAL")
        .kind(Kind::characteristic)
        .shape("CURVE", "RL.FLOAT32_IEEE", 4)
        .limits(0, 1000)
        .record({{T::float32, {100, 180, 250, 200}}})
        .attributes(
            "/begin AXIS_DESCR COM_AXIS engine_speed CM.SPEED 4 0 16383.75\n"
            "  AXIS_PTS_REF THIS.speed\n"
            "/end AXIS_DESCR\n");
    rows.add("hysteresis_t", "Distance back to normal", T::float32, "CM.IDENTICAL")
        .kind(Kind::characteristic)
        .limits(0, 100)
        .initial({0, 5});
    rows.add("state_t", "Whether the limit counts", T::ulong, "CM.SWITCH")
        .kind(Kind::characteristic)
        .limits(0, 2)
        .initial({1, 0});
    return rows.take();
}

Structures build() {
    Structures all;
    for (auto&& rows : {measurementLeaves(), calibrationLeaves()})
        all.leaves.insert(all.leaves.end(), rows.begin(), rows.end());
    all.structures = {
        {"cylinder_t",
         "One cylinder",
         24,
         {{"temp", "temp_t", 0},
          {"knock_count", "knock_count_t", 4},
          {"pressure", "pressure_t", 8, 4},
          {"firing", "firing_t", 16}}},
        {"engine_t",
         "The engine",
         112,
         {{"cyl", "cylinder_t", 0, 4}, {"speed", "speed_t", 96}, {"manifold", "temp_t", 100, 2}}},
        {"limit_t",
         "A limit over the speed",
         32,
         {{"speed", "limit_axis_t", 0},
          {"curve", "limit_curve_t", 8},
          {"hysteresis", "hysteresis_t", 24},
          {"state", "state_t", 28}}},
        {"limits_t", "The limits of the engine", 64, {{"torque", "limit_t", 0}, {"boost", "limit_t", 32}}}};
    return all;
}

/// Where in an instance a structure lies, and how many of its kind come before it.
struct Spot {
    std::string path;
    std::uint32_t offset;
    std::uint32_t index;
};

void addLeaves(RowList& rows, const Row& instance, const Structure& structure, const Spot& spot) {
    for (const Component& component : structure.components) {
        const std::uint32_t count = std::max<std::uint32_t>(component.count, 1);
        const std::string path = spot.path + "." + component.name;
        const std::uint32_t offset = spot.offset + component.offset;
        if (const Structure* inner = structures().structure(component.type)) {
            for (std::uint32_t k = 0; k < count; ++k) {
                const std::string name = component.count == 0 ? path : fmt::format("{}[{}]", path, k);
                addLeaves(rows, instance, *inner, {name, offset + k * inner->size, spot.index * count + k});
            }
            continue;
        }
        Row leaf = *structures().leaf(component.type);
        leaf.name = path;
        leaf.kind = Kind::hidden;
        leaf.place = instance.place;
        leaf.sharesWith = instance.name;
        leaf.offset = offset;
        leaf.elements = static_cast<std::uint16_t>(count);
        leaf.firstElement = static_cast<std::uint16_t>(spot.index * count);
        const std::uint32_t before = spot.offset / structure.size;
        const double different = before;  // no two of a kind start alike
        leaf.initial.real += different;
        for (Part& part : leaf.record)
            std::for_each(part.content.begin(), part.content.end(),
                          [&](double& value) { value += different; });
        rows.append(std::move(leaf));
    }
}

template <typename T>
const T* named(const std::vector<T>& list, std::string_view name) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const T& item) { return item.name == name; });
    return found == list.end() ? nullptr : &*found;
}

}  // namespace

const Row* Structures::leaf(std::string_view name) const {
    return named(leaves, name);
}

const Structure* Structures::structure(std::string_view name) const {
    return named(structures, name);
}

const Structures& structures() {
    static const Structures all = build();
    return all;
}

void addInstance(RowList& rows, const Row& instance) {
    const Structure& structure = *structures().structure(instance.structure);
    Row row = instance;
    row.kind = Kind::instance;
    row.a2lVersion = 171;
    rows.append(row);
    const std::uint16_t count = row.sizes.empty() ? std::uint16_t{1} : row.sizes.front();
    rows.array({static_cast<std::uint16_t>(structure.size * count)}).last().sizes = row.sizes;
    for (std::uint32_t k = 0; k < count; ++k) {
        const std::string path = row.sizes.empty() ? row.name : fmt::format("{}[{}]", row.name, k);
        addLeaves(rows, row, structure, {path, k * structure.size, k});
    }
}

}  // namespace lm::sim
