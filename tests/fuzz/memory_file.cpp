// Memory images, Intel HEX and S-records: what was read and written in either form is read as the same bytes,
// and written again it is the same text.
#include "params/memory_file.h"

#include <string>

#include "fuzz_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const auto file = params::parseMemoryFile(fuzz::Input(data, size).rest());
    if (!file) {
        fuzz::require(!file.error().hint.empty(), "the error says what mends it");
        return 0;
    }
    for (const params::MemoryForm form : {params::MemoryForm::intelHex, params::MemoryForm::sRecord}) {
        const std::string text = params::memoryFileText(file.value(), form, 2);
        const auto again = params::parseMemoryFile(text);
        fuzz::require(again.ok(), "what was written can be read");
        fuzz::require(again.value().runs() == file.value().runs(), "the same bytes");
        fuzz::require(params::memoryFileText(again.value(), form, 2) == text, "the same text");
    }
    for (const params::MemoryRun& run : file.value().runs()) {
        fuzz::require(file.value().at(run.address, run.bytes.size()).size() == run.bytes.size(),
                      "all of a run");
        fuzz::require(file.value().firstMissing(run.address, run.bytes.size() + 1) == run.end(),
                      "no more of it");
    }
    return 0;
}
