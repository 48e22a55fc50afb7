// The XCP master of one connection, the face of this folder: commands with their timeouts and recovery
// (Connection), reading and writing memory (Memory), configuring DAQ (DaqSetup); it hands DTOs and events on.
//
// Threads: every command may be called from any thread; whole operations (an upload with all its commands, a
// DAQ configuration) are serialised. onPacket and onTransportEvent run on the transport's receive thread.
// connected, connectInfo, finishing and statistics may be called from any thread at any time and never wait
// for a command. Sinks and listeners run on the receive thread and must not call a command. Lifetime: the
// transport is borrowed and must outlive the master, which is its sink from construction to destruction and
// opens it at CONNECT; the destructor closes it. DTO sink and listener are borrowed until replaced; the clock
// must outlive the master.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "xcp/calibration_pages.h"
#include "xcp/connection.h"
#include "xcp/counter.h"
#include "xcp/daq_ids.h"
#include "xcp/daq_plan.h"
#include "xcp/daq_queries.h"
#include "xcp/daq_setup.h"
#include "xcp/master_options.h"
#include "xcp/memory.h"
#include "xcp/packet.h"
#include "xcp/transport.h"

namespace lm::xcp {

class IDtoSink;

/// Called on the transport's receive thread; packet bytes are valid during the call only.
class IMasterListener {
  public:
    virtual ~IMasterListener() = default;
    /// An EV packet, EV_CMD_PENDING and EV_SESSION_TERMINATED included; names by eventName().
    virtual void onEvent(std::uint8_t code, const std::uint8_t* packet, std::size_t length,
                         ReceiveTime time) = 0;
    /// A SERV packet.
    virtual void onServiceRequest(std::uint8_t code, const std::uint8_t* packet, std::size_t length) = 0;
    /// A condition of the medium, passed on unchanged.
    virtual void onTransportEvent(const TransportEvent& event) = 0;
};

/// Errors of every command: Connection's.
class Master final : public IPacketSink {
  public:
    /// A stop ends every wait of a command at once, the endless CONNECT included; commands fail with
    /// Error::stopped. The ...Once and ...WithoutWaiting operations and confirm() still work, and wait for t1
    /// in all while the slave is silent.
    Master(ITransport& transport, const MasterOptions& options, StopToken stop = {},
           IMasterClock& clock = steadyMasterClock());
    ~Master() override;
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

    /// Opens the transport if need be and sends CONNECT until it is answered, at most `attempts` times
    /// (MasterOptions::connectAttempts when not given; below 1 without limit). Further errors: timeout
    /// "CONNECT: no response from slave after N attempt(s)", the parser's, protocolError "CONNECT: MAX_CTO N
    /// exceeds transport packet size M". A failed attempt leaves an earlier connection's state as it was.
    /// No attempt waits for longer than `longest`, where it is given.
    Result<void> connect(ConnectMode mode = ConnectMode::normal, std::optional<std::int32_t> attempts = {},
                         std::optional<std::chrono::milliseconds> longest = {});

    /// DISCONNECT; succeeds at once when not connected. A failed DISCONNECT leaves connected() true.
    Result<void> disconnect() { return connection_.disconnect(); }
    /// The same in t1 at most, sent once more after half of it, also after a stop; connected() is
    /// false afterwards.
    Result<void> disconnectOnce() { return connection_.disconnectOnce(); }
    /// Sends DISCONNECT, also after a stop, and does not wait for the answer; clears connected().
    Result<void> disconnectWithoutWaiting() { return connection_.disconnectWithoutWaiting(); }

    Result<SlaveStatus> getStatus();
    Result<CommModeInfo> getCommModeInfo();
    Result<void> synch() { return connection_.synch(); }
    Result<void> setMta(Address address) { return memory_.setMta(address); }

