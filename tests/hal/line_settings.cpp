#include "hal/line_settings.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>

namespace lm::test {

std::string lineSpeed(int terminal) {
    termios2 settings{};
    if (::ioctl(terminal, TCGETS2, &settings) != 0) return "unknown";
    return ((settings.c_cflag & CBAUD) == BOTHER ? "other " : "standard ") +
           std::to_string(settings.c_ispeed) + " " + std::to_string(settings.c_ospeed);
}

}  // namespace lm::test
