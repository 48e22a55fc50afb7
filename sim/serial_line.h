// The serial line of the simulated ECU: a pseudo-terminal that it makes, or a device.
//
// Of a pseudo-terminal it knows whether anybody has the other end open. Whoever comes back to a pulled line
// finds it under the same name only through the symbolic link.
//
// Threads: the loop's thread alone. Lifetime: the options must live as long as the line.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "core/result.h"
#include "core/unique_fd.h"
#include "sim/options.h"

namespace lm::sim {

class SerialLine {
  public:
    /// Errors: the system's, with the path.
    static Result<std::unique_ptr<SerialLine>> open(const Options& options);
    ~SerialLine();
    SerialLine(const SerialLine&) = delete;
    SerialLine& operator=(const SerialLine&) = delete;

    /// What the master opens: the link, else the pseudo-terminal or device.
    const std::string& path() const { return options_.serialLink.empty() ? device_ : options_.serialLink; }

    /// Plugging a plugged line and pulling a pulled one change nothing. Errors as those of open().
    Result<void> plug();
    void pull();
    bool plugged() const { return descriptor_.valid(); }

    /// For poll(); -1 when it is pulled.
    int descriptor() const { return descriptor_.get(); }
    /// Somebody has the other end open; always true of a plugged device.
    bool isOpenedByPeer() const;

    /// Bytes that have come, 0 when there are none; errors are a peer that has closed.
    Result<std::size_t> read(std::span<std::uint8_t> buffer) const;
    /// How many bytes the system took now, 0 when it has no room.
    Result<std::size_t> write(std::span<const std::uint8_t> bytes) const;

  private:
    explicit SerialLine(const Options& options) : options_(options) {}
    Result<void> makePseudoTerminal();
    Result<void> openDevice();
    Result<void> makeLink() const;

    const Options& options_;
    UniqueFd descriptor_;
    std::string device_;
};

}  // namespace lm::sim
