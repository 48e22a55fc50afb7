// What the simulated ECU computes: the inputs of its model, the functions that its expressions use, and how
// an expression becomes a model.
//
// Threads: pure functions and plain records. Lifetime: the text of a model is a literal.
#pragma once

#include <cstdint>
#include <string_view>

#include "sim/interpolation.h"

namespace lm::sim {

/// The raw values that the model reads from memory before each step; the fields bear the names of the
/// objects.
struct Inputs {
    std::int64_t cal_injector = 0;
    std::int64_t cal_idle_speed = 0;
    std::int64_t cal_wave_period = 0;
    std::int64_t cal_ignition_trim = 0;
    std::int64_t cal_pressure_offset = 0;
    double cal_gain = 0;
    double cal_wave_offset = 0;
    double setpoint_rw = 0;
    Curve cal_torque_curve = {};
    Grid cal_ignition_map = {};  ///< over cal_speed_axis and cal_load_axis
};

/// A measurement as a function of its event's sample counter n (from 1), the inputs p and, for one of several
/// elements, its number i (from 0). At most one of the two functions is there, `whole` for integer types;
/// `text` is the same function in words (valid Python).
struct Model {
    std::int64_t (*whole)(std::int64_t n, const Inputs& p, std::int64_t i) = nullptr;
    double (*real)(std::int64_t n, const Inputs& p, std::int64_t i) = nullptr;
    std::string_view text = {};
};

// The functions that model expressions use.
/// A triangle of period `period` that climbs from 0 to period / 2 and back; 0 when the period is 0.
constexpr std::int64_t tri(std::int64_t n, std::int64_t period) {
    if (period <= 0) return 0;
    const std::int64_t phase = n % period;
    return phase < period - phase ? phase : period - phase;
}
/// The quotient without its fraction (both numbers are positive).
constexpr std::int64_t div(std::int64_t a, std::int64_t b) {
    return a / b;
}
constexpr double real(std::int64_t value) {
    return static_cast<double>(value);
}

// One expression gives the function and its text, so the documented model cannot part from the one that runs.
// Expressions use the functions above, + - * % and comparisons only: they read the same in C++ and in Python.
#define SIM_ARGUMENTS \
    [[maybe_unused]] std::int64_t n, [[maybe_unused]] const Inputs &p, [[maybe_unused]] std::int64_t i
#define SIM_WHOLE(expression)                                                          \
    Model {                                                                            \
        [](SIM_ARGUMENTS) -> std::int64_t { return expression; }, nullptr, #expression \
    }
#define SIM_REAL(expression)                                                     \
    Model {                                                                      \
        nullptr, [](SIM_ARGUMENTS) -> double { return expression; }, #expression \
    }

}  // namespace lm::sim
