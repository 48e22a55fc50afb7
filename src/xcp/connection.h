// The line to one slave: one command at a time, each with its answer. Timeouts with SYNCH and repeat, busy
// and pending slaves, fences that show that answers belong to their commands, and a stop that ends it all in
// bounded time. Which answer belongs to which command is the AnswerMatcher's rule; what is sent and how long
// it is waited for is decided here.
//
// Fences. A SYNCH that confirms (confirm()) follows each group of answers by which something is decided;
// while an answer is owed, one goes before the next command. A slave may lose its pointers on SYNCH, so none
// goes between commands of which the later needs what the earlier set up. When the answers are not in step,
// the group is asked for again, each of its commands behind a fence of its own where it needs none before it
// (beMoreCareful()). Whether a slave answers SYNCH shows at the first fence, which also asks for the status
// to learn whether the slave hears at all. A slave that has ever answered a SYNCH must go on doing so. One
// that never did is asked for its status instead, twice, which tells less: that is said once.
//
// Seed & key. With a source of keys the status is asked for after CONNECT, and what a command is locked by is
// unlocked before the command is sent again, twice at most. Between GET_SEED and UNLOCK nothing else is sent;
// after a timeout the round begins again. A slave that refuses a key ends the session: it is opened again,
// once per connect(), and no second key is computed for that resource as long as the connection lives: slaves
// that count wrong keys lock themselves for good.
//
// Stop. Once one is requested commands fail at once; what still goes out (DISCONNECT, stopping DAQ, the last
// confirm(), all that is done while a Finishing lives) waits for t1 in all while the slave is silent.
// EV_CMD_PENDING draws out nothing any more.
//
// Threads: everything from any thread. A Turn holds the others off; onAnswer, onPending, onTerminated come
// from the receive thread and never wait for a command. Lifetime: transport and clock are borrowed and must
// outlive the connection.
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
#include <vector>

#include "core/stop_token.h"
#include "xcp/answer_matcher.h"
#include "xcp/master_options.h"
#include "xcp/packet.h"
#include "xcp/transport.h"

namespace lm::xcp {

/// What is done around one command.
struct Exchange {
    unsigned timeoutIndex = 0;      ///< 0 for t1 to 6 for t7
    std::size_t minimumLength = 1;  ///< bytes of the shortest positive response that fits the command
    /// Run before a timed-out command is repeated, within the same turn; its error ends the command.
    std::function<Result<void>()> beforeRepeat = {};
};

/// Repeats of one command, or of a group that begins again as a whole.
struct Repeats {
    std::int32_t synch = 0;
    std::int32_t busy = 0;
    std::int32_t unlocked = 0;
    bool inStep = false;  ///< nothing timed out, but a SYNCH went out: the group begins again without another
};

/// What a block was answered with, which is not asked for again by itself.
struct TransferAnswer {
    /// As many as were asked for, or less than that after a packet was lost.
    std::vector<Packet> parts;
    bool isWhole = false;
    std::optional<Error> refusal;  ///< an ERR reply
};

/// What became of a resource that was to be unlocked.
enum class Unlocking : std::uint8_t { wasOpen, opened };

/// Errors of every command: notOpen "XCP slave not connected"; timeout "COMMAND: no response from slave
/// (t1)"; timeout "COMMAND: SYNCH: no response from slave"; the ERR reply of errorReply() with the XCP code
/// in `detail`; Error::stopped "COMMAND: stopped"; the transport's own errors unchanged.
class Connection {
  public:
    class Turn;
    class Finishing;

    Connection(ITransport& transport, const MasterOptions& options, StopToken stop, IMasterClock& clock);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Waits until no other operation uses the line.
    Result<Turn> turn();

    /// See Master, which hands these on.
    Result<void> connect(ConnectMode mode, std::int32_t attempts,
                         const std::optional<std::chrono::milliseconds>& longest = {});
    Result<void> disconnect();
    Result<void> disconnectOnce();
    Result<void> disconnectWithoutWaiting();
    Result<void> synch();
    Result<bool> confirm();
    void beMoreCareful();
    /// `command` in one exchange of t1 at most, also after a stop; in another one after an unlock when a
    /// slave with a key says that it is locked.
    Result<void> once(const Packet& command);
    Result<void> withoutWaiting(const Packet& command);
    /// See Master.
    Result<Unlocking> unlock(Resource resource);
    /// Whether a key opened it since CONNECT.
    bool openedByKey(Resource resource) const {
        return (opened_.load() & static_cast<std::uint8_t>(resource)) != 0;
    }
    /// CONNECT, `command`, DISCONNECT in t1 in all: for a slave that ended the session on its own.
    Result<void> onceMore(const Packet& command);

