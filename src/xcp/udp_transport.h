// XCP on Ethernet over UDP/IP: one connected socket to the slave, a header of LEN and CTR (16 bits each,
// little-endian) in front of every packet, and a receive thread "xcp-udp-rx" that splits datagrams into
// packets.
//
// Threads: open, close and setSink belong to the owner and must not run at the same time; send may be called
// from any thread; statistics from any thread. The sink is called on the receive thread. Lifetime: the sink
// is borrowed, set while the transport is closed, and must outlive it or be replaced first.
#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <string>
#include <thread>

#include "core/unique_fd.h"
#include "xcp/counter.h"
#include "xcp/transport.h"

namespace lm::xcp {

struct UdpTransportConfig {
    std::string host = {};  ///< name or address (IPv4 or IPv6)
    std::uint16_t port = 5555;
    std::size_t maxPacketSize = 65503;  ///< bytes without header
};

/// Totals since construction.
struct UdpStatistics {
    std::uint64_t datagrams = 0;
    std::uint64_t packets = 0;
    std::uint64_t malformedDatagrams = 0;
    std::uint64_t counterGaps = 0;  ///< packets whose counter did not follow the one before
    /// Packets that the counter skipped and that did not come late: one that does is taken back.
    std::uint64_t missingPackets = 0;
    std::uint64_t kernelDrops = 0;  ///< datagrams that found the socket's receive buffer full
};

class UdpTransport final : public ITransport {
  public:
    explicit UdpTransport(UdpTransportConfig config);
    ~UdpTransport() override;
    UdpTransport(const UdpTransport&) = delete;
    UdpTransport& operator=(const UdpTransport&) = delete;

    void setSink(IPacketSink* sink) override { sink_.store(sink); }

    /// Opens the socket again when the last send on it failed: it is bound to an address of the host, which
    /// may have changed with the network. Errors: invalidArgument "XCP on UDP: no host configured"; notFound
    /// "XCP on UDP: cannot resolve HOST:
    /// ..."; by errno "XCP on UDP: cannot open socket to HOST:PORT: ...".
    Result<void> open() override;

    /// From any state and any number of times; wakes the receive thread at once.
    void close() override;

    /// One datagram with one packet. Errors: notOpen "XCP on UDP: transport not started", invalidArgument
    /// "XCP packet too large for the transport", by errno "XCP on UDP: send: ...".
    Result<void> send(const std::uint8_t* data, std::size_t length) override;

    std::size_t maxPacketSize() const override { return config_.maxPacketSize; }

    UdpStatistics statistics() const;

    struct AddressesFreed {
        void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
    };
    using AddressList = std::unique_ptr<addrinfo, AddressesFreed>;

  private:
    class Batch;

    Result<void> openSocket();
    Result<void> startReceiving();
    void receiveLoop(std::unique_ptr<Batch> batch);
    void onBatch(Batch& batch, std::size_t count);
    void onDatagram(const std::uint8_t* data, std::size_t size, ReceiveTime time);
    void checkCounter(std::uint16_t counter);
    void noteMissing(std::uint16_t counter);
    void noteKernelDrops(std::uint32_t total);
    void report(const TransportEvent& event);

    const UdpTransportConfig config_;
    std::atomic<IPacketSink*> sink_{nullptr};

    // Set by open and close; constant while the receive thread runs.
    UniqueFd socket_;
    UniqueFd wakeUp_;
    AddressList addresses_;  ///< of the host, once it was found
    std::thread thread_;

    std::atomic<bool> running_{false};
    std::atomic<bool> stale_{false};  ///< a send failed

    std::mutex sendMutex_;  ///< also keeps close from taking the socket away under a send
    std::uint16_t sendCounter_ = 0;

    // Receive thread only (open resets them before it starts).
    bool counterSeen_ = false;
    std::uint16_t lastCounter_ = 0;
    /// A packet that lies further behind is not late: its ECU began again. Some datagrams of many packets.
    static constexpr std::uint16_t kLate = 256;
    std::uint16_t newestCounter_ = 0;
    std::bitset<kLate> arrived_;  ///< of the last kLate counters, each at its remainder
    std::uint32_t lastKernelDrops_ = 0;

    // Written by the receive thread.
    Counter datagrams_, packets_, malformedDatagrams_, counterGaps_, missingPackets_, kernelDrops_;
};

}  // namespace lm::xcp
