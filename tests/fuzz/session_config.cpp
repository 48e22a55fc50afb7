// The session configuration: what is read, written and read again is the same.
#include "session/session_config.h"

#include "fuzz_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const auto document = session::configDocumentFromJson(fuzz::Input(data, size).rest(), "/base");
    if (!document) return 0;
    const auto again =
        session::configDocumentFromJson(session::configDocumentToJson(document.value()), "/base");
    fuzz::require(again.ok(), "what was written can be read");
    session::ConfigDocument expected = document.value();
    fuzz::require(again.value().ecus.size() == expected.ecus.size(), "no ECU is lost");
    // A serial section without a port means nothing and is not written.
    if (expected.one.serial.port.empty()) expected.one.serial = again.value().one.serial;
    for (std::size_t i = 0; i < expected.ecus.size(); ++i) {
        if (expected.ecus[i].serial.port.empty()) expected.ecus[i].serial = again.value().ecus[i].serial;
    }
    fuzz::require(again.value() == expected, "written and read again it is the same");
    return 0;
}
