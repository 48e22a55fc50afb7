// What a stream of frames tells beside the records: state, log and writes, so that a page needs one stream.
//
// Threads: the stream thread alone. Lifetime: the chronicles are borrowed.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "http/reply.h"
#include "serve/chronicle.h"

namespace lm::serve {

class StreamNews {
  public:
    using Clock = std::chrono::steady_clock;

    /// `state` must not wait for an ECU or a disk.
    StreamNews(std::function<nlohmann::json()> state, const Chronicle& log, const Chronicle& writes)
        : state_(std::move(state)), log_(log), writes_(writes) {}

    /// What one client was told.
    struct Told {
        bool any = false;
        std::uint64_t log = 0;     ///< the number of the last entry
        std::uint64_t writes = 0;  ///< likewise
        std::string key;           ///< of the state
        std::string state;
        Clock::time_point when{};
    };

    /// Takes up the state as it is now.
    void look();
    /// The first time: the state and the numbers of the last entries; then what is new.
    void tell(http::EventStream& stream, Told& told, Clock::time_point now) const;

  private:
    void tellState(http::EventStream& stream, Told& told, Clock::time_point now) const;

    const std::function<nlohmann::json()> state_;
    const Chronicle& log_;
    const Chronicle& writes_;
    std::string text_;
    std::string key_;  ///< of what counts as a change, and not only as one more record
};

}  // namespace lm::serve
