// DTOs into the decoder, for plans of random capabilities and signals. A plan is sound, whatever the slave
// claims; a whole cycle of DTOs gives its record back; other bytes give records of the right size or none,
// with times that neither lie in the future nor step back.
#include "xcp/daq_decoder.h"

#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "fuzz_input.h"
#include "xcp/daq_plan.h"

namespace lm::fuzz {
namespace {

/// Far enough apart for their PIDs to be their own.
void takeLists(Input& input, xcp::DaqCapabilities& capabilities) {
    capabilities.minDaq = 0;
    const auto count = static_cast<std::uint16_t>(1 + input.takeBelow(8));
    for (std::uint16_t i = 0; i < count; ++i) {
        xcp::DaqListInfo list{.number = static_cast<std::uint16_t>(i * 30U)};
        list.maxOdt = static_cast<std::uint8_t>(input.takeBelow(15));
        list.maxEntries = static_cast<std::uint8_t>(input.takeBelow(20));
        list.firstPid = static_cast<std::uint8_t>(i * 15U);
        if (input.takeBelow(2) != 0) list.fixedEvent = static_cast<std::uint16_t>(input.takeBelow(4));
        capabilities.lists.push_back(std::move(list));
    }
}

xcp::DaqCapabilities takeCapabilities(Input& input) {
    xcp::DaqCapabilities capabilities;
    const auto flags = input.take<std::uint8_t>();
    constexpr std::array<std::uint8_t, 4> kSizes = {0, 1, 2, 4};
    capabilities.dynamicConfiguration = (flags & 0x80U) == 0;
    capabilities.timestampSupported = (flags & 0x01U) != 0;
    capabilities.timestampFixed = (flags & 0x02U) != 0;
    capabilities.overloadInPid = (flags & 0x04U) != 0;
    capabilities.identification = static_cast<xcp::DaqIdentification>(flags >> 3U & 0x03U);
    capabilities.timestampSize = kSizes[flags >> 5U & 0x03U];
    capabilities.minDaq = input.take<std::uint8_t>();
    capabilities.entryGranularity = input.take<std::uint8_t>();
    capabilities.maxEntrySize = input.take<std::uint8_t>();
    capabilities.maxEventChannel = input.take<std::uint8_t>();
    const auto tick = input.take<std::uint16_t>();
    capabilities.tickNs = tick;
    for (unsigned unit = input.take<std::uint8_t>() % 10U; unit > 0; --unit)
        capabilities.tickNs *= 10;
    for (std::uint16_t i = input.take<std::uint8_t>() & 3U; i > 0; --i)
        capabilities.events.push_back({.number = i, .cycleNs = input.take<std::uint8_t>() * 1'000'000LL});
    if (!capabilities.dynamicConfiguration) takeLists(input, capabilities);
    return capabilities;
}

std::vector<xcp::DaqSignal> takeSignals(Input& input) {
    std::vector<xcp::DaqSignal> signals;
    for (std::size_t count = input.takeBelow(64); count > 0; --count) {
        const auto shape = input.take<std::uint8_t>();
        signals.push_back({.address = {input.take<std::uint8_t>(), 0},
                           .size = 1U << (shape & 0x07U),
                           .eventChannel = static_cast<std::uint16_t>(shape >> 3U & 0x03U),
                           .prescaler = static_cast<std::uint8_t>(shape >> 5U)});
    }
    return signals;
}

void checkPlan(const xcp::DaqPlan& plan, std::span<const xcp::DaqSignal> signals, std::size_t maxDto) {
    require(plan.signals.size() == signals.size(), "every signal has a place");
    for (std::size_t i = 0; i < signals.size(); ++i) {
        require(plan.signals[i].list < plan.lists.size(), "in a list");
        const xcp::DaqList& list = plan.lists[plan.signals[i].list];
        require(plan.signals[i].offset + signals[i].size <= list.recordSize, "inside the record");
        require(list.eventChannel == signals[i].eventChannel, "of its event");
    }
    for (const xcp::DaqList& list : plan.lists) {
        std::size_t record = 0;
        for (std::size_t i = 0; i < list.odts.size(); ++i) {
            const xcp::Odt& odt = list.odts[i];
            const std::size_t stamp = i == 0 ? plan.timestampSize : 0U;
            require(plan.identificationSize + stamp + odt.payloadSize <= maxDto, "an ODT fits into a DTO");
            require(odt.recordOffset == record && !odt.entries.empty(), "ODTs stand back to back");
            record += odt.payloadSize;
        }
        require(record == list.recordSize, "and fill the record");
    }
}

class Records final : public xcp::IDaqRecordSink {
  public:
    explicit Records(const xcp::DaqPlan& plan) : plan_(plan) {}
    void onRecord(const xcp::DaqRecord& record) override {
        require(record.listIndex < plan_.lists.size(), "a record of a list");
        require(record.size == plan_.lists[record.listIndex].recordSize, "of its size");
        require(record.listNumber == plan_.lists[record.listIndex].number, "with its number");
        require(record.timeNs() <= record.receiveTimeNs, "not from the future");
        auto [last, first] = lastNs.try_emplace(record.listIndex, record.timeNs());
        require(first || record.timeNs() >= last->second, "time does not step back");
        last->second = record.timeNs();
        bytes = Bytes(record.data, record.data + record.size);
        ++count;
    }

