// The session configuration: what is read, written and read again is the same.
#include "session/session_config.h"

#include "fuzz_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const auto config = session::sessionConfigFromJson(fuzz::Input(data, size).rest(), "/base");
    if (!config) return 0;
    const auto again = session::sessionConfigFromJson(session::sessionConfigToJson(config.value()), "/base");
    fuzz::require(again.ok(), "what was written can be read");
    session::SessionConfig expected = config.value();
    // A serial section without a port means nothing and is not written.
    if (expected.serial.port.empty()) expected.serial = again.value().serial;
    fuzz::require(again.value() == expected, "written and read again it is the same");
    return 0;
}
