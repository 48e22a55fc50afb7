// A whole session against a slave that answers in order, under every schedule of halts, lost, doubled and
// late answers: no wrong value counts, no byte is written but the ones meant, and all ends in time. The clock
// moves only when the master waits.
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <random>

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include "support/model_slave.h"
#include "support/virtual_clock.h"
#include "xcp/master.h"

namespace lm::xcp {
namespace {

using test::ModelSlave;
using Bytes = std::vector<std::uint8_t>;

constexpr std::int64_t kT1 = 100'000'000;

enum class Kind : std::uint8_t { none, halt, lost, unheard, doubled, late, silent, deaf, pending };

struct Fault {
    Kind kind = Kind::none;
    std::size_t command = 0;   ///< from 0
    std::int64_t ns = 0;       ///< how long or late
    std::int64_t pauseNs = 0;  ///< between the answers after a halt
    std::size_t count = 1;     ///< of SYNCHs that a deaf slave does not answer
};

/// Carries packets both ways, in order, and makes the faults.
class Wire final : public ITransport {
  public:
    Wire(test::VirtualClock& clock, std::vector<Fault> faults) : clock_(clock), faults_(std::move(faults)) {}

    ModelSlave slave;
    std::size_t packets = 0;
    std::function<void()> onPacket = [] {};

    void setSink(IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override {}
    std::size_t maxPacketSize() const override { return 254; }

    Result<void> send(const std::uint8_t* data, std::size_t length) override {
        Fault fault;
        for (const Fault& one : faults_) {
            if (one.command == packets) act(one, fault);
        }
        ++packets;
        onPacket();
        if (silent_ || fault.kind == Kind::unheard) return {};
        Bytes answer = slave.answer({data, length});
        const bool synch = data[0] == 0xFC;
        if (synch && deaf_ > 0) {
            --deaf_;
            return {};
        }
        if (answer.empty() || fault.kind == Kind::lost) return {};
        if (fault.kind == Kind::late) freeNs_ = std::max(freeNs_, clock_.nowNs()) + fault.ns;
        emit(answer);
        if (fault.kind == Kind::doubled) {
            freeNs_ = std::max(freeNs_, clock_.nowNs()) + fault.ns;
            emit(answer);
        }
        return {};
    }

    void keepPending() {
        clock_.at(clock_.nowNs() + kT1 / 2, [this] {
            deliver({kPidEvent, kEvCmdPending});
            keepPending();
        });
    }

  private:
    void act(const Fault& one, Fault& fault) {
        if (one.kind == Kind::halt) {
            freeNs_ = std::max(freeNs_, clock_.nowNs() + one.ns);
            pauseNs_ = one.pauseNs;
        } else if (one.kind == Kind::silent || one.kind == Kind::pending) {
            silent_ = true;
            if (one.kind == Kind::pending) keepPending();
        } else if (one.kind == Kind::deaf) {
            deaf_ = one.count;
        } else {
            fault = one;
        }
    }
    void deliver(const Bytes& packet) { sink_->onPacket(packet.data(), packet.size(), {clock_.nowNs(), 0}); }
    void emit(const Bytes& packet) {
        const std::int64_t due = std::max(clock_.nowNs(), freeNs_);
        if (due == clock_.nowNs() && waiting_ == 0) return deliver(packet);
        ++waiting_;
        clock_.at(due, [this, packet] {
            --waiting_;
            deliver(packet);
        });
        if (due > clock_.nowNs()) freeNs_ = due + pauseNs_;
    }

    test::VirtualClock& clock_;
    const std::vector<Fault> faults_;
    IPacketSink* sink_ = nullptr;
    std::int64_t freeNs_ = 0;
    std::int64_t pauseNs_ = 0;
    std::size_t waiting_ = 0;
    std::size_t deaf_ = 0;
    bool silent_ = false;
};

struct Figures {
    std::uint64_t runs = 0, values = 0, wrong = 0, outside = 0, failures = 0;
    double longest = 0;  ///< operation, in t1
};

/// connect, capabilities, get in a group by SHORT_UPLOAD and by UPLOAD, set of four bits, configuration and
/// start.
class Session {
  public:
    Session(std::vector<Fault> faults, bool clearing, Figures& figures)
        : figures_(figures),
          wire_(clock_, std::move(faults)),
          master_(wire_, options(), stop_.token(), clock_) {
        wire_.slave.synchClearsPointers = clearing;
        ++figures_.runs;
    }