    std::map<std::size_t, std::int64_t> lastNs;
    Bytes bytes;
    std::uint64_t count = 0;

  private:
    const xcp::DaqPlan& plan_;
};

struct Bench {
    const xcp::DaqPlan& plan;
    xcp::DaqDecoder& decoder;
    Records& records;
    xcp::DaqDecoder& patient;  ///< holds records back
    std::int64_t now = 1'000'000'000'000;

    void send(const Bytes& dto) {
        const std::uint64_t before = records.count;
        decoder.onDto(dto.data(), dto.size(), {.hostNs = now});
        patient.onDto(dto.data(), dto.size(), {.hostNs = now});
        if (dto.size() % 8 == 0) patient.settle(now);
        require(records.count <= before + 1, "a DTO completes one record at most");
    }

    /// One cycle of a list as a slave sends it.
    void sendCycle(std::size_t index, Input& input) {
        const xcp::DaqList& list = plan.lists[index];
        const std::uint64_t before = records.count;
        Bytes expected;
        for (std::size_t odt = 0; odt < list.odts.size(); ++odt) {
            Bytes dto = header(index, list.odts[odt].pid);
            if (odt == 0) append(dto, input.takeWhole(plan.timestampSize));
            const Bytes payload = input.takeWhole(list.odts[odt].payloadSize);
            append(dto, payload);
            append(expected, payload);
            send(dto);
        }
        require(records.count == before + 1, "a whole cycle is a record");
        require(records.bytes == expected, "with the bytes that were sent");
    }

  private:
    Bytes header(std::size_t index, std::uint8_t pid) const {
        const unsigned number = plan.lists[index].number;
        Bytes bytes = {pid, static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8U)};
        if (plan.identification == xcp::DaqIdentification::relativeWordAligned)
            bytes.insert(bytes.begin() + 1, 0xAA);
        bytes.resize(1 + static_cast<std::size_t>(plan.identification));
        return bytes;
    }
    static void append(Bytes& to, const Bytes& bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }
};

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    fuzz::Input input(data, size);
    const xcp::DaqCapabilities capabilities = fuzz::takeCapabilities(input);
    xcp::DaqPlanOptions options;
    options.maxDto = input.take<std::uint16_t>() & 0x0FFFU;
    options.addressGranularity = static_cast<std::uint8_t>(1U << input.takeBelow(3));
    options.useTimestamps = input.takeBelow(2) != 0;
    const auto signals = fuzz::takeSignals(input);
    const auto planned = xcp::planDaq(signals, capabilities, options);
    if (!planned) return 0;
    const xcp::DaqPlan& plan = planned.value();
    fuzz::checkPlan(plan, signals, options.maxDto);
    fuzz::Records records(plan);
    const auto firstPids = input.takeBelow(2) != 0 ? input.takeBytes(plan.lists.size()) : input.takeBytes(0);
    xcp::DaqDecoder decoder(plan, capabilities, firstPids);
    decoder.setSink(&records);
    fuzz::Records later(plan);
    xcp::DaqDecoder patient(plan, capabilities, firstPids);
    patient.setSink(&later);
    patient.holdBack();
    fuzz::Bench bench{plan, decoder, records, patient};
    // The slave's own PIDs may overlap here: then a cycle need not arrive.
    const bool cycles = !plan.lists.empty() && firstPids.empty() && plan.lists.back().number <= 255;
    while (!input.empty()) {
        const auto step = input.take<std::uint8_t>();
        bench.now += std::int64_t{1} << (input.take<std::uint8_t>() % 42U);
        if (cycles && (step & 0x80U) != 0) {
            bench.sendCycle(step % plan.lists.size(), input);
        } else {
            const auto bytes = input.takeBytes(1 + step % 64U);
            if (!bytes.empty()) bench.send(fuzz::Bytes(bytes.begin(), bytes.end()));
        }
    }
    const auto counters = decoder.counters();
    fuzz::require(counters.records == records.count, "every record is counted");
    fuzz::require(patient.counters().records == records.count, "also one that is held back");
    patient.settle(std::numeric_limits<std::int64_t>::max());
    fuzz::require(later.count == records.count && later.bytes == records.bytes, "which comes in the end");
    return 0;
}
