// A window of a measurement as clients of frames get it: least, greatest and last value of each signal.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cmath>
#include <cstdint>
#include <span>
#include <string>

namespace lm::serve {

/// The least, the greatest and the last of some values. Not a number is neither least nor greatest.
struct Extremes {
    double least = 0;
    double greatest = 0;
    double last = 0;
    std::uint64_t count = 0;

    void take(double value) { join({value, value, value, 1}); }
    void join(const Extremes& later) {
        if (later.count == 0) return;
        if (count == 0 || std::isnan(least) || later.least < least) least = later.least;
        if (count == 0 || std::isnan(greatest) || later.greatest > greatest) greatest = later.greatest;
        last = later.last;
        count += later.count;
    }
};

/// What is beyond all floats becomes infinite.
float nearestFloat(double value);
/// The nearest float that is not above, or not below: a peak is never drawn too small.
float floatBelow(double value);
float floatAbove(double value);

/// f64 fromNs, f64 toNs, u32 records, u32 n, n f64 last, n f32 least, n f32 greatest; all three NaN where no
/// value came. Little-endian.
std::string windowFrame(std::int64_t fromNs, std::int64_t toNs, std::uint64_t records,
                        std::span<const Extremes> signals);

}  // namespace lm::serve
