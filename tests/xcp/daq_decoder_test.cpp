#include "xcp/daq_decoder.h"

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::hexText;

constexpr std::int64_t kMs = 1'000'000;

/// Two lists from list number 1 on: event 0 (10 ms) with three ODTs of 2, 1 and 1 bytes, event 3 with one of
/// 1 byte.
DaqPlan plan(DaqIdentification identification, std::uint8_t timestampSize = 0, bool overload = false) {
    DaqPlan result;
    result.identification = identification;
    result.identificationSize = identificationSize(identification);
    result.timestampSize = timestampSize;
    result.firstListNumber = 1;
    result.overloadInPid = overload;
    result.lists.resize(2);
    result.lists[0].odts = {{.payloadSize = 2, .recordOffset = 0, .pid = 0},
                            {.payloadSize = 1, .recordOffset = 2, .pid = 1},
                            {.payloadSize = 1, .recordOffset = 3, .pid = 2}};
    result.lists[0].recordSize = 4;
    const bool absolute = identification == DaqIdentification::absoluteOdt;
    result.lists[1].eventChannel = 3;
    result.lists[1].odts = {
        {.payloadSize = 1, .recordOffset = 0, .pid = absolute ? std::uint8_t{3} : std::uint8_t{0}}};
    result.lists[1].recordSize = 1;
    for (DaqList& list : result.lists) {
        list.timestamp = timestampSize != 0;
    }
    return result;
}

DaqCapabilities capabilities(std::int64_t tickNs = 0) {
    DaqCapabilities result;
    result.tickNs = tickNs;
    result.events = {{.number = 0, .cycleNs = 10 * kMs}, {.number = 3}};
    return result;
}

struct Records final : IDaqRecordSink {
    void onRecord(const DaqRecord& record) override {
        log += std::to_string(record.listNumber) + "/" + std::to_string(record.listIndex) +
               (record.overload ? "!" : "") + "[" + hexText(record.data, record.size) + "]";
        times.push_back(record.timeNs());
        hasSlaveTime = record.hasSlaveTime;
    }
    std::string log;
    std::vector<std::int64_t> times;
    bool hasSlaveTime = false;
};

/// Records, then the losses: lost ODTs, incomplete records, overloads, unknown and malformed DTOs.
std::string decode(DaqDecoder& decoder, const std::vector<std::string>& dtos) {
    Records records;
    decoder.setSink(&records);
    for (const std::string& dto : dtos) {
        const Bytes bytes = hex(dto);
        decoder.onDto(bytes.data(), bytes.size(), {});
    }
    const DaqDecoderCounters counters = decoder.counters();
    EXPECT_EQ(counters.dtos, dtos.size());
    for (const std::uint64_t count : {counters.lostOdts, counters.incompleteRecords, counters.overloads,
                                      counters.unknownDtos, counters.malformedDtos}) {
        records.log += " " + std::to_string(count);
    }
    return records.log;
}

TEST(DaqDecoder, FindsListsByEveryIdentification) {
    const struct {
        DaqIdentification identification;
        std::vector<std::string> dtos;
    } rows[] = {
        {DaqIdentification::absoluteOdt, {"00 11 12", "01 13", "03 21", "02 14 99", "04", "FB 00"}},
        {DaqIdentification::relativeByte,
         {"00 01 11 12", "01 01 13", "00 02 21", "02 01 14", "01 02", "00 00"}},
        {DaqIdentification::relativeWord,
         {"00 01 00 11 12", "01 01 00 13", "00 02 00 21", "02 01 00 14", "03 01 00", "00 00 01"}},
        {DaqIdentification::relativeWordAligned,
         {"00 AA 01 00 11 12", "01 AA 01 00 13", "00 AA 02 00 21", "02 AA 01 00 14", "00 AA 03 00",
          "00 01 00 00"}},
    };
    for (const auto& row : rows) {
        DaqDecoder decoder(plan(row.identification), capabilities());
        EXPECT_EQ(decode(decoder, row.dtos), "2/1[21]1/0[11 12 13 14] 0 0 0 2 0");
    }
}

