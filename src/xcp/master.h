// The XCP master of one connection: sends commands over a transport, waits for their answers with the
// timeouts of the XCP standard, recovers from timeouts (SYNCH and repeat) and busy slaves (wait t7 and
// repeat), reads and writes memory, configures DAQ, and hands DTOs and events on.
//
// Threads: every command may be called from any thread; whole operations (an upload with all its commands, a
// DAQ configuration) are serialised. onPacket and onTransportEvent run on the transport's receive thread.
// requestStop, clearStop, stopRequested, connected, connectInfo and statistics may be called from any thread
// at any time and never wait for a command. Sinks and listeners run on the receive thread and must not call a
// command. Lifetime: the transport is borrowed and must outlive the master, which is its sink from
// construction to destruction and opens it at CONNECT; the destructor closes it. DTO sink and listener are
// borrowed until replaced.
//
// Answers carry no command number. What keeps a late answer from being taken for another command's:
// - An answer that was received before the command was sent is dropped.
// - An answer shorter than its command's layout is set aside while a better one may come; it counts only when
//   nothing else came until the timeout.
// - After a command was repeated, timed out or was given up, the next command is preceded by one SYNCH, whose
//   answer follows whatever was still under way; that SYNCH may stay unanswered. Should an answer still be
//   owed then, the master waits for it for t1 after the last timeout, and for half as long again after the
//   last answer that came: repeats of a slave that is late by more than t1 are answered in steps of t1.
// - Once an answer has come that nobody asked for (a slave that answers twice), every command of the
//   connection is preceded by a SYNCH, until one stays unanswered.
// - ERR_CMD_SYNCH answers still owed, and repetitions of the CONNECT answer after several CONNECTs, are
// dropped.
// - While answers may be under way, CONNECT takes only what reads as a CONNECT answer, and one unlike the
//   last connection's only the second time.
// - A copy of an answer that comes behind the next command reads like that command's answer, and shifts all
//   that follow by one. Nobody can tell when it is taken, but the one left over shows behind the next SYNCH:
//   whoever decides something by answers asks confirm() first and, when they were out of step, asks the slave
//   once more (inStep()).
// A command that is answered in time causes no packet for this but the SYNCH of confirm().
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "xcp/counter.h"
#include "xcp/daq_plan.h"
#include "xcp/packet.h"
#include "xcp/transport.h"

namespace lm::xcp {

class IDtoSink;

struct MasterOptions {
    std::uint64_t t1 = 1000;  ///< XCP timeouts in milliseconds
    std::uint64_t t2 = 1000;
    std::uint64_t t3 = 1000;
    std::uint64_t t4 = 1000;
    std::uint64_t t5 = 1000;
    std::uint64_t t6 = 1000;
    std::uint64_t t7 = 200;             ///< wait before a busy command is repeated
    std::int32_t synchRepeatLimit = 2;  ///< repeats of a timed-out command
    std::int32_t connectAttempts = 3;   ///< below 1: without limit
    std::int32_t busyRepeatLimit = 20;
    bool useShortUpload = true;
};

enum class ConnectMode : std::uint8_t { normal = 0, userDefined = 1 };

struct MasterStatistics {
    std::uint64_t commands = 0;
    std::uint64_t timeouts = 0;
    std::uint64_t errorResponses = 0;
    std::uint64_t unexpectedResponses = 0;  ///< dropped answers
    std::uint64_t events = 0;
    std::uint64_t dtos = 0;
};

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
    virtual void onTransportEvent(const hal::CanChannelEvent& event) = 0;
};

/// Errors of every command: notOpen "XCP slave not connected"; timeout "COMMAND: no response from slave
/// (t1)"; timeout "COMMAND: SYNCH: no response from slave"; the ERR reply of errorReply() with the XCP code
/// in `detail`; closed "COMMAND: stopped" after requestStop(); the transport's own errors unchanged.
class Master final : public IPacketSink {
  public:
    /// What transact() does around one command.
    struct Exchange {
        unsigned timeoutIndex = 0;      ///< 0 for t1 to 6 for t7
        std::size_t minimumLength = 1;  ///< bytes of the shortest positive response that fits the command
        /// Run before a timed-out command is repeated, within the same operation; its error ends the command.
        std::function<Result<void>()> beforeRepeat = {};
    };

    Master(ITransport& transport, const MasterOptions& options);
    ~Master() override;
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

    /// Opens the transport if need be and sends CONNECT until it is answered, at most `attempts` times
    /// (MasterOptions::connectAttempts when not given; below 1 without limit). Further errors: timeout
    /// "CONNECT: no response from slave after N attempt(s)", the parser's, protocolError "CONNECT: MAX_CTO N
    /// exceeds transport packet size M". A failed attempt leaves an earlier connection's state as it was.
    Result<void> connect(ConnectMode mode = ConnectMode::normal, std::optional<std::int32_t> attempts = {});

    /// DISCONNECT; succeeds at once when not connected. A failed DISCONNECT leaves connected() true.
    Result<void> disconnect();
    /// The same in one exchange of t1 at most, also after requestStop(); connected() is false afterwards.
    Result<void> disconnectOnce();
    /// Sends DISCONNECT, also after requestStop(), and does not wait for the answer; clears connected().
    Result<void> disconnectWithoutWaiting();

