// XCP on a serial line from the slave's side, and the text that an ECU prints on the same line: what it says
// when it starts, a line of diagnostics now and then, and an answer to every line that is typed.
//
// Text leaves in pieces between whole frames, as from an ECU whose output is buffered by bytes. The typed
// line "reset" restarts the ECU. While no one has the line open, everything is dropped.
//
// Threads: the loop's thread alone. Lifetime: the options and the ECU must live as long as the medium.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/ecu.h"
#include "sim/medium.h"
#include "sim/options.h"
#include "sim/serial_frame.h"
#include "sim/serial_line.h"

namespace lm::sim {

class SerialMedium : public IMedium {
  public:
    /// Errors: those of SerialLine::open.
    static Result<std::unique_ptr<SerialMedium>> open(const Options& options, Ecu& ecu);

    const std::string& path() const { return line_->path(); }

    std::vector<pollfd> descriptors() const override;
    Result<void> receive(int descriptor, const Handler& handler) override;
    void send(const Outbox& packets, std::int64_t nowNs) override;
    std::int64_t dueNs() const override;
    Result<void> onDue(std::int64_t nowNs) override;
    Result<void> togglePlug() override;
    const MediumCounters& counters() const override { return counters_; }

  private:
    SerialMedium(const Options& options, Ecu& ecu, std::unique_ptr<SerialLine> line);

    void watchPeer(std::int64_t nowNs);
    void watchEcu(std::int64_t nowNs);
    void forgetPeer();
    void chat(std::int64_t nowNs);
    void say(std::string_view line);
    void onTypedLine(std::string_view line);
    void sendText();
    void sendPacket(const Outbox& packets, const Outbox::Packet& packet);
    void transmit();

    const Options& options_;
    Ecu& ecu_;
    std::unique_ptr<SerialLine> line_;
    FrameReader reader_;
    bool peer_ = false;
    std::uint64_t startsSeen_ = 0;
    std::int64_t readyNs_;           ///< when booting is over and told
    std::int64_t chatNs_;            ///< when the next line of diagnostics is due
    std::uint64_t chats_ = 0;        ///< lines of diagnostics since the program started
    std::int64_t lookNs_ = 0;        ///< when to look next: for a peer, or for room for text
    std::string text_;               ///< not yet on the line
    std::vector<std::uint8_t> out_;  ///< on the line, not yet taken by the system
    std::array<std::uint8_t, 4096> in_{};
    MediumCounters counters_;
};

}  // namespace lm::sim