    std::size_t run() {
        timed([this] { return note(master_.connect()); });
        timed([this] { capabilities(); });
        for (const std::size_t size : {std::size_t{2}, std::size_t{9}})
            timed([this, size] { get(size); });
        timed([this] { set(); });
        timed([this] { get(2); });
        timed([this] { configure(); });
        return wire_.packets;
    }
    Wire& wire() { return wire_; }
    Master& master() { return master_; }
    StopSource& stop() { return stop_; }
    test::VirtualClock& clock() { return clock_; }

  private:
    static MasterOptions options() {
        return {.t1 = 100, .t2 = 100, .t3 = 100, .t4 = 100, .t5 = 100, .t6 = 100, .t7 = 20};
    }
    template <typename Operation>
    void timed(const Operation& operation) {
        const std::int64_t begin = clock_.nowNs();
        operation();
        figures_.longest = std::max(figures_.longest, static_cast<double>(clock_.nowNs() - begin) / kT1);
    }
    template <typename T>
    bool note(const Result<T>& result) {
        if (!result) ++figures_.failures;
        return result.ok();
    }
    void check(bool right) {
        ++figures_.values;
        if (!right) ++figures_.wrong;
    }
    bool holds(std::uint32_t address, std::span<const std::uint8_t> bytes) const {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] != wire_.slave.memory(address + static_cast<std::uint32_t>(i))) return false;
        }
        return true;
    }

    void capabilities() {
        auto read = inStep(master_, [this] { return master_.daqCapabilities(); });
        if (!note(read)) return;
        capabilities_ = std::move(read).value();
        check(capabilities_->events.size() == ModelSlave::kEvents);
        for (const EventChannel& event : capabilities_->events)
            check(event.name == ModelSlave::kEventName && event.cycleNs == 10'000'000);
    }

    void get(std::size_t size) {
        std::vector<Result<Bytes>> all;
        const std::uint32_t addresses[] = {0x100, 0x120, 0x140};
        const auto sure = inStep(master_, [&]() -> Result<void> {
            all.clear();
            for (const std::uint32_t address : addresses)
                all.push_back(master_.upload({address, 0}, size));
            return {};
        });
        if (!note(sure)) return;
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (note(all[i])) check(all[i].value().size() == size && holds(addresses[i], all[i].value()));
        }
    }

    /// The low four bits of a word become 2.
    void set() {
        constexpr std::uint32_t kAddress = 0x200;
        const auto reading = [&] { return master_.upload({kAddress, 0}, 2); };
        auto held = inStep(master_, reading);
        if (note(held)) {
            Bytes bytes = std::move(held).value();
            bytes[0] = static_cast<std::uint8_t>((bytes[0] & 0xF0U) | 2U);
            if (note(master_.download({kAddress, 0}, bytes))) {
                const auto readBack = inStep(master_, reading);
                if (note(readBack)) check(readBack.value() == bytes && holds(kAddress, bytes));
            }
        }
        const ModelSlave untouched;
        for (const auto& [address, byte] : wire_.slave.written) {
            const bool bitsStay = address == kAddress && (byte ^ untouched.memory(address)) < 0x10;
            if (!bitsStay && byte != untouched.memory(address)) ++figures_.outside;
        }
    }

    void configure() {
        if (!capabilities_ || capabilities_->events.empty()) return;
        const DaqSignal signals[] = {
            {{0x300, 0}, 4, 0}, {{0x310, 0}, 4, 0}, {{0x320, 0}, 2, 1}, {{0x330, 0}, 1, 1}};
        const auto plan = planDaq(signals, *capabilities_, {.maxDto = 14});
        if (!plan) return check(false);
        if (!note(inStep(master_, [&] { return master_.configureDaq(plan.value()); }))) return;
        std::map<ModelSlave::Entry, std::uint32_t> expected;
        for (std::size_t list = 0; list < plan.value().lists.size(); ++list) {
            const auto& odts = plan.value().lists[list].odts;
            for (std::size_t odt = 0; odt < odts.size(); ++odt) {
                for (std::size_t entry = 0; entry < odts[odt].entries.size(); ++entry)
                    expected[{list, odt, entry}] = odts[odt].entries[entry].address.address;
            }
        }
        check(wire_.slave.entries == expected);
        if (note(master_.startDaq())) check(wire_.slave.running);
    }

    Figures& figures_;
    test::VirtualClock clock_;
    Wire wire_;
    StopSource stop_ = StopSource::create().value();
    Master master_;
    std::optional<DaqCapabilities> capabilities_;
};

/// Packets of the session without faults.
std::size_t packets(bool clearing) {
    Figures figures;
    const std::size_t count = Session({}, clearing, figures).run();
    EXPECT_EQ(figures.failures, 0U);
    EXPECT_EQ(figures.wrong, 0U);
    return count;
}

