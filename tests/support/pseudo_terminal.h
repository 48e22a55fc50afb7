// A pseudo-terminal whose other side a test plays: what the port under test writes is read here and the other
// way round. Closing it is to the port as if its adapter was pulled.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>

namespace lm::test {

class PseudoTerminal {
  public:
    PseudoTerminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        char name[64];
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
            ::ptsname_r(master_, name, sizeof name) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        path_ = name;
    }
    ~PseudoTerminal() { pull(); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    const std::string& path() const { return path_; }

    /// Of the test's side; what it tells of the settings is the port's.
    int descriptor() const { return master_; }

    void pull() {
        if (master_ >= 0) ::close(master_);
        master_ = -1;
    }

    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t count = ::write(master_, bytes.data(), bytes.size());
            if (count < 0 && errno != EINTR) throw std::runtime_error(std::strerror(errno));
            if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    /// Waits for `length` bytes; fewer when the port is closed before.
    std::string read(std::size_t length) {
        std::string bytes(length, '\0');
        std::size_t have = 0;
        while (have < length) {
            const ssize_t count = ::read(master_, bytes.data() + have, length - have);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) break;
            have += static_cast<std::size_t>(count);
        }
        bytes.resize(have);
        return bytes;
    }

  private:
    int master_;
    std::string path_;
};

}  // namespace lm::test