    /// Whether every answer taken since the last call (or CONNECT) was certainly its command's: a SYNCH,
    /// whose answer must follow theirs directly; nothing when no answer was taken. A slave that never
    /// answered one is asked for its status instead. After a stop too: what was read before is not lost.
    Result<bool> confirm() { return connection_.confirm(); }
    /// From now on until CONNECT commands stand between fences of their own; called again, copies of answers
    /// are waited for too.
    void beMoreCareful() { connection_.beMoreCareful(); }

    /// For whole operations of commands that are not known here.
    Result<Connection::Turn> turn() { return connection_.turn(); }
    Packet connectAnswer() const { return connection_.connectAnswer(); }
    std::uint64_t connectionNumber() const { return connection_.number(); }
    const MasterOptions& options() const { return connection_.options(); }
    /// See ITransport.
    void foresee(std::span<const Packet> commands) { connection_.foresee(commands); }

    /// One command with recovery. The positive response; ERR replies are errors.
    Result<Packet> transact(const Packet& command, const Exchange& rules);

    /// GET_SEED, the key of MasterOptions::keys, UNLOCK: lasts until DISCONNECT. Errors: the key source's;
    /// permissionDenied "UNLOCK: the ECU refused the key for RESOURCE and ended the session", after which
    /// the session was opened again if it was the first such; unsupported "there is no key for RESOURCE"
    /// without a source.
    Result<Unlocking> unlock(Resource resource) { return connection_.unlock(resource); }
    bool openedByKey(Resource resource) const { return connection_.openedByKey(resource); }

    /// Before something that must not be left half-way: unlocks what the slave said to be locked, where there
    /// is a source of keys. Writing and configuring DAQ do it themselves.
    Result<void> unlockBefore(Resource resource);

    /// See Memory.
    Result<std::vector<std::uint8_t>> upload(Address address, std::size_t size) {
        return memory_.upload(address, size);
    }
    bool usesShortUpload() const { return memory_.usesShortUpload(); }
    Result<void> download(Address address, std::span<const std::uint8_t> bytes) {
        return memory_.download(address, bytes);
    }

    Result<std::vector<std::uint8_t>> uploadBlocks(Address address, std::size_t size) {
        return memory_.uploadBlocks(address, size);
    }
    bool readsBlocks() const { return memory_.readsBlocks(); }
    Result<void> downloadBlocks(Address address, std::span<const std::uint8_t> bytes) {
        return memory_.downloadBlocks(address, bytes);
    }

    Result<void> modifyBits(Address address, std::uint32_t mask, std::uint32_t bits) {
        return memory_.modifyBits(address, mask, bits);
    }

    /// Pages, identification, checksums. Lives as long as the master.
    CalibrationPages& pages() { return pages_; }

    /// Asks the slave. Errors: unsupported "slave does not offer the DAQ resource", shortResponse(). A slave
    /// without GET_DAQ_EVENT_INFO gives no `events`.
    Result<DaqCapabilities> daqCapabilities() { return readDaqCapabilities(connection_); }
    /// See daq_queries.h.
    Result<DaqParts> glanceAtDaq(DaqCapabilities& capabilities) {
        return xcp::glanceAtDaq(connection_, capabilities);
    }
    Result<DaqParts> askDaqParts(const DaqParts& wanted, DaqCapabilities& capabilities) {
        return xcp::askDaqParts(connection_, wanted, capabilities);
    }
    Result<bool> askDaqLists(DaqCapabilities& capabilities) {
        return xcp::askDaqLists(connection_, capabilities);
    }
    /// See daq_ids.h.
    Result<DaqIdAnswer> askDaqId(std::uint16_t list) { return xcp::askDaqId(connection_, list); }
    Result<void> setDaqId(std::uint16_t list, std::uint32_t id) {
        return xcp::setDaqId(connection_, list, id);
    }
    /// Allocates, writes and selects the lists of the plan. Returns the first PID of each list. Further
    /// errors: protocolError "START_STOP_DAQ_LIST: the ECU's first PIDs ..." when with absolute
    /// identification the slave's own numbers collide.
    Result<std::vector<std::uint8_t>> configureDaq(const DaqPlan& plan, FirstPids source = FirstPids::told) {
        DaqRefusal refusal;
        return daq_.configure(plan, source, refusal);
    }
    /// The same; `refusal` tells what an entry or a list was that could not be set.
    Result<std::vector<std::uint8_t>> configureDaq(const DaqPlan& plan, FirstPids source,
                                                   DaqRefusal& refusal) {
        return daq_.configure(plan, source, refusal);
    }
    Result<void> startDaq() { return daq_.start(); }
    Result<void> stopDaq() { return daq_.stop(); }
    /// Stop all in one exchange of t1 at most, without SYNCH and repeat, also after a stop.
    Result<void> stopDaqOnce() { return connection_.once(buildStopAll()); }
    /// Likewise in a slave that ended the session on its own: CONNECT, stop all, DISCONNECT, t1 in all.
    Result<void> stopDaqUnconnected() { return connection_.onceMore(buildStopAll()); }
    /// Sends stop all, also after a stop, and does not wait for the answer.
    Result<void> stopDaqWithoutWaiting() { return connection_.withoutWaiting(buildStopAll()); }

