// The parameter file of this program: what is read and written stays the same when it is read and written
// again.
#include "fuzz_input.h"
#include "params/json_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    std::vector<std::string> warnings;
    const auto set = params::readJson(fuzz::Input(data, size).rest(), warnings);
    if (!set) return 0;
    const std::string written = params::writeJson(set.value());
    const auto again = params::readJson(written, warnings);
    fuzz::require(again.ok(), "what was written can be read");
    fuzz::require(params::writeJson(again.value()) == written, "written again it is the same");
    return 0;
}
