// Which parameters differ between two calibration pages: what a user is asked before the ECU goes to another
// one.
//
// Threads: one at a time. Lifetime: everything given is borrowed for the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/page_control.h"

namespace lm::session {

struct PageDifference {
    std::size_t objects = 0;
    std::size_t otherBytes = 0;  ///< that belong to none of these objects

    bool none() const { return objects == 0 && otherBytes == 0; }
    /// "3 parameter(s)", "3 parameter(s) and 2 byte(s) of none"
    std::string text() const;
};

/// Of parameters that lie in the segment as a whole, with all that places them; bytes of others count as
/// such. Errors: those of PageControl::readBoth(), Error::stopped.
Result<PageDifference> comparePages(PageControl& pages, const a2l::Description& description,
                                    const PageOverview& overview, xcp::PagePlace a, xcp::PagePlace b,
                                    const StopToken& stop);

}  // namespace lm::session