    Result<SlaveStatus> getStatus();
    Result<CommModeInfo> getCommModeInfo();
    Result<void> synch();
    Result<void> setMta(Address address);

    /// Whether every answer taken since the last call (or CONNECT) was certainly its command's: a SYNCH,
    /// whose answer must follow theirs directly; nothing when no answer was taken. A slave that leaves two of
    /// them unanswered is believed, and not asked again until CONNECT. After requestStop() there is one SYNCH
    /// all the same, whose answer decides: what was read before is not lost.
    Result<bool> confirm();

    /// One command with recovery. The positive response; ERR replies are errors.
    Result<Packet> transact(const Packet& command, const Exchange& exchange);

    /// `size` bytes from the slave's memory. Errors (invalidArgument) "upload size must be a non-zero
    /// multiple of AG", (protocolError) "UPLOAD response shorter than requested".
    Result<std::vector<std::uint8_t>> upload(Address address, std::size_t size);
    /// Errors (invalidArgument) "download size must be a non-zero multiple of AG"; what was written before a
    /// failure stays written.
    Result<void> download(Address address, std::span<const std::uint8_t> bytes);

    /// Asks the slave. Errors: unsupported "slave does not offer the DAQ resource", shortResponse(). A slave
    /// without GET_DAQ_EVENT_INFO gives no `events`.
    Result<DaqCapabilities> daqCapabilities();
    /// Allocates, writes and selects the lists of the plan. Returns the first PID of each list, which the
    /// decoder needs with absolute identification: the slave's own numbers when it tells all of them and
    /// their ranges are disjoint, otherwise the plan's.
    Result<std::vector<std::uint8_t>> configureDaq(const DaqPlan& plan);
    Result<void> startDaq();
    Result<void> stopDaq();
    /// Stop all in one exchange of t1 at most, without SYNCH and repeat, also after requestStop().
    Result<void> stopDaqOnce();
    /// Sends stop all, also after requestStop(), and does not wait for the answer.
    Result<void> stopDaqWithoutWaiting();

    /// Ends every wait of a command at once, the endless CONNECT included; commands fail with closed until
    /// clearStop(). The ...Once and ...WithoutWaiting operations are not affected.
    void requestStop();
    /// From now on EV_CMD_PENDING draws out no command: for a stop that waits for commands which must not be
    /// left half-way.
    void refuseExtensions();
    /// Takes both back.
    void clearStop();
    bool stopRequested() const;

    /// After a CONNECT until DISCONNECT or EV_SESSION_TERMINATED.
    bool connected() const { return connected_.load(); }
    /// What the slave said at the last successful CONNECT; all 0 before it.
    ConnectInfo connectInfo() const;
    MasterStatistics statistics() const;

    /// Installs or (nullptr) removes. Returns when no delivery to the former one is in progress or will
    /// begin; must not be called from a callback.
    void setDtoSink(IDtoSink* sink);
    void setListener(IMasterListener* listener);

    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override;
    void onTransportEvent(const hal::CanChannelEvent& event) override;

  private:
    using Clock = std::chrono::steady_clock;

    static constexpr unsigned kT1 = 0;
    static constexpr std::size_t kConnectLength = 8;

    /// How an exchange judges answers.
    enum class Taking : std::uint8_t {
        any,      ///< any RES or ERR that can be the command's
        synch,    ///< ERR_CMD_SYNCH alone
        confirm,  ///< likewise, also after requestStop()
        connect,  ///< CONNECT's, see the head of this file
        once,     ///< any, but as many answers as may still be owed for earlier commands are set aside first
    };
    enum class Verdict : std::uint8_t { take, setAside, drop };

    /// One command waiting for its answer.
    struct Wait {
        Taking taking = Taking::any;
        std::size_t minimumLength = 1;
        std::int64_t sentNs = 0;
        std::uint64_t extensions = 0;  ///< pendingExtensions_ already granted
        bool active = false;
        bool terminated = false;  ///< the slave ended the session after its response
        std::optional<Packet> response = {};
        std::optional<Packet> aside = {};
        bool asideOwed = false;  ///< `aside` is a known other command's
    };

    /// Answers that may still come although nobody waits for them.
    struct Owed {
        bool possible = false;  ///< the next command drains first
        std::uint32_t answers = 0;
        std::uint32_t synchs = 0;
        std::uint32_t connects = 0;
        Clock::time_point answersUntil = {};
        Clock::time_point connectsUntil = {};
        bool unlikeConnectDropped = false;
        bool surplus = false;  ///< the slave answers more often than it is asked: every command drains first
    };

    /// What confirm() goes by.
    struct Steps {
        bool taken = false;  ///< an answer has counted since
        bool lost = false;   ///< an answer was left over that may be the one of a command that took another's
        bool synchSent = false;
        bool synched = false;               ///< the last exchange was an answered SYNCH
        bool alone = false;                 ///< the last command directly followed one
        std::optional<Packet> answer = {};  ///< to the last command, once a SYNCH followed
        std::size_t minimumLength = 1;      ///< of that answer
        bool withoutSynch = false;          ///< the slave does not answer confirm()
    };

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

