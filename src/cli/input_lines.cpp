#include "cli/input_lines.h"

namespace lm::cli {

bool InputLines::add(std::string_view block) {
    for (;;) {
        const auto end = block.find('\n');
        if (!skipping_) line_ += block.substr(0, end);
        if (line_.size() > kLongest) {
            if (!handOn()) return false;
            skipping_ = true;
        }
        if (end == std::string_view::npos) return true;
        if (!skipping_ && !handOn()) return false;
        skipping_ = false;
        block.remove_prefix(end + 1);
    }
}

void InputLines::finish() {
    if (!line_.empty()) handOn();
}

}  // namespace lm::cli
