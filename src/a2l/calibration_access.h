// CALIBRATION_ACCESS: whether an object may be written while the ECU runs.
//
// Threads: pure functions. Lifetime: texts are static.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace lm::a2l {

enum class CalibrationAccess : std::uint8_t {
    notGiven,
    calibration,
    noCalibration,
    notInMcdSystem,
    offlineCalibration,
};

constexpr std::array<std::string_view, 5> kCalibrationAccesses = {"", "CALIBRATION", "NO_CALIBRATION",
                                                                  "NOT_IN_MCD_SYSTEM", "OFFLINE_CALIBRATION"};

/// As written; empty for none.
constexpr std::string_view calibrationAccessName(CalibrationAccess access) {
    return kCalibrationAccesses[static_cast<std::size_t>(access)];
}

/// A word that is not known forbids nothing.
constexpr CalibrationAccess calibrationAccessFromName(std::string_view name) {
    const auto* const found = std::find(kCalibrationAccesses.begin(), kCalibrationAccesses.end(), name);
    if (found == kCalibrationAccesses.end()) return CalibrationAccess::notGiven;
    return static_cast<CalibrationAccess>(found - kCalibrationAccesses.begin());
}

constexpr bool forbidsWriting(CalibrationAccess access) {
    return access > CalibrationAccess::calibration;
}

}  // namespace lm::a2l
