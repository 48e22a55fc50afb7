// What the user of the XCP master sets, what it counts, and the clock it waits by.
//
// Threads: plain values; a clock and a key source are called from every thread that sends a command.
// Lifetime: a clock, and what a key source uses, are borrowed and must outlive the master.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "core/result.h"
#include "xcp/packet.h"

namespace lm::xcp {

/// What counts instead of what the slave says at CONNECT.
struct ConnectOverrides {
    std::optional<std::uint8_t> granularity = {};  ///< bytes per address element: 1, 2 or 4
    std::optional<ByteOrder> byteOrder = {};
    std::optional<std::uint16_t> maxDto = {};
};

/// Computes the key of 1 to 255 bytes to the seed of a resource. It may take seconds, in which no other
/// command is sent; a stop must end it.
using KeySource =
    std::function<Result<std::vector<std::uint8_t>>(Resource resource, std::span<const std::uint8_t> seed)>;

struct MasterOptions {
    std::uint64_t t1 = 1000;  ///< XCP timeouts in milliseconds
    std::uint64_t t2 = 1000;
    std::uint64_t t3 = 1000;
    std::uint64_t t4 = 1000;
    std::uint64_t t5 = 1000;
    std::uint64_t t6 = 1000;
    std::uint64_t t7 = 200;             ///< wait before a busy command is repeated
    std::int32_t synchRepeatLimit = 2;  ///< repeats of a timed-out command
    std::int32_t connectAttempts = 3;   ///< below 1: without limit
    std::int32_t busyRepeatLimit = 20;
    bool useShortUpload = true;
    bool ignoreDaqRunningBit = false;  ///< of GET_STATUS: it does not tell whether lists run
    ConnectOverrides overrides = {};
    bool offersWriteDaqMultiple = false;  ///< as the A2L tells: several ODT entries in one command
    /// As the A2L tells MAX_BS and MIN_ST of DOWNLOAD_NEXT, for a slave that does not tell them itself.
    std::pair<std::uint8_t, std::uint8_t> writeBlocks{};
    KeySource keys = {};       ///< none: what is locked stays locked
    std::string keyHint = {};  ///< what to do about a locked resource while there is none
};

enum class ConnectMode : std::uint8_t { normal = 0, userDefined = 1 };

struct MasterStatistics {
    std::uint64_t commands = 0;
    std::uint64_t timeouts = 0;
    std::uint64_t errorResponses = 0;
    std::uint64_t unexpectedResponses = 0;  ///< dropped answers
    std::uint64_t events = 0;
    std::uint64_t dtos = 0;
};

/// The steady clock, or one that a test moves.
class IMasterClock {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~IMasterClock() = default;
    virtual TimePoint now() = 0;
    /// Like std::condition_variable::wait_until: returns when woken, at the time given, or for no reason.
    virtual void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeUp,
                      TimePoint until) = 0;
};

IMasterClock& steadyMasterClock();

}  // namespace lm::xcp
