// Whatever a slave answers: connection, memory access and the gathering and configuration of DAQ end, in
// bounded time, with a value or an error. As long as the slave answers rightly, though late or not at all, no
// answer passes for another command's; nor when it answers late or several times, where the steps are
// confirmed.
#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "fuzz_input.h"
#include "slave_model.h"
#include "xcp/connect_overrides.h"
#include "xcp/daq_decoder.h"
#include "xcp/master.h"

namespace lm::fuzz {
namespace {

struct Listener final : xcp::IMasterListener {
    void onEvent(std::uint8_t, const std::uint8_t*, std::size_t length, xcp::ReceiveTime) override {
        require(length > 0, "an event has contents");
    }
    void onServiceRequest(std::uint8_t, const std::uint8_t*, std::size_t) override {}
    void onTransportEvent(const xcp::TransportEvent&) override {}
};

struct Records final : xcp::IDaqRecordSink {
    Bytes last;
    void onRecord(const xcp::DaqRecord& record) override {
        last.assign(record.data, record.data + record.size);
    }
};

Result<Bytes> seedItself(xcp::Resource, std::span<const std::uint8_t> seed) {
    return Bytes(seed.begin(), seed.end());
}

xcp::MasterOptions takeOptions(Input& input) {
    const auto shape = input.take<std::uint8_t>();
    return {.t1 = kT1,
            .t2 = kT1,
            .t3 = kT1,
            .t4 = kT1,
            .t5 = kT1,
            .t6 = kT1,
            .t7 = kT1 / 2,
            .synchRepeatLimit = shape & 0x03,
            .connectAttempts = 1 + (shape >> 2 & 0x03),
            .busyRepeatLimit = shape >> 4 & 0x03,
            .useShortUpload = (shape & 0x40) != 0,
            .keys = (shape & 0x80) != 0 ? xcp::KeySource(seedItself) : xcp::KeySource()};
}

class Run {
  public:
    explicit Run(Input& input)
        : input_(input), slave_(input, clock_), master_(slave_, takeOptions(input), {}, clock_) {
        master_.setListener(&listener_);
    }
    ~Run() {
        master_.setDtoSink(nullptr);
        master_.setListener(nullptr);
    }

    void step() {
        const std::int64_t before = clock_.nowNs();
        const std::uint64_t packets = slave_.packets();
        perform(input_.take<std::uint8_t>());
        // A packet may be awaited for a timeout; a slave without SYNCH is watched for as long again.
        const auto exchanged = static_cast<std::int64_t>(slave_.packets() - packets);
        require(clock_.nowNs() - before <= (exchanged + 1) * kT1 * 5'000'000 / 2,
                "an operation ends in time");
    }

    template <typename T>
    void end(const Result<T>& result) {
        if (!result) require(!result.error().text().empty(), "a failure says why");
    }

  private:
    void perform(std::uint8_t operation) {
        using Operation = void (*)(Run&);
        static constexpr std::array<Operation, 16> kOperations = {
            [](Run& run) { run.end(run.master_.connect()); },
            [](Run& run) { run.end(run.master_.connect()); },
            [](Run& run) { run.end(run.master_.getStatus()); },
            [](Run& run) { run.end(run.master_.getCommModeInfo()); },
            [](Run& run) { run.upload(); },  // with blocks by bit 4, the next three too
            [](Run& run) { run.uploadInStep({0}); },
            [](Run& run) {
                run.uploadInStep({0, 100, 200});
            },
            [](Run& run) { run.download(); },
            [](Run& run) { run.end(run.master_.unlock(xcp::Resource::calPag)); },
            [](Run& run) { run.measure(); },
            [](Run& run) { run.slave_.sendRaw(); },
            [](Run& run) { run.end(run.master_.synch()); },
            [](Run& run) { run.end(run.master_.disconnectOnce()); },
            [](Run& run) { run.end(run.master_.stopDaqOnce()); },
            [](Run& run) { run.end(run.master_.disconnectWithoutWaiting()); },
            [](Run& run) { run.end(run.master_.disconnect()); }};
        static constexpr std::array<Operation, 3> kRare = {[](Run& run) { run.measureInLists(); },
                                                           [](Run& run) { run.modifyBits(); },
                                                           [](Run& run) { run.overrule(); }};
        if (operation >= 0xF0) return kRare[operation % kRare.size()](*this);
        inBlocks_ = (operation & 0x10U) != 0;
        kOperations[operation % kOperations.size()](*this);
    }

    void requireMemory(std::uint32_t address, std::span<const std::uint8_t> bytes, std::string_view what) {
        for (std::size_t i = 0; i < bytes.size(); ++i)
            require(bytes[i] == slave_.memory(address + static_cast<std::uint32_t>(i)), what);
    }

    Result<Bytes> read(std::uint16_t address, std::size_t size) {
        return inBlocks_ ? master_.uploadBlocks({address, 0}, size * 4) : master_.upload({address, 0}, size);
    }
    std::size_t asked(std::size_t size) const { return inBlocks_ ? size * 4 : size; }

    void upload() {
        const auto address = input_.take<std::uint16_t>();
        const std::size_t size = input_.take<std::uint8_t>();
        const auto read = this->read(address, size);
        end(read);
        if (read) requireRead(address, asked(size), read.value(), slave_.honest());
    }

