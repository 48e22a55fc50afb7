// A serial port of Linux (USB adapters, CDC ACM devices, UARTs, pseudo-terminals) in raw mode, 8N1 without
// flow control, at an arbitrary baud rate.
//
// Threads: open, setBaud and close belong to the owner and must not run beside any other operation; between
// them one thread may read while another writes. Lifetime: owns its descriptor; buffers are borrowed during
// the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm::hal {

class SerialPort {
  public:
    SerialPort() = default;
    ~SerialPort() { close(); }
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    /// Opens exclusively and discards what waits in both directions; an open port is closed first. Errors,
    /// after which the port is closed: notFound, permissionDenied (with what to do about it) or ioError
    /// "cannot open PATH: ..." (EBUSY: another program has the port); ioError "PATH is not a serial port";
    /// "cannot configure PATH: " and the reason.
    Result<void> open(const std::string& path, std::uint32_t baud);

    /// Sets both directions to `baud` bit/s. Errors: invalidArgument "baud rate 0"; by errno "cannot read the
    /// line settings: ..." and "cannot set N baud: ..."; notOpen "serial port not open".
    Result<void> setBaud(std::uint32_t baud);

    /// Waits up to `timeoutMs` for input and gives the number of bytes read; 0 when the time ran out or a
    /// signal came. Errors: notOpen "serial port not open", closed "PATH: port gone", by errno "PATH: poll:
    /// ..." and "PATH: read: ...".
    Result<std::size_t> read(std::uint8_t* buffer, std::size_t capacity, int timeoutMs);

    /// Writes everything, or as much as the port takes before it accepts nothing for kWriteLimitMs. Errors:
    /// notOpen "serial port not open", timeout "PATH: output blocked", closed "PATH: port gone", by errno
    /// "PATH: poll: ..." and "PATH: write: ...".
    Result<void> write(const std::uint8_t* data, std::size_t length);

    /// Idempotent. Output that the port still accepts is sent; blocked output is dropped.
    void close();

    bool isOpen() const { return descriptor_.valid(); }
    const std::string& path() const { return path_; }

    static constexpr int kWriteLimitMs = 1000;

  private:
    Result<void> claim();
    Result<void> configure(std::uint32_t baud);
    Result<void> waitForRoom();

    UniqueFd descriptor_;
    std::string path_;
    bool outputBlocked_ = false;  ///< the writing thread's; read by close
};

/// The serial ports in a device directory, sorted: its entries named ttyUSB* and ttyACM*, and the links in
/// its serial/by-id. What cannot be listed is left out.
std::vector<std::string> listPorts(const std::filesystem::path& devices = "/dev");

}  // namespace lm::hal
