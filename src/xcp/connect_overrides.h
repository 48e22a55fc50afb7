// The answer to CONNECT of a slave that says of itself what is not so, put right before anything reads it.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include "xcp/master_options.h"
#include "xcp/packet.h"

namespace lm::xcp {

/// The answer as it should have been; each difference is logged as a warning. An answer that is too short for
/// parseConnect() stays as it is.
Packet overruled(Packet response, const ConnectOverrides& overrides);

}  // namespace lm::xcp
