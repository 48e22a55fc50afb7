// XCP on UDP/IP from the slave's side: one port on 127.0.0.1 and on ::1, answers to the peer that sent
// CONNECT.
//
// Every packet is framed as LEN and CTR (16 bits each, least significant byte first) and its bytes.
//
// Threads: the loop's thread alone. Lifetime: the fault plan must live as long as the medium.
#pragma once

#include <array>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <vector>

#include "core/unique_fd.h"
#include "sim/faults.h"
#include "sim/medium.h"
#include "sim/options.h"

namespace lm::sim {

class UdpMedium : public IMedium {
  public:
    /// Binds both addresses to one port (port 0: one that is free on both); without IPv6 only the first.
    /// Errors: the system's, with "UDP port N".
    static Result<std::unique_ptr<UdpMedium>> open(const Options& options, FaultPlan& faults);

    std::uint16_t port() const { return port_; }

    std::vector<pollfd> descriptors() const override;
    Result<void> receive(int descriptor, const Handler& handler) override;
    void send(const Outbox& packets, std::int64_t nowNs) override;
    std::int64_t dueNs() const override;
    Result<void> onDue(std::int64_t nowNs) override;
    Result<void> togglePlug() override { return {}; }
    const MediumCounters& counters() const override { return counters_; }

  private:
    struct Peer {
        int socket = -1;
        sockaddr_storage address{};
        socklen_t length = 0;
    };
    struct Datagram {
        std::size_t offset;
        std::size_t length;
        std::uint32_t packets;
    };

    UdpMedium(const Options& options, FaultPlan& faults) : options_(options), faults_(faults) {}
    Result<void> bindBoth(std::uint16_t port);
    Result<int> bindOne(int family, std::uint16_t port);
    /// Appends a packet whose header announces `excess` bytes too many.
    void frame(std::span<const std::uint8_t> packet, std::uint16_t excess);
    void closeDatagram();
    void transmit();
    void transmitBatch(std::size_t first, std::size_t count);
    bool waitWritable() const;

    const Options& options_;
    FaultPlan& faults_;
    std::vector<UniqueFd> sockets_;
    std::uint16_t port_ = 0;
    Peer peer_;
    std::uint16_t counter_ = 0;
    std::vector<std::uint8_t> bytes_;     ///< framed packets, datagram after datagram
    std::vector<Datagram> ready_;         ///< closed datagrams in bytes_
    std::size_t openOffset_ = 0;          ///< where the datagram being packed begins
    std::uint32_t openPackets_ = 0;       ///< packets in it
    std::int64_t heldUntilNs_ = 0;        ///< when it has to leave
    std::array<std::uint8_t, 65536> in_;  ///< receive buffer
    MediumCounters counters_;
};

}  // namespace lm::sim