TEST(DaqDecoder, CountsEveryKindOfLoss) {
    const struct {
        std::vector<std::string> dtos;
        const char* result;
    } rows[] = {
        {{"00 11 12", "01 13", "00 11 12"}, " 1 1 0 0 0"},        // begins anew
        {{"02 14"}, " 2 1 0 0 0"},                                // nothing open
        {{"00 11 12", "02 14", "00 11 12"}, " 1 1 0 0 0"},        // one skipped, none stays open
        {{"00 11 12", "01 13", "01 13", "02 14"}, " 3 2 0 0 0"},  // behind, then nothing open
        {{"00 11"}, " 0 0 0 0 1"},                                // short
        {{"00 11 12", "01", "02 14"}, " 2 1 0 0 1"},              // short closes the record
        {{"00 11 12", "01 13", "02 14", "00 21 22"}, "1/0[11 12 13 14] 0 0 0 0 0"},
        {{"00 11 12", "03 31", "01 13", "02 14"}, "2/1[31]1/0[11 12 13 14] 0 0 0 0 0"},  // lists interleave
    };
    for (const auto& row : rows) {
        DaqDecoder decoder(plan(DaqIdentification::absoluteOdt), capabilities());
        EXPECT_EQ(decode(decoder, row.dtos), row.result);
    }
    DaqDecoder wide(plan(DaqIdentification::relativeWordAligned), capabilities());
    EXPECT_EQ(decode(wide, {"00", "00 00", "00 00 01"}), " 0 0 0 0 3");
}

TEST(DaqDecoder, OverloadIsReportedWithTheNextRecord) {
    DaqDecoder decoder(plan(DaqIdentification::absoluteOdt, 0, true), capabilities());
    EXPECT_EQ(decode(decoder, {"80 11 12", "01 13", "02 14", "03 31", "00 11 12", "01 13", "02 14"}),
              "1/0![11 12 13 14]2/1[31]1/0[11 12 13 14] 0 0 1 0 0");
}

TEST(DaqDecoder, TakesTheFirstPidsOfTheSlave) {
    const Bytes firstPids = {0x20, 0x10};
    DaqDecoder decoder(plan(DaqIdentification::absoluteOdt), capabilities(), firstPids);
    EXPECT_EQ(decode(decoder, {"20 11 12", "10 31", "21 13", "22 14", "00 11 12", "03 31"}),
              "2/1[31]1/0[11 12 13 14] 0 0 0 2 0");
}

TEST(DaqDecoder, StampedRecordsCountMissedCycles) {
    const struct {
        std::vector<int> atMs;
        std::uint64_t missed;
    } rows[] = {{{0, 30}, 2}, {{0, 10, 20, 30}, 0}, {{0, 14, 30}, 1}, {{0, 15}, 1}, {{0, 0, 10}, 0}};
    for (const auto& row : rows) {
        DaqPlan stamped = plan(DaqIdentification::relativeByte, 2);
        stamped.lists[0].odts.resize(1);
        stamped.lists[0].recordSize = 2;
        DaqDecoder decoder(stamped, capabilities(kMs));
        Records records;
        decoder.setSink(&records);
        const Bytes tooShort = hex("00 01 00");
        decoder.onDto(tooShort.data(), tooShort.size(), {});
        for (const int at : row.atMs) {
            Bytes dto = hex("00 01 00 00 AB CD");
            dto[2] = static_cast<std::uint8_t>(at + 0xF8);  // over the end of the low byte
            dto[3] = static_cast<std::uint8_t>((at + 0xF8) >> 8);
            decoder.onDto(dto.data(), dto.size(), {1000 * kMs + at * kMs, 0});
        }
        EXPECT_EQ(decoder.counters().missedCycles, row.missed);
        EXPECT_EQ(decoder.counters().malformedDtos, 1U);
        EXPECT_TRUE(records.hasSlaveTime);
        ASSERT_EQ(records.times.size(), row.atMs.size());
        EXPECT_NEAR(static_cast<double>(records.times.back() - records.times.front()),
                    static_cast<double>(row.atMs.back()) * kMs, 10'000);
    }
}

TEST(DaqDecoder, WithoutATickLengthTheReceiveTimeHolds) {
    DaqDecoder decoder(plan(DaqIdentification::relativeByte, 4), capabilities(0));
    Records records;
    decoder.setSink(&records);
    const Bytes dto = hex("00 02 01 02 03 04 31");
    decoder.onDto(dto.data(), dto.size(), {42, 0});
    EXPECT_FALSE(records.hasSlaveTime);
    EXPECT_EQ(records.times, std::vector<std::int64_t>{42});
    EXPECT_EQ(records.log, "2/1[31]");
}

}  // namespace
}  // namespace lm::xcp
