// Whether an ECU that was connected again holds the parameters that it held before: a reset takes its working
// page away. Calibration segments are compared by the checksums that the ECU computes; what this session
// wrote outside of them, or into an ECU that computes none, by its bytes.
//
// When the state before is taken. A loss is known when it is over, so it is taken ahead: at the start of a
// measurement, while nothing is lost and no sample is due yet; after each write of the session, of the
// segment around it; and after each comparison. In between only the ECU itself can change a parameter, as one
// master is connected to it. Where nothing can be lost nothing is asked: without a reconnection to come, of
// an ECU without calibration, of segments that no one can write.
//
// Threads: any; one waits for the other. Lifetime: master, description and writes are borrowed.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/master_memory.h"
#include "session/page_control.h"
#include "session/session_writes.h"
#include "xcp/master.h"

namespace lm::session {

class ParameterWatch {
  public:
    ParameterWatch(xcp::Master& master, const a2l::Description& description, const SessionWrites& writes,
                   const StopToken& stop);

    /// From now on compare() has something to compare with. What the ECU does not tell is left out.
    void begin();
    void end();
    /// After a write of the session.
    void onWrite(const ObjectBytes& change);

    struct Comparison {
        std::vector<std::string> different = {};  ///< segments, and what else, in words
        /// Objects that hold something else than this session wrote.
        std::vector<ObjectBytes> lost = {};
        std::vector<std::string> unknown = {};  ///< what could not be compared, and why
        bool pagesMoved = false;                ///< XCP is on another page than before
    };
    /// What is found is what the next comparison compares with. Errors: timeouts, Error::stopped; nothing is
    /// taken over then.
    Result<Comparison> compare();
    /// Gives the objects what this session wrote. Each with what was there, or why it failed.
    std::vector<Result<ObjectBytes>> writeAgain(const std::vector<ObjectBytes>& lost);

  private:
    /// A segment, and what the ECU said of it last.
    struct Stock {
        SegmentState segment;
        bool hasSums = true;  ///< the ECU computes them
        std::optional<SegmentSums> sums = {};
        std::optional<Error> error = {};  ///< why there are none
    };

    void takeStock(Stock& stock);
    void compareSegment(const Stock& before, const Stock& now, Comparison& found) const;
    Result<void> compareWrites(Comparison& found);

    xcp::Master& master_;
    const a2l::Description& description_;
    const SessionWrites& writes_;
    PageControl pages_;
    MasterMemory memory_;

    std::mutex mutex_;  // everything below, and the questions to the ECU
    bool isOn_ = false;
    std::vector<Stock> stocks_;
};

}  // namespace lm::session
