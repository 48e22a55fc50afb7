// Undo files and checksum files: what is read and written stays the same when it is read and written again.
#include "fuzz_input.h"
#include "session/checksum_file.h"
#include "session/undo_file.h"

namespace {

template <typename Read, typename Write>
void check(std::string_view text, const Read& read, const Write& write) {
    const auto file = read(text, "FILE");
    if (!file) return lm::fuzz::require(file.error().text().starts_with("FILE: "), "an error names the file");
    const std::string written = write(file.value());
    const auto again = read(written, "FILE");
    lm::fuzz::require(again.ok(), "what was written can be read");
    lm::fuzz::require(write(again.value()) == written, "written again it is the same");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm::session;
    const std::string_view text = lm::fuzz::Input(data, size).rest();
    check(text, undoFileFrom, undoFileText);
    check(text, checksumFileFrom, checksumFileText);
    return 0;
}
