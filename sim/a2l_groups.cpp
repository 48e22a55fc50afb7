#include <algorithm>
#include <array>
#include <vector>

#include <fmt/format.h>

#include "sim/a2l_objects.h"

namespace lm::sim {
namespace {

struct Group {
    const char* name;
    const char* description;
    bool ofMeasurements;
    bool (*holds)(const Row& row);
};

bool isAny(const std::string& shape, std::initializer_list<const char*> shapes) {
    return std::find(shapes.begin(), shapes.end(), shape) != shapes.end();
}

template <std::uint8_t event>
bool isOn(const Row& row) {
    return row.event == event;
}

bool isParameter(const Row& row) {
    return row.kind == Kind::characteristic;
}

/// In the order of the file; an object lies in the first group of its kind that holds it.
constexpr std::array<Group, 11> kGroups{{
    {"Event_0", "Measured on event 0", true, isOn<kEvent1ms>},
    {"Event_1", "Measured on event 1", true, isOn<kEvent10ms>},
    {"Event_2", "Measured on event 2", true, isOn<kEvent100ms>},
    {"Event_3", "Measured on event 3", true, isOn<kEventAsync>},
    {"No_event", "On no event", true, [](const Row&) { return true; }},
    {"Values", "Plain values", false, [](const Row& r) { return isParameter(r) && r.shape == "VALUE"; }},
    {"Tables", "Curves and maps", false,
     [](const Row& r) {
         return isParameter(r) && isAny(r.shape, {"CURVE", "MAP", "CUBOID"});
     }},
    {"Axes", "Shared axes", false, [](const Row& r) { return r.kind == Kind::axisPoints; }},
    {"Blocks", "Arrays", false, [](const Row& r) { return isParameter(r) && r.shape == "VAL_BLK"; }},
    {"Texts", "Texts", false, [](const Row& r) { return isParameter(r) && r.shape == "ASCII"; }},
    {"Others", "Structures and plain bytes", false, [](const Row&) { return true; }},
}};

std::string list(const char* keyword, const std::vector<std::string>& names) {
    if (names.empty()) return {};
    return fmt::format("      /begin {}\n        {}\n      /end {}\n", keyword,
                       fmt::join(names, "\n        "), keyword);
}

std::string group(const char* name, const char* description, const std::string& body) {
    return fmt::format("    /begin GROUP {} \"{}\"\n{}    /end GROUP\n", name, description, body);
}

std::vector<std::string> groupNames(bool ofMeasurements) {
    std::vector<std::string> names;
    for (const Group& one : kGroups) {
        if (one.ofMeasurements == ofMeasurements) names.emplace_back(one.name);
    }
    return names;
}

/// Instances count by where they lie.
bool isMeasured(const Row& row) {
    return row.kind == Kind::measurement || (row.kind == Kind::instance && row.place == Place::signals);
}

}  // namespace

std::string a2lGroups(const Catalog& catalog, std::uint16_t version) {
    std::array<std::vector<std::string>, kGroups.size()> members;
    for (const Row& row : catalog.rows()) {
        if (row.place == Place::load || !isDescribed(row, version)) continue;
        std::size_t at = 0;
        while (kGroups[at].ofMeasurements != isMeasured(row) || !kGroups[at].holds(row))
            ++at;
        members[at].push_back(row.name);
    }
    std::string text =
        group("Ecu", "All objects", "      ROOT\n" + list("SUB_GROUP", {"Measurements", "Parameters"})) +
        group("Measurements", "What is measured, by event", list("SUB_GROUP", groupNames(true))) +
        group("Parameters", "What is calibrated, by kind", list("SUB_GROUP", groupNames(false)));
    for (std::size_t i = 0; i < kGroups.size(); ++i) {
        const Group& one = kGroups[i];
        text += group(one.name, one.description,
                      list(one.ofMeasurements ? "REF_MEASUREMENT" : "REF_CHARACTERISTIC", members[i]));
    }
    return text;
}

std::string a2lFunctions(std::uint16_t version) {
    const auto function = [](const char* name, const char* description, const std::string& body) {
        return fmt::format("    /begin FUNCTION {} \"{}\"\n{}    /end FUNCTION\n", name, description, body);
    };
    std::vector<std::string> limits{"cal_speed_limit", "cal_speed_resume", "cal_speed_warning"};
    if (version >= 171) limits.insert(limits.end(), {"cal_limits", "cal_spare_limit.curve"});
    return function("Engine_control", "All functions",
                    list("SUB_FUNCTION", {"Idle_control", "Ignition", "Torque", "Limits"})) +
           function("Idle_control", "Keeps the engine running",
                    list("DEF_CHARACTERISTIC", {"cal_idle_speed", "cal_injector"}) +
                        list("OUT_MEASUREMENT", {"engine_speed", "injection_time"})) +
           function("Ignition", "When the spark comes",
                    list("DEF_CHARACTERISTIC", {"cal_ignition_map", "cal_ignition_trim"}) +
                        list("REF_CHARACTERISTIC", {"cal_speed_axis", "cal_load_axis"}) +
                        list("IN_MEASUREMENT", {"engine_speed", "rel_load"}) +
                        list("OUT_MEASUREMENT", {"ignition_advance", "ignition_angle"})) +
           function("Torque", "What the driver asks for",
                    list("DEF_CHARACTERISTIC", {"cal_torque_curve"}) + list("IN_MEASUREMENT", {"throttle"}) +
                        list("OUT_MEASUREMENT", {"torque_request", "cylinder_torque"}) +
                        list("LOC_MEASUREMENT", {"shaft_power"})) +
           function("Limits", "What the engine must not pass", list("DEF_CHARACTERISTIC", limits));
}

}  // namespace lm::sim