    // master.cpp; "locked" means that the command mutex is held.
    static Error stopped(const Packet& command);
    static bool isStop(const Error& error, const Packet& command);
    Result<void> requireConnected() const;
    Clock::duration timeout(unsigned index) const;
    void onEvent(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    Result<void> synchLocked();
    Result<Packet> transactLocked(const Packet& command, const Exchange& exchange);
    Result<void> recoverLocked(const Packet& command, const Exchange& exchange);
    Result<void> commandLocked(const Packet& command);
    Result<Packet> command(const Packet& command, std::size_t minimumLength);
    Result<void> onceLocked(const Packet& command);
    Result<void> sendOnlyLocked(const Packet& command);
    Result<void> acceptConnect(const Packet& response);
    Result<void> pauseBusy(const Packet& command);
    Error errorOf(const Packet& command, const Packet& reply);

    // master_answers.cpp; an exchange without a value timed out.
    Result<std::optional<Packet>> exchange(const Packet& command, unsigned timeoutIndex, Taking taking,
                                           std::size_t minimumLength);
    static bool wantsSynch(Taking taking);
    static bool unstoppable(Taking taking);
    void beginStep(Taking taking);
    bool awaitResponse(std::unique_lock<std::mutex>& lock, Clock::duration limit);
    void onAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    bool takeAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    Verdict judge(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    Verdict judgeConnect(const std::uint8_t* data, std::size_t length);
    void noteOwed(Taking taking);
    bool repeatsConnect(const std::uint8_t* data, std::size_t length) const;
    void expectOwed();
    bool settleOwed(const std::uint8_t* data, std::size_t length);
    void drainLocked();
    void noteSurplus(const std::uint8_t* data, std::size_t length);
    void noteAsideLeftOver();

    // master_memory.cpp
    Result<void> setMtaLocked(Address address);
    Result<std::vector<std::uint8_t>> uploadBlocksLocked(Address address, std::size_t elements);
    /// Appends the data of one answer to `bytes`.
    Result<void> uploadBlockLocked(const Packet& command, const std::function<Result<void>()>& beforeRepeat,
                                   std::vector<std::uint8_t>& bytes);
    std::size_t elementsPerResponse() const;

    // master_daq.cpp
    Result<void> readResolutionLocked(DaqCapabilities& capabilities);
    Result<void> readEventsLocked(DaqCapabilities& capabilities);
    Result<Packet> eventInfoLocked(std::uint16_t channel);
    Result<std::string> eventNameLocked(std::uint16_t channel, std::size_t length);
    Result<void> allocateLocked(const DaqPlan& plan);
    Result<void> writeOdtLocked(std::uint16_t list, std::uint8_t number, const Odt& odt);
    Result<std::vector<std::uint8_t>> selectLocked(const DaqPlan& plan);

    // Constant after construction.
    ITransport& transport_;
    const MasterOptions options_;

    // Command mutex; connection_ is written under both mutexes and so read under either.
    std::mutex commandMutex_;
    bool shortUploadMissing_ = false;
    bool recovering_ = false;        ///< a beforeRepeat action runs
    std::vector<Packet> selection_;  ///< the commands that selected the DAQ lists
    ConnectInfo connection_;

    // Response mutex.
    mutable std::mutex responseMutex_;
    std::condition_variable wakeUp_;
    Wait wait_;
    Owed owed_;
    Steps steps_;
    std::optional<Packet> connectAnswer_;  ///< of the last successful CONNECT
    std::uint64_t pendingExtensions_ = 0;
    bool stopRequested_ = false;
    bool extensionsRefused_ = false;

    // Atomic.
    std::atomic<bool> connected_{false};
    Receiver<IDtoSink> dtoSink_;
    Receiver<IMasterListener> listener_;
    std::atomic<std::uint64_t> commands_{0};
    std::atomic<std::uint64_t> timeouts_{0};
    std::atomic<std::uint64_t> errorResponses_{0};
    std::atomic<std::uint64_t> unexpectedResponses_{0};
    std::atomic<std::uint64_t> events_{0};
    Counter dtos_;  ///< written by the receive thread
};

/// What `step` returns (a Result), once confirm() has shown that all answers it got were its own; run again
/// when they were not, three times in all. Further errors: confirm()'s, and protocolError "the ECU's answers
/// do not fit the commands sent to it".
template <typename Step>
auto inStep(Master& master, const Step& step) -> decltype(step()) {
    constexpr int kMost = 3;
    for (int tried = 1;; ++tried) {
        auto result = step();
        // After silence nothing was decided, and whoever is silent is not asked once more.
        if (!result && result.error().code == ErrorCode::timeout) return result;
        const auto confirmed = master.confirm();
        if (confirmed && confirmed.value()) return result;
        if (!confirmed && result) return confirmed.error();
        if (!confirmed) return result;
        if (tried == kMost) {
            return Error{.code = ErrorCode::protocolError,
                         .message = "the ECU's answers do not fit the commands sent to it"};
        }
    }
}

}  // namespace lm::xcp