void print(const char* name, const Figures& figures) {
    std::printf(
        "%-34s runs %8llu  values %9llu  wrong %llu  outside %llu  refused %llu\n", name,
        static_cast<unsigned long long>(figures.runs), static_cast<unsigned long long>(figures.values),
        static_cast<unsigned long long>(figures.wrong), static_cast<unsigned long long>(figures.outside),
        static_cast<unsigned long long>(figures.failures));
}

void expectSound(const char* name, const Figures& figures) {
    print(name, figures);
    EXPECT_EQ(figures.wrong, 0U) << name;
    EXPECT_EQ(figures.outside, 0U) << name;
}

/// XCPLUMO_SCHEDULES=1: all of them, some minutes; else every N-th of each kind.
std::size_t stride(std::size_t usual) {
    return std::getenv("XCPLUMO_SCHEDULES") != nullptr ? 1 : usual;
}

class AnswerSchedules : public ::testing::Test {
  protected:
    void SetUp() override { spdlog::set_level(spdlog::level::off); }
    void TearDown() override { spdlog::set_level(spdlog::level::info); }
};

constexpr std::pair<Kind, const char*> kSingle[] = {{Kind::none, "halted"},
                                                    {Kind::lost, "halted with one lost"},
                                                    {Kind::unheard, "halted with one not heard"},
                                                    {Kind::doubled, "halted with one doubled"},
                                                    {Kind::late, "halted with one late"}};

TEST_F(AnswerSchedules, HaltsAtEveryCommandBesideAnotherFault) {
    for (const bool clearing : {false, true}) {
        const std::size_t count = packets(clearing);
        for (const auto& [kind, name] : kSingle) {
            Figures figures;
            const std::size_t step = stride(kind == Kind::none ? 7 : 397);
            std::size_t turn = 0;
            const auto others = kind == Kind::none ? 1 : count + 4;
            for (std::size_t position = 0; position < count; ++position) {
                for (std::int64_t tenths = 3; tenths <= 120; ++tenths) {
                    for (std::size_t other = 0; other < others; ++other) {
                        for (const std::int64_t pause : {std::int64_t{0}, kT1 / 4}) {
                            if (++turn % step != 0) continue;
                            const std::int64_t delay = kind == Kind::late ? kT1 * 3 / 2 : kT1 / 50;
                            Session({{.kind = Kind::halt,
                                      .command = position,
                                      .ns = tenths * kT1 / 10,
                                      .pauseNs = pause},
                                     {.kind = kind, .command = other, .ns = delay}},
                                    clearing, figures)
                                .run();
                        }
                    }
                }
            }
            expectSound((std::string(name) + (clearing ? ", pointers cleared" : "")).c_str(), figures);
        }
    }
}

/// Two or three faults at any moments, of any lengths; while answers come less than t1 apart where one is
/// doubled. What is not promised is told only.
TEST_F(AnswerSchedules, FaultsAtRandom) {
    const struct {
        const char* name;
        std::vector<Kind> kinds;
        std::size_t latest;  ///< in tenths of t1, but for halts
        std::size_t longestPause;
        bool promised;
    } rows[] = {
        {"two halts", {Kind::halt, Kind::halt}, 30, 10, true},
        {"halt, lost, not heard", {Kind::halt, Kind::lost, Kind::unheard}, 30, 10, true},
        {"halt, late, late", {Kind::halt, Kind::late, Kind::late}, 30, 10, true},
        {"halt, doubled later", {Kind::halt, Kind::doubled}, 5, 6, true},
        {"two doubled", {Kind::doubled, Kind::doubled}, 30, 10, true},
        {"SYNCH unanswered, doubled", {Kind::deaf, Kind::doubled}, 30, 10, true},
        {"halt, SYNCH unanswered", {Kind::halt, Kind::deaf}, 30, 10, true},
        {"halt, doubled as late as that", {Kind::halt, Kind::doubled}, 30, 10, false},
        {"halt, SYNCH unanswered, late", {Kind::halt, Kind::deaf, Kind::late}, 30, 10, false},
        {"two halts, doubled", {Kind::halt, Kind::halt, Kind::doubled}, 30, 10, false},
        {"doubled and lost", {Kind::doubled, Kind::lost}, 30, 10, false},
    };
    std::mt19937 random(1);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    const std::size_t count = packets(false);
    for (const auto& row : rows) {
        Figures figures;
        for (std::size_t run = 0; run < 100'000 / stride(100); ++run) {
            std::vector<Fault> faults;
            for (const Kind kind : row.kinds) {
                faults.push_back(
                    {.kind = kind,
                     .command = below(count + 20),
                     .ns = static_cast<std::int64_t>(below(kind == Kind::halt ? 120 : row.latest)) * kT1 / 10,
                     .pauseNs = static_cast<std::int64_t>(below(row.longestPause)) * kT1 / 10,
                     .count = 1 + below(8)});
            }
            Session(faults, below(2) != 0, figures).run();
        }
        row.promised ? expectSound(row.name, figures) : print(row.name, figures);
    }
}