    /// Uploads as one step, of sizes that differ by these from the one given: some fit an answer, some do
    /// not.
    void uploadInStep(std::initializer_list<std::uint8_t> differences) {
        const auto address = input_.take<std::uint16_t>();
        const auto size = input_.take<std::uint8_t>();
        std::vector<Result<std::vector<std::uint8_t>>> all;
        const auto sizeOf = [&](std::size_t i) {
            return static_cast<std::uint8_t>(size + differences.begin()[i]);
        };
        const auto step = [&]() -> Result<void> {
            all.clear();
            for (std::size_t i = 0; i < differences.size(); ++i)
                all.push_back(read(address, sizeOf(i)));
            return {};
        };
        const auto sure = xcp::inStep(master_, step);
        end(sure);
        if (!sure) return;
        for (std::size_t i = 0; i < all.size(); ++i) {
            end(all[i]);
            if (all[i])
                requireRead(address, asked(sizeOf(i)), all[i].value(), slave_.honest() || slave_.complete());
        }
    }

    void requireRead(std::uint32_t address, std::size_t size, std::span<const std::uint8_t> bytes,
                     bool right) {
        require(bytes.size() == size, "as many bytes as asked for");
        if (right) requireMemory(address, bytes, "the bytes of that address");
    }

    void download() {
        const auto address = input_.take<std::uint16_t>();
        const auto bytes = input_.takeBytes(input_.takeBelow(64));
        const auto written =
            inBlocks_ ? master_.downloadBlocks({address, 0}, bytes) : master_.download({address, 0}, bytes);
        end(written);
        if (written && slave_.honest()) requireMemory(address, bytes, "what is confirmed is written");
    }

    void measure() {
        const auto capabilities = xcp::inStep(master_, [this] { return master_.daqCapabilities(); });
        end(capabilities);
        if (!capabilities) return;
        const std::size_t events = capabilities.value().events.size();
        require(!slave_.complete() || events == 2, "the events that there are");
        // One that never answers the question is taken for one that does not know it.
        require(!slave_.honest() || events == 2 || events == 0, "all events that there are, or none");
        measureWith(capabilities.value());
    }

    /// What the slave says of its static and predefined lists is planned with and configured.
    void measureInLists() {
        xcp::DaqCapabilities capabilities{
            .dynamicConfiguration = input_.take<std::uint8_t>() % 4 == 0,
            .maxDaq = input_.take<std::uint8_t>(),
            .minDaq = static_cast<std::uint8_t>(input_.takeBelow(8)),
            .identification = static_cast<xcp::DaqIdentification>(input_.takeBelow(4)),
            .entryGranularity = 1,
            .maxEntrySize = input_.take<std::uint8_t>(),
            .timestampSize = static_cast<std::uint8_t>(input_.takeBelow(2) * 4)};
        capabilities.timestampSupported = capabilities.timestampSize != 0;
        const auto told = xcp::inStep(master_, [&] { return master_.askDaqLists(capabilities); });
        end(told);
        if (!told) return;
        require(told.value() || capabilities.lists.empty(), "no lists of a slave that does not tell them");
        measureWith(capabilities);
    }

    void modifyBits() {
        const auto address = input_.take<std::uint16_t>();
        const auto mask = input_.take<std::uint32_t>();
        const auto bits = input_.take<std::uint32_t>() & mask;
        end(master_.modifyBits({address, 0}, mask, bits));
    }

    /// Whatever length and content a response to CONNECT has.
    void overrule() {
        const auto choice = input_.take<std::uint8_t>();
        xcp::ConnectOverrides overrides;
        if ((choice & 1U) != 0) overrides.granularity = static_cast<std::uint8_t>(1U << (choice >> 6U) % 3);
        if ((choice & 2U) != 0) overrides.byteOrder = ByteOrder::bigEndian;
        if ((choice & 4U) != 0) overrides.maxDto = input_.take<std::uint16_t>();
        const auto bytes = input_.takeBytes(input_.takeBelow(12));
        xcp::Packet told;
        std::copy(bytes.begin(), bytes.end(), told.bytes.begin());
        told.length = static_cast<std::uint8_t>(bytes.size());
        const auto counts = xcp::overruled(told, overrides);
        require(counts.size() == told.size(), "a response keeps its length");
        const auto read = xcp::overruled(counts, overrides);
        require(read.bytes == counts.bytes, "what is overruled once stays");
    }

    void measureWith(const xcp::DaqCapabilities& capabilities) {
        std::vector<xcp::DaqSignal> signals;
        for (std::size_t i = input_.takeBelow(16); i > 0; --i) {
            signals.push_back({.address = {input_.take<std::uint8_t>(), 0},
                               .size = i % 2 == 0 ? 4U : 8U,
                               .eventChannel = static_cast<std::uint16_t>(i % 3 == 0 ? 1 : 0)});
        }
        const auto plan = xcp::planDaq(signals, capabilities,
                                       {.maxDto = master_.connectInfo().maxDto,
                                        .addressGranularity = master_.connectInfo().granularity()});
        if (!plan) return;
        const auto firstPids = xcp::inStep(master_, [&] { return master_.configureDaq(plan.value()); });
        end(firstPids);
        if (!firstPids) return;
        const auto id = xcp::inStep(master_, [&] { return master_.askDaqId(0); });
        end(id);
        if (!id) return;
        Records records;
        xcp::DaqDecoder decoder(plan.value(), capabilities, firstPids.value());
        decoder.setSink(&records);
        master_.setDtoSink(&decoder);
        end(master_.startDaq());
        for (std::size_t i = input_.takeBelow(8); i > 0; --i)
            slave_.sendRaw();
        end(master_.stopDaq());
        master_.setDtoSink(nullptr);
    }

    Input& input_;
    bool inBlocks_ = false;
    Listener listener_;
    test::VirtualClock clock_;
    SlaveModel slave_;
    xcp::Master master_;
};

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm::fuzz;
    Input input(data, size);
    Run run(input);
    constexpr int kMostOperations = 50;
    for (int i = 0; i < kMostOperations && !input.empty(); ++i)
        run.step();
    return 0;
}
