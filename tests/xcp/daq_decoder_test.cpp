#include "xcp/daq_decoder.h"

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::hexText;

constexpr std::int64_t kDecoderMs = 1'000'000;

/// Event 0 of 10 ms; dynamic lists from number 1 on.
DaqCapabilities capabilities(DaqIdentification identification) {
    return {.dynamicConfiguration = true,
            .minDaq = 1,
            .identification = identification,
            .events = {{.number = 0, .cycleNs = 10 * kDecoderMs}, {.number = 3}}};
}

/// What a decoder makes of packets.
class DecoderBench final : public IDaqRecordSink {
  public:
    /// One list per event channel; its signals are 2 bytes long, and so is the payload of an ODT.
    DecoderBench(const DaqCapabilities& slave, const std::vector<std::uint16_t>& eventsOfSignals,
                 std::span<const std::uint8_t> firstPids = {})
        : decoder(plan(slave, eventsOfSignals), slave, firstPids) {
        decoder.setSink(this);
    }

    /// The records, then: lost ODTs, incomplete records, overloads, unknown and malformed DTOs.
    std::string decode(const std::vector<std::string>& dtos) {
        for (const std::string& dto : dtos) {
            const Bytes bytes = hex(dto);
            decoder.onDto(bytes.data(), bytes.size(), {42, 0});
        }
        const DaqDecoderCounters counters = decoder.counters();
        EXPECT_EQ(counters.dtos, dtos.size());
        return log + fmt::format(" {} {} {} {} {}", counters.lostOdts, counters.incompleteRecords,
                                 counters.overloads, counters.unknownDtos, counters.malformedDtos);
    }
    void onRecord(const DaqRecord& record) override {
        log += fmt::format("{}/{}{}[{}]", record.listNumber, record.listIndex, record.overload ? "!" : "",
                           hexText(record.data, record.size));
    }

    DaqDecoder decoder;
    std::string log;

  private:
    static DaqPlan plan(const DaqCapabilities& slave, const std::vector<std::uint16_t>& eventsOfSignals) {
        std::vector<DaqSignal> signals;
        for (const std::uint16_t event : eventsOfSignals) {
            signals.push_back({{static_cast<std::uint32_t>(signals.size()), 0}, 2, event});
        }
        const unsigned overhead = identificationSize(slave.identification) + slave.timestampSize;
        return planDaq(signals, slave, {.maxDto = static_cast<std::uint16_t>(overhead + 2)}).value();
    }
};

TEST(DaqDecoder, CountsEveryKindOfLoss) {
    const struct {
        std::vector<std::string> dtos;
        const char* result;
    } rows[] = {
        {{"00 11 12", "01 13 14", "00 11 12"}, " 1 1 0 0 0"},              // begins anew
        {{"02 15 16"}, " 2 1 0 0 0"},                                      // nothing open
        {{"00 11 12", "02 15 16", "00 11 12"}, " 1 1 0 0 0"},              // one skipped, none stays open
        {{"00 11 12", "01 13 14", "01 13 14", "02 15 16"}, " 3 2 0 0 0"},  // behind, then nothing open
        {{"00 11"}, " 0 0 0 0 1"},                                         // short
        {{"04", "FB 00"}, " 0 0 0 2 0"},                                   // of no list
        {{"00 11 12", "01", "02 15 16"}, " 2 1 0 0 1"},                    // short closes the record
        {{"00 11 12", "03 31 32", "01 13 14", "02 15 16", "00 21 22"},
         "2/1[31 32]1/0[11 12 13 14 15 16] 0 0 0 0 0"},  // lists interleave
    };
    for (const auto& row : rows) {
        DecoderBench bench(capabilities(DaqIdentification::absoluteOdt), {0, 0, 0, 3});
        EXPECT_EQ(bench.decode(row.dtos), row.result);
    }
    DecoderBench wide(capabilities(DaqIdentification::relativeWordAligned), {0});
    EXPECT_EQ(wide.decode({"00", "00 00", "00 00 01", "00 AA 02 00"}), " 0 0 0 1 3");
    const Bytes firstPids = {0x20, 0x10};
    DecoderBench told(capabilities(DaqIdentification::absoluteOdt), {0, 0, 3}, firstPids);
    EXPECT_EQ(told.decode({"20 11 12", "10 31 32", "21 13 14 99", "00 11 12", "02 31 32"}),
              "2/1[31 32]1/0[11 12 13 14] 0 0 0 2 0");
    DaqCapabilities stamped = capabilities(DaqIdentification::relativeByte);
    stamped.timestampSize = 2;
    stamped.timestampFixed = true;
    DecoderBench tickUnknown(stamped, {0});
    EXPECT_EQ(tickUnknown.decode({"00 01 00", "00 00 00 00 AB CD", "00 01 00 00 AB CD"}),
              "1/0[AB CD] 0 0 0 1 1");
    DaqCapabilities overloading = capabilities(DaqIdentification::absoluteOdt);
    overloading.overloadInPid = true;
    DecoderBench bench(overloading, {0, 0, 3});
    EXPECT_EQ(bench.decode({"80 11 12", "02 31 32", "01 13 14", "00 11 12", "01 13 14"}),
              "2/1[31 32]1/0![11 12 13 14]1/0[11 12 13 14] 0 0 1 0 0");
}

TEST(DaqDecoder, JoinsNoRecordAcrossAHole) {
    DecoderBench bench(capabilities(DaqIdentification::absoluteOdt), {0, 0, 3});
    std::atomic<std::uint64_t> holes{4};
    bench.decoder.setHoles(&holes);
    bench.decode({"00 11 12"});
    holes = 5;
    const Bytes later = hex("01 23 24");  // of the next sample
    bench.decoder.onDto(later.data(), later.size(), {42, 0});
    for (const char* text : {"00 31 32", "01 33 34", "02 41 42"}) {
        const Bytes dto = hex(text);
        bench.decoder.onDto(dto.data(), dto.size(), {42, 0});
    }
    const auto counters = bench.decoder.counters();
    EXPECT_EQ(bench.log, "1/0[31 32 33 34]2/1[41 42]");
    EXPECT_EQ(counters.lostOdts, 2U);
    EXPECT_EQ(counters.incompleteRecords, 2U);
    EXPECT_EQ(bench.decoder.recordsOf(0), 1U);
}

TEST(DaqDecoder, CountsMissedCycles) {
    DaqCapabilities stamped = capabilities(DaqIdentification::relativeByte);
    stamped.timestampSize = 2;
    stamped.timestampFixed = true;
    stamped.tickNs = kDecoderMs;
    const std::pair<std::vector<int>, std::uint64_t> rows[] = {
        {{0, 30}, 2}, {{0, 10, 20, 30}, 0}, {{0, 14, 30}, 1}, {{0, 15}, 1}, {{0, 0, 10}, 0}};
    for (const auto& [times, missed] : rows) {
        DecoderBench bench(stamped, {0});
        for (const int at : times) {
            const int stamp = at + 0xF8;  // over the end of the low byte
            const Bytes dto = hex(fmt::format("00 01 {:02X} {:02X} AB CD", stamp & 0xFF, stamp >> 8));
            bench.decoder.onDto(dto.data(), dto.size(), {(1000 + at) * kDecoderMs, 0});
        }
        EXPECT_EQ(bench.decoder.counters().missedCycles, missed);
    }
}

}  // namespace
}  // namespace lm::xcp