TEST_F(AnswerSchedules, OneFaultCostsOneTimeout) {
    const struct {
        const char* name;
        Kind kind;
        std::int64_t tenthsOfT1;  ///< at most
        bool heals;               ///< without an error, in t1 and a little
    } rows[] = {{"one lost", Kind::lost, 0, true},
                {"one not heard", Kind::unheard, 0, true},
                {"one doubled", Kind::doubled, 0, true},
                {"one doubled later", Kind::doubled, 60, false},
                {"one late", Kind::late, 60, false}};
    for (const bool clearing : {false, true}) {
        for (const auto& row : rows) {
            Figures figures;
            for (std::size_t position = 0; position < packets(clearing); ++position) {
                for (std::int64_t tenths = 0; tenths <= row.tenthsOfT1; ++tenths)
                    Session({{.kind = row.kind, .command = position, .ns = tenths * kT1 / 10}}, clearing,
                            figures)
                        .run();
            }
            expectSound(row.name, figures);
            EXPECT_TRUE(!row.heals || figures.failures == 0) << row.name;
            EXPECT_TRUE(!row.heals || figures.longest <= 1.2) << row.name << ' ' << figures.longest;
        }
    }
}

TEST_F(AnswerSchedules, SynchUnansweredForAWhile) {
    Figures figures;
    const std::size_t count = packets(false);
    for (std::size_t position = 0; position < count; ++position) {
        for (const std::size_t synchs : {1, 2, 3, 5, 8}) {
            for (std::size_t other = 0; other < count; other += stride(3)) {
                for (const auto& [kind, ns] : {std::pair{Kind::late, kT1 * 3 / 2}, {Kind::doubled, kT1 / 50}})
                    Session({{.kind = Kind::deaf, .command = position, .count = synchs},
                             {.kind = kind, .command = other, .ns = ns}},
                            true, figures)
                        .run();
            }
        }
    }
    expectSound("SYNCH unanswered for a while", figures);
}

TEST_F(AnswerSchedules, ASlaveWithoutSynchCostsOneTimeoutInAll) {
    for (const Bytes& odd :
         {Bytes{}, Bytes{0xFE, 0x20}, Bytes{0xFE, 0x31}, Bytes{0xFE, 0x10}, Bytes{0xFF}, Bytes{0xFE}}) {
        Figures figures;
        Session session({}, false, figures);
        session.wire().slave.synchAnswer = odd;
        const std::int64_t begin = session.clock().nowNs();
        session.run();
        EXPECT_EQ(figures.failures, 0U);
        EXPECT_EQ(figures.wrong, 0U);
        EXPECT_LE(session.clock().nowNs() - begin, kT1 * 11 / 10);
    }
}

/// The slave falls silent, or is pending for ever, at each command; the stop comes at each tenth of the time
/// after.
TEST_F(AnswerSchedules, AStopEndsInTime) {
    const std::size_t count = packets(false);
    double longest = 0;
    for (const Kind kind : {Kind::silent, Kind::pending}) {
        for (std::size_t position = 0; position < count; ++position) {
            for (const bool soon : {false, true}) {
                for (std::int64_t tenths = 1; tenths <= 40; tenths += 3) {
                    Figures figures;
                    Session session({{.kind = kind, .command = position}}, false, figures);
                    std::int64_t stoppedNs = 0;
                    session.wire().onPacket = [&, armed = false]() mutable {
                        if (session.wire().packets <= position || std::exchange(armed, true)) return;
                        session.clock().at(session.clock().nowNs() + tenths * kT1 / 10, [&] {
                            stoppedNs = session.clock().nowNs();
                            session.stop().request();
                        });
                    };
                    const std::unique_ptr<Connection::Finishing> finishing(
                        soon ? new Connection::Finishing(session.master().finishing()) : nullptr);
                    session.run();
                    static_cast<void>(session.master().stopDaqOnce());
                    static_cast<void>(session.master().disconnectOnce());
                    if (stoppedNs == 0) continue;  // all had failed by then
                    longest =
                        std::max(longest, static_cast<double>(session.clock().nowNs() - stoppedNs) / kT1);
                }
            }
        }
    }
    std::printf("after a stop, at most %.2f t1\n", longest);
    EXPECT_LE(longest, 1.2);
}

}  // namespace
}  // namespace lm::xcp