    /// While the result lives, a stop lets all commands go on, for t1 in all while the slave is silent: for
    /// commands that must not be left half-way.
    [[nodiscard]] Connection::Finishing finishing() { return Connection::Finishing(connection_); }

    /// After a CONNECT until DISCONNECT or EV_SESSION_TERMINATED.
    bool connected() const { return connection_.connected(); }
    /// What the slave said at the last successful CONNECT; all 0 before it.
    ConnectInfo connectInfo() const { return connection_.info(); }
    MasterStatistics statistics() const;

    /// Installs or (nullptr) removes. Returns when no delivery to the former one is in progress or will
    /// begin; must not be called from a callback.
    void setDtoSink(IDtoSink* sink);
    void setListener(IMasterListener* listener);

    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override;
    void onTransportEvent(const TransportEvent& event) override;

  private:
    /// A borrowed receiver that can be removed while the receive thread may be calling it.
    template <typename T>
    class Receiver {
      public:
        template <typename Call>
        void deliver(const Call& call) {
            inProgress_.fetch_add(1);
            if (T* const target = target_.load()) call(*target);
            inProgress_.fetch_sub(1, std::memory_order_release);
        }
        /// Looks again and again instead of being woken: a delivery takes microseconds and there are very
        /// many, a change of the receiver is rare.
        void set(T* target) {
            target_.store(target);
            while (inProgress_.load() != 0)
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }

      private:
        std::atomic<T*> target_{nullptr};
        std::atomic<std::uint32_t> inProgress_{0};
    };

    void onEvent(const std::uint8_t* data, std::size_t length, ReceiveTime time);

    ITransport& transport_;
    Connection connection_;
    Memory memory_;
    CalibrationPages pages_;
    DaqSetup daq_;
    Receiver<IDtoSink> dtoSink_;
    Receiver<IMasterListener> listener_;
    std::atomic<std::uint64_t> events_{0};
    Counter dtos_;  ///< written by the receive thread
};

/// One step of one thread at a time. What `step` returns (a Result), once confirm() has shown that all
/// answers it got were its own; run again when they were not, three times in all. Further errors:
/// confirm()'s, and protocolError "the ECU's answers do not fit the commands sent to it".
template <typename Step>
auto inStep(Master& master, const Step& step) -> decltype(step()) {
    constexpr int kMost = 3;
    for (int tried = 1;; ++tried) {
        auto result = step();
        // After silence or a stop nothing was decided, and who is silent is not asked once more.
        const bool given = !result && (result.error().code == ErrorCode::timeout ||
                                       result.error().code == ErrorCode::closed);
        if (given) return result;
        const auto confirmed = master.confirm();
        if (confirmed && confirmed.value()) return result;
        if (!confirmed && result) return confirmed.error();
        if (!confirmed) return result;
        master.beMoreCareful();
        if (tried == kMost) {
            return Error{.code = ErrorCode::protocolError,
                         .message = "the ECU's answers do not fit the commands sent to it"};
        }
    }
}

}  // namespace lm::xcp