    bool connected() const { return connected_.load(); }
    ConnectInfo info() const;
    /// What the slave answered to CONNECT, byte by byte.
    Packet connectAnswer() const;
    /// See ITransport.
    void foresee(std::span<const Packet> commands) { transport_.foresee(commands); }
    /// How many CONNECTs succeeded: what was learned of the slave holds for one of them.
    std::uint64_t number() const { return number_.load(); }
    const MasterOptions& options() const { return options_; }
    /// Without events and DTOs.
    MasterStatistics statistics() const;

    void onAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time);
    void onPending();
    void onTerminated();

  private:
    using Clock = std::chrono::steady_clock;
    using Kind = AnswerMatcher::Kind;
    enum class Synchs : std::uint8_t { unknown, answered, never };

    // block_exchange.cpp; the command mutex is held.
    Result<TransferAnswer> exchangeBlock(std::span<const Packet> packets, const AnswerParts& parts,
                                         Clock::duration pause);

    // connection.cpp; the command mutex is held.
    static Error stopped(const Packet& command);
    static bool needsWhatWasBefore(const Packet& command);
    Result<Packet> transact(const Packet& command, const Exchange& rules);
    Result<std::optional<Packet>> attempt(const Packet& command, const Exchange& rules, Repeats& repeats);
    Result<void> recover(const Packet& command, const Exchange& rules, Repeats& repeats);
    Result<void> pauseBusy(const Packet& command);
    Error errorOf(const Packet& command, const Packet& reply);
    Result<std::optional<Packet>> attemptInGroup(const Packet& command, std::size_t minimumLength,
                                                 Repeats& repeats);
    Result<void> open(ConnectMode mode, std::int32_t attempts,
                      const std::optional<std::chrono::milliseconds>& longest = {});
    Result<void> accept(const Packet& response);
    Result<std::optional<Packet>> lastWords(const Packet& command, Clock::duration limit);
    Result<void> judgeLast(const Packet& command, const Result<std::optional<Packet>>& answer);

    // unlock.cpp; the command mutex is held.
    void askWhatIsLocked();
    Result<void> unlockBefore(Resource resource);
    Result<bool> unlockFor(const Packet& command, Error locked, Repeats& repeats);
    Result<Unlocking> unlockHeld(Resource resource);
    Result<std::optional<Unlocking>> tryUnlock(Resource resource, Repeats& repeats);
    Result<std::optional<std::vector<std::uint8_t>>> fetchSeed(Resource resource, Repeats& repeats);
    Result<bool> presentKey(Resource resource, std::span<const std::uint8_t> key, Repeats& repeats);
    Error keyRefused(Resource resource);

    // fences.cpp; the command mutex is held.
    Result<void> fence();
    Result<void> fenceBefore(const Packet& command);
    bool isClear();
    bool isAtFence();
    bool provedLate();
    bool isInStep();
    std::uint64_t pendingsSoFar();
    Result<void> sendSynchs();
    Result<void> meet();
    Result<void> calmDown();
    bool staysSilent(Clock::time_point since);
    Result<bool> confirmByStatus();
    void awaitCopy();

    // exchange.cpp
    Result<std::optional<Packet>> exchange(const Packet& command, Clock::duration limit, Kind kind,
                                           std::size_t minimumLength);
    Result<std::optional<Packet>> exchange(std::span<const Packet> packets, Clock::duration limit, Kind kind,
                                           const AnswerParts& parts,
                                           Clock::duration pause = Clock::duration::zero());
    Result<void> sendAll(std::unique_lock<std::mutex>& lock, std::span<const Packet> packets,
                         Clock::duration pause);
    bool await(std::unique_lock<std::mutex>& lock, Clock::duration limit, Kind kind, std::uint64_t pendings);
    // The answer mutex is held.
    bool stopping();
    bool mayGoOn() const { return !stop_.requested() || finishing_ != 0; }
    bool patienceEnded() { return stopping() && silence_ >= timeout(kT1); }

    static constexpr unsigned kT1 = 0;  ///< the index of the timeout of most commands
    Clock::duration timeout(unsigned index) const;
    std::int64_t nowNs();

    // Constant after construction.
    ITransport& transport_;
    const MasterOptions options_;
    const StopToken stop_;
    IMasterClock& clock_;

    // Command mutex; info_ is written under both mutexes and so read under either.
    std::mutex commandMutex_;
    Synchs synchs_ = Synchs::unknown;
    int care_ = 0;  ///< 1: each command that can be behind a fence is; 2: and copies are waited for
    ConnectInfo info_;
    Packet connectAnswer_;
    // Bits of Resource.
    std::uint8_t locked_ = 0;   ///< as the slave said last
    std::uint8_t refused_ = 0;  ///< of which it refused a key
    bool reopened_ = false;     ///< after a key was refused
    std::uint64_t synchsSent_ = 0;
    Packet refusal_;  ///< the ERR reply that came last

