// How a slave's clock runs against the host's: offset, drift, and how far from a straight line it keeps.
//
// Stamps tell the slave's clock, their reception the host's, late by a delay that is never negative. Of each
// window only the quickest packet counts. A full table is halved: of two neighbours the one that lies lower
// against the line so far stays, and windows are twice as long from then on. So memory is constant, and the
// longer a measurement lasts, the quicker are the packets it goes by. The line is the least squares' through
// these; what lies far above it was late and is left out of a second one.
//
// Threads: add() belongs to one thread at a time (the receive thread) and takes a lock ten times a second at
// most; figures() may be called from any. Lifetime: owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

namespace lm::xcp {

struct ClockFigures {
    std::int64_t offsetNs = 0;  ///< host less slave, at the end
    double driftPpm = 0;        ///< above 0: the slave's clock runs fast
    double residualNs = 0;      ///< root mean square of the distances from the line
    std::int64_t spanNs = 0;    ///< of the host's time that they are from

    bool operator==(const ClockFigures&) const = default;
};

class ClockFit {
  public:
    ClockFit() { points_.reserve(kMostPoints); }

    /// `offsetNs` is the time of reception less the slave's. `generation` changes when the slave's clock
    /// began anew: what was before does not count.
    void add(std::int64_t offsetNs, std::int64_t receiveNs, std::uint32_t generation);

    /// None in the first second.
    std::optional<ClockFigures> figures() const;

  private:
    static constexpr std::size_t kMostPoints = 64;

    /// The quickest packet of a window.
    struct Point {
        std::int64_t receiveNs = 0;
        std::int64_t offsetNs = std::numeric_limits<std::int64_t>::max();
    };
    /// Offset in ns over host time in s, both from the origin.
    struct Line {
        double at0 = 0;
        double slope = 0;
        double residual = 0;
    };

    void begin(std::int64_t receiveNs, std::uint32_t generation);
    void endWindow(std::int64_t receiveNs);
    void halve();
    double distance(const Line& line, const Point& point) const;
    Line fit(double farthest, const Line& against) const;
    Line line() const;

    // The thread of add().
    bool begun_ = false;
    std::uint32_t generation_ = 0;
    std::int64_t windowNs_ = 0;
    std::int64_t windowStartNs_ = 0;
    Point quickest_;

    mutable std::mutex mutex_;
    std::vector<Point> points_;
    Point origin_;  ///< the first of all, from which lines count
};

}  // namespace lm::xcp
