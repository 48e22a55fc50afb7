// Notices DTOs that are laid out otherwise than planned, where the slave did not tell the layout itself: a
// wrong identification field or timestamp gives wrong values that no counter shows. Looks at the first second
// of DTOs, then costs nothing.
//
// What speaks against a plan: ODTs that no list has, DTOs that are too short, timestamps at another pace than
// the host's clock, DTOs longer than planned. A longer DTO may be filled: a medium that fills frames tells
// which lengths are filled ones (IsFilled). Elsewhere bytes that follow every ODT, with timestamps at the
// right pace, are padding, because a wrong identification field moves the timestamp and a wrong timestamp
// lengthens the first ODT alone.
//
// Threads: on...() on the receive thread; finished() from any; misfit() once finished() or once no DTO comes
// any more. Lifetime: owns all.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace lm::xcp {

class DtoFit {
  public:
    /// Whether a medium may have made a DTO of `planned` bytes `length` bytes long.
    using IsFilled = std::function<bool(std::size_t planned, std::size_t length)>;

    DtoFit(std::size_t lists, std::uint8_t timestampSize, std::int64_t tickNs, IsFilled isFilled);

    void onStranger(std::int64_t hostNs);
    /// `stamp` for those that carry one.
    void onDto(std::size_t list, bool isFirst, std::size_t planned, std::size_t length,
               std::optional<std::uint32_t> stamp, std::int64_t hostNs);

    bool finished() const { return finished_.load(std::memory_order_acquire); }
    /// What does not fit, as a sentence; empty when nothing is known to.
    std::string misfit() const;

  private:
    enum class Pace : std::uint8_t { unknown, right, wrong };
    /// DTOs of one kind: the first ODTs of cycles, or the others.
    struct Lengths {
        std::uint64_t seen = 0;
        std::uint64_t longer = 0;
        std::uint64_t shorter = 0;
        std::size_t planned = 0;  ///< of one that was longer or shorter
        std::size_t length = 0;
    };
    struct LastStamp {
        bool known = false;
        std::uint32_t raw = 0;
        std::int64_t hostNs = 0;
    };

    void count(std::int64_t hostNs);
    void followStamp(LastStamp& last, std::uint32_t raw, std::int64_t hostNs);
    Pace pace() const;

    // Constant after construction.
    std::uint64_t modulus_;
    std::int64_t tickNs_;
    IsFilled isFilled_;

    // Receive thread; any after finished_.
    std::uint64_t dtos_ = 0;
    std::uint64_t strangers_ = 0;
    std::int64_t beginNs_ = 0;
    Lengths first_, later_;
    std::vector<LastStamp> last_;
    std::uint64_t steps_ = 0;
    std::uint64_t jumps_ = 0;  ///< steps that no delay explains
    double hostNs_ = 0;        ///< of the other steps
    double slaveNs_ = 0;

    std::atomic<bool> finished_{false};
};

}  // namespace lm::xcp
