// XCP on a serial line as a medium: the port of the configuration, the text that the ECU prints on the same
// line, and what fits onto it at its baud rate.
//
// Threads and lifetime: those of IMedium.
#pragma once

#include "session/medium.h"

namespace lm::session {

MediumMaker makeSerialMedium;

}  // namespace lm::session