    // Answer mutex.
    mutable std::mutex answerMutex_;
    std::condition_variable wakeUp_;
    AnswerMatcher matcher_;
    Clock::time_point lastCame_ = {};  ///< any RES or ERR
    std::uint64_t pendings_ = 0;
    bool terminated_ = false;  ///< the slave ended the session after the answer that is being looked at
    int finishing_ = 0;        ///< how many live
    std::optional<Clock::time_point> stopAt_;  ///< when a stop was seen
    Clock::duration silence_{0};  ///< waited for nothing since the stop, or since the answer after it

    // Atomic.
    std::atomic<std::uint8_t> opened_{0};  ///< bits of Resource: by a key, since CONNECT
    std::atomic<bool> connected_{false};
    std::atomic<std::uint64_t> number_{0};
    std::atomic<std::uint64_t> commands_{0};
    std::atomic<std::uint64_t> timeouts_{0};
    std::atomic<std::uint64_t> errorResponses_{0};
    std::atomic<std::uint64_t> unexpectedResponses_{0};

    const StopCallback wakeOnStop_;  ///< last: it uses the others
};

/// The right to send commands, for as long as one operation lasts. Borrows the connection.
class Connection::Turn {
  public:
    ~Turn() {
        if (lock_.owns_lock()) connection_->transport_.operationEnded();
    }
    Turn(Turn&&) = default;
    Turn& operator=(Turn&&) = delete;

    /// One command with recovery. The positive response; ERR replies are errors.
    Result<Packet> transact(const Packet& command, const Exchange& rules = {}) {
        return connection_->transact(command, rules);
    }
    Result<void> perform(const Packet& command) {
        if (auto reply = transact(command); !reply) return reply.error();
        return {};
    }
    /// Likewise for a command of a group that cannot be repeated on its own: nothing when it timed out and a
    /// SYNCH was answered since, so that the group can begin again.
    Result<std::optional<Packet>> attempt(const Packet& command, std::size_t minimumLength, Repeats& repeats);

    /// For a question that may stay open: nothing, and no warning, when it timed out and a SYNCH was answered
    /// since.
    Result<std::optional<Packet>> askOnce(const Packet& command, std::size_t minimumLength);

    /// A command of one or several packets with a pause between them, and all the packets that answer it.
    /// What failed, an ERR reply or fewer packets than there should be, is no error here.
    Result<TransferAnswer> exchangeBlock(std::span<const Packet> packets, const AnswerParts& parts,
                                         std::chrono::microseconds pause = {}) {
        return connection_->exchangeBlock(packets, parts, pause);
    }
    /// Since the answers were not in step, each command stands on its own.
    bool isCareful() const { return connection_->care_ != 0; }

    /// Before commands that belong to a resource: unlocks it when it is locked and there is a source of keys.
    Result<void> unlockBefore(Resource resource) { return connection_->unlockBefore(resource); }

    /// The ERR reply that came last: some tell more than their code.
    const Packet& refusal() const { return connection_->refusal_; }
    /// What the slave said at CONNECT.
    const ConnectInfo& slave() const { return connection_->info_; }
    std::uint64_t connectionNumber() const { return connection_->number(); }
    /// Of a command that failed with a timeout: after each repeat but the last one the slave answered.
    bool answeredAllSynchs(const Repeats& repeats) const {
        return repeats.synch > 0 && repeats.synch >= connection_->options_.synchRepeatLimit;
    }
    /// Answers so far that came too late or were nobody's.
    std::uint64_t droppedAnswers() const { return connection_->unexpectedResponses_.load(); }
    bool mayUseShortUpload() const { return connection_->options_.useShortUpload; }
    bool mayWriteDaqMultiple() const { return connection_->options_.offersWriteDaqMultiple; }

  private:
    friend class Connection;
    Turn(Connection& connection, std::unique_lock<std::mutex> lock)
        : connection_(&connection), lock_(std::move(lock)) {}

    Connection* connection_;
    std::unique_lock<std::mutex> lock_;
};

/// While one lives, commands go on after a stop. Borrows the connection.
class Connection::Finishing {
  public:
    explicit Finishing(Connection& connection) : connection_(connection) { add(1); }
    ~Finishing() { add(-1); }
    Finishing(const Finishing&) = delete;
    Finishing& operator=(const Finishing&) = delete;

  private:
    void add(int count) {
        const std::lock_guard lock(connection_.answerMutex_);
        connection_.finishing_ += count;
    }
    Connection& connection_;
};

}  // namespace lm::xcp
