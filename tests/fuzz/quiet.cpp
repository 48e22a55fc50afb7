// Linked into every fuzz target: what the code under test would log is of no interest, and costs time.
#include <spdlog/spdlog.h>

namespace {

const bool kQuiet = [] {
    spdlog::set_level(spdlog::level::off);
    return true;
}();

}  // namespace
