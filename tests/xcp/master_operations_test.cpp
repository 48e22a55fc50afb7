// Fixed answers, memory access and DAQ configuration: the exact packets and what is made of them.
#include <gtest/gtest.h>

#include "xcp/connect_overrides.h"
#include "xcp/master.h"
#include "xcp/packet.h"
#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bench;
using test::hex;

TEST(Packet, ParsesFixedResponsesCutAtEveryLength) {
    const test::Bytes bytes = hex("FF 05 01 08 01 02 03 04");
    const auto connect = parseConnect(bytes).value();
    EXPECT_EQ(connect.resource, 5);
    EXPECT_EQ(connect.maxCto, 8);
    EXPECT_EQ(connect.maxDto, 0x102);
    EXPECT_EQ(connect.protocolLayerVersion, 3);
    EXPECT_EQ(connect.transportLayerVersion, 4);
    EXPECT_EQ(parseCommModeInfo(bytes).value().driverVersion, 4);
    for (std::size_t length = 0; length < 8; ++length) {
        const std::span cut(bytes.data(), length);
        EXPECT_EQ(parseConnect(cut).error().message, "XCP response to CONNECT too short");
        EXPECT_EQ(parseCommModeInfo(cut).error().message, "XCP response to GET_COMM_MODE_INFO too short");
        const auto status = parseStatus(cut, ByteOrder::bigEndian);
        EXPECT_EQ(status ? std::to_string(status.value().sessionConfigurationId) : status.error().message,
                  length < 6 ? "XCP response to GET_STATUS too short" : "258");
    }
    const char* const invalid = "CONNECT: invalid MAX_CTO/MAX_DTO";
    const std::pair<const char*, const char*> refused[] = {
        {"FF 00 06 08 08 00 01 01", "CONNECT: reserved address granularity"},
        {"FF 00 00 07 08 00 01 01", invalid},
        {"FF 00 00 08 07 00 01 01", invalid},
        {"FF 00 04 0A 08 00 01 01", invalid},
        {"FF 00 02 08 09 00 01 01", invalid}};
    for (const auto& row : refused) {
        EXPECT_EQ(parseConnect(hex(row.first)).error().message, row.second) << row.first;
    }
}

TEST(MasterMemory, RefusesPartsOfAnElement) {
    Bench bench("FF 00 > FF 05 04 08 08 00 01 01");
    EXPECT_EQ(
        bench.run("connect; upload 2; upload 0; download 01 02; download "),
        "ok; upload size must be a non-zero multiple of AG; upload size must be a non-zero multiple of AG; "
        "download size must be a non-zero multiple of AG; download size must be a non-zero multiple of AG");
}

TEST(MasterMemory, ARepeatGoesOnAtItsBlock) {
    // A missing SHORT_UPLOAD is remembered until the next connection.
    Bench reading(
        "FF 00 > @; F4 01 00 01 78 56 34 12 > FE 20; F6 00 00 01 78 56 34 12 > FF; F5 01 > FF 42; "
        "F6 00 00 01 78 56 34 12 > FF; F5 07 > FF 00 01 02 03 04 05 06; F5 01; FC > FE 00; "
        "F6 00 00 01 7F 56 34 12 > FF; F5 01 > FF 07; "
        "FF 00 > @; F4 01 00 01 78 56 34 12 > FF 43");
    EXPECT_EQ(reading.run("connect; upload 1; upload 8; connect; upload 1"),
              "ok; 42; 00 01 02 03 04 05 06 07; ok; 43");
    Bench writing(
        "FF 00 > FF 05 02 08 08 00 01 01; F6 00 00 00 10 00 00 00 > FF; F0 03 00 01 02 03 04 05 > FF; "
        "F0 02 06 07 08 09; FC > FE 00; F6 00 00 00 16 00 00 00 > FF; F0 02 06 07 08 09 > FF");
    EXPECT_EQ(writing.run("connect; download 00 01 02 03 04 05 06 07 08 09"), "ok; ok");
}

TEST(MasterMemory, ReadsBlocksAndWhatIsLostOfThemOnceMore) {
    const std::string point = "F6 00 00 01 78 56 34 12 > FF; ", ask = point + "F5 0F > ";
    const std::string first = "FF 00 01 02 03 04 05 06", second = "FF 07 08 09 0A 0B 0C 0D", third = "FF 0E";
    const std::string whole = ask + first + ", " + second + ", " + third;
    const std::string plain = point + "F5 07 > " + first + "; F5 07 > " + second + "; F5 01 > " + third;
    const std::string inStep = "; FC > FE 00", lossInStep = "; FC > FE 00; FC > FE 00";
    const std::string shorts = "F4 07 00 01 78 56 34 12 > " + first + "; F4 07 00 01 7F 56 34 12 > " +
                               second + "; F4 01 00 01 86 56 34 12 > " + third;
    const std::string lost = ask + first + ", " + second + inStep + "; " + plain;
    const std::string lostBeforeLast = ask + first + ", " + third + inStep + "; " + plain;
    const std::string bytes = "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E";
    struct Row {
        const char* what;
        std::string script;
        int blocks;
        bool isInStep = true;
    };
    const Row rows[] = {
        {"whole ones", whole + "; " + whole + inStep, 2},
        {"the third loss is the last",
         lost + "; " + lostBeforeLast + "; " + lost + "; " + shorts + lossInStep, 4},
        {"no such command", ask + "FE 20; " + plain + "; " + shorts + inStep, 2},
        {"busy for once", ask + "FE 10; " + plain + "; " + whole + inStep, 2},
        {"silence", point + "F5 0F" + inStep + "; " + plain + "; " + shorts + lossInStep, 2},
        {"refused on the way", ask + first + ", FE 29; " + plain + "; " + shorts + inStep, 2},
        {"one too many", whole + ", " + third + ", FF 11" + inStep, 1, false},
        {"what cannot be read", ask + "FE 22; " + point + "F5 07 > FE 22; " + whole + inStep, 2},
    };
    for (const Row& row : rows) {
        Bench bench("FF 00 > FF 05 40 08 08 00 01 01; " + row.script);
        bench.run("connect");
        std::string expected;
        for (int i = 0; i < row.blocks; ++i) {
            const bool isRefused = i == 0 && row.script.find("F5 07 > FE 22") != std::string::npos;
            EXPECT_EQ(bench.run("uploadBlocks 15"), isRefused ? "UPLOAD: ERR_OUT_OF_RANGE (0x22)" : bytes)
                << row.what << i;
        }
        EXPECT_EQ(bench.run("confirm"), row.isInStep ? "in step" : "out of step") << row.what;
    }
}

TEST(MasterMemory, WritesBlocksAndWhatIsRefusedOfThemOnceMore) {
    const std::string data = "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13";
    const std::string info = "FB > FF 00 01 00 03 02 00 10; ", point = "F6 00 00 00 10 00 00 00 > FF; ";
    const std::string block =
        point + "F0 12 00 01 02 03 04 05; EF 0C 06 07 08 09 0A 0B; EF 06 0C 0D 0E 0F 10 11";
    const std::string plain =
        "F6 00 00 00 10 00 00 00 > FF; F0 06 00 01 02 03 04 05 > FF; "
        "F0 06 06 07 08 09 0A 0B > FF; F0 06 0C 0D 0E 0F 10 11 > FF; ";
    const std::string rest = "F6 00 00 00 22 00 00 00 > FF; F0 02 12 13 > FF";
    const std::string allPlain = plain + "F0 02 12 13 > FF", synch = "; FC > FE 00; ";
    const std::pair<std::string, int> rows[] = {
        {info + block + " > FF; " + rest + "; " + block + " > FF; " + rest, 2},
        {"FB > FE 20; " + allPlain, 1},
        {info + block + " > FE 29 0C" + synch + plain + rest + "; " + allPlain, 2},
        {info + block + synch + plain + rest + "; " + allPlain, 2},
        // Refused at its first packet: nothing else of it is sent.
        {info + point + "F0 12 00 01 02 03 04 05 > FE 20" + synch + plain + rest + "; " + allPlain, 2},
    };
    for (const auto& [script, count] : rows) {
        Bench bench("FF 00 > FF 05 80 08 08 00 01 01; " + script);
        bench.run("connect");
        const auto begin = bench.clock.nowNs();
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(bench.run("downloadBlocks " + data), "ok") << script;
        const bool isSent = script.find("EF 06") != std::string::npos;
        EXPECT_GE(bench.clock.nowNs() - begin, isSent ? 400'000 : 0) << script;
    }
}

std::string text(const DaqCapabilities& daq) {
    std::string result = fmt::format(
        "{:d}{:d}{:d}{:d} {:d}{:d}{:d}{:d} {}-{} id {} {} entry {}/{} stamp {}/{}:", daq.dynamicConfiguration,
        daq.prescalerSupported, daq.timestampSupported, daq.timestampFixed, daq.overloadInPid,
        daq.overloadEvent, daq.resumeSupported, daq.pidOffSupported, daq.minDaq, daq.maxDaq,
        static_cast<int>(daq.identification), daq.addressExtensionType, daq.entryGranularity,
        daq.maxEntrySize, daq.timestampSize, daq.tickNs);
    for (const EventChannel& event : daq.events) {
        result += fmt::format(" {}/{}", event.name, event.cycleNs);
    }
    return result;
}

TEST(MasterDaq, GathersCapabilitiesAndEventNames) {
    const std::pair<const char*, const char*> rows[] = {
        {"FF 05 01 08 00 08 01 01; "  // Motorola
         "DA > FF 53 00 05 00 02 01 60; D9 > FF 00 06 01 02 6A 00 19; "
         "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02; FC > FE 00; "
         "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02; FC > FE 00; "
         "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02 > FF 65 6E; "
         "D7 00 00 01 > FF 04 FF 00 02 60 00",  // the unit in the upper half
         "1111 1000 1-5 id 1 2 entry 1/6 stamp 2/25000000: 1 ms even/10000000 /2000000"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9; FC > FE 00; D9; FC > FE 00; D9; FC > FE 00; "
         "D7 00 00 00; FC > FE 00; D7 00 00 00; FC > FE 00; D7 00 00 00",
         "1100 0000 0-0 id 0 0 entry 1/7 stamp 0/0:"},
        {"FF 01 00 08 08 00 01 01", "slave does not offer the DAQ resource"},
        {"@; DA > FF 13 00 00 00 00 00", "GET_DAQ_PROCESSOR_INFO response too short"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FF 00 00 00 00 00",
         "GET_DAQ_EVENT_INFO response too short"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FE 20",
         "1100 0000 0-0 id 0 0 entry 1/7 stamp 0/0:"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FF 02 04 00 00 32 01; D7 00 00 00 > FE 20",
         "1100 0000 0-0 id 0 0 entry 1/7 stamp 0/0:"},
    };
    for (const auto& row : rows) {
        Bench bench(std::string("FF 00 > ") + row.first);
        bench.run("connect");
        const auto read = bench.master.daqCapabilities();
        EXPECT_EQ(read ? text(read.value()) : read.error().text(), row.second);
    }
}

std::string text(const DaqListInfo& list) {
    std::string result = fmt::format("{}{:d}{:d} {}x{}", list.number, list.predefined, list.offersDaq,
                                     list.maxOdt, list.maxEntries);
    if (list.fixedEvent) result += fmt::format(" @{}", *list.fixedEvent);
    for (const Odt& odt : list.odts) {
        result += fmt::format(" [{}", odt.recordOffset);
        for (const OdtEntry& e : odt.entries)
            result += fmt::format(" {:x}/{}/{}/{}", e.address.address, e.address.extension, e.size, e.offset);
        result += ']';
    }
    return result + "; ";
}

TEST(MasterDaq, AsksForListsAndForWhatPredefinedOnesCarry) {
    const std::pair<const char*, const char*> rows[] = {
        // A short answer without a fixed event; entries up to the end, to size 0 and in 7 bytes; no list 3.
        {"DA > FF 00 05 00 00 00 01 00; D8 00 00 00 > FF 04 02 03 00 00; E2 00 00 00 00 00 > FF; "
         "DB > FF FF 02 01 00 10 00 00; DB > FF 04 00 78 56 34 12; DB; FC > FE 00; E2 00 00 00 00 02 > FF; "
         "DB > FF 03 01 00 00 20 00 00; E2 00 00 00 01 00 > FF; DB > FF FF 00 00 00 00 00 00; "
         "D8 00 01 00 > FF 06 05 07 2C 01; D8 00 02 00 > FF 08 01 01; D8 00 03 00 > FE 22",
         "011 2x3 [0 1000/1/2/0 12345678/0/4/2 2000/0/1/6]; 101 5x7 @300; 200 1x1; "},
        {"DA > FF 01 00 00 00 00 00 00", ""},  // dynamic, none predefined: nothing is asked
        {"DA > FF 01 00 00 00 00 01 00; D8 00 00 00 > FF 05 01 01; E2 00 00 00 00 00 > FF; DB > FE 20",
         "011 1x1; "},
        {"DA > FF 00 01 00 00 00 00 00; D8 00 00 00 > FE 20", "not told"},
        {"DA > FF 00 01 00 00 00 00 00; D8 00 00 00 > FF 06 01 01", "GET_DAQ_LIST_INFO response too short"},
        {"DA > FF 00 01 00 00 00 00 00; D8 00 00 00 > FE 25", "GET_DAQ_LIST_INFO: ERR_ACCESS_LOCKED (0x25)"},
    };
    for (const auto& [script, lists] : rows) {
        Bench bench(std::string("FF 00 > @; ") + script);
        bench.run("connect");
        DaqCapabilities capabilities;
        ASSERT_TRUE(bench.master.askDaqParts({true, false, false}, capabilities).ok());
        const auto told = bench.master.askDaqLists(capabilities);
        std::string result = !told ? told.error().text() : told.value() ? "" : "not told";
        for (const DaqListInfo& list : capabilities.lists)
            if (told) result += text(list);
        EXPECT_EQ(result, lists) << script;
    }
}

TEST(Master, OverridesCountInsteadOfTheAnswerToConnect) {
    const std::pair<ConnectOverrides, const char*> rows[] = {
        {{}, "CONNECT: reserved address granularity"},
        {{.granularity = std::uint8_t{2}}, "2 1 2064"},
        {{.granularity = std::uint8_t{4}, .byteOrder = ByteOrder::littleEndian}, "4 0 4104"},
        {{.granularity = std::uint8_t{1}, .maxDto = std::uint16_t{64}}, "1 1 64"},
    };
    for (const auto& [overrides, result] : rows) {
        Packet answer;
        for (const std::uint8_t byte : hex("FF 05 07 08 08 10 01 01"))
            answer.bytes[answer.length++] = byte;
        const auto parsed = parseConnect(overruled(answer, overrides).view());
        EXPECT_EQ(parsed
                      ? fmt::format("{} {:d} {}", parsed.value().granularity(),
                                    parsed.value().byteOrder() == ByteOrder::bigEndian, parsed.value().maxDto)
                      : parsed.error().text(),
                  result);
    }
}

TEST(MasterDaq, ConfiguresListByListAndTakesDisjointFirstPids) {
    const DaqSignal signals[] = {
        {{0x10, 1}, 4, 5, 3}, {{0x20, 0}, 4, 5, 3}, {{0x30, 0}, 2, 8, 0}, {{0x32, 0}, 1, 8, 0}};
    const DaqCapabilities capabilities{.dynamicConfiguration = true,
                                       .maxEventChannel = 9,
                                       .minDaq = 2,
                                       .timestampSize = 2,
                                       .timestampFixed = true};
    const DaqPlan plan = planDaq(signals, capabilities, {.maxDto = 8}).value();
    const std::string script =
        "FF 00 > @; D6 > FF; D5 00 02 00; FC > FE 00; D6 > FF; D5 00 02 00 > FF; D4 00 02 00 02 > FF; D4 00 "
        "03 00 01 > FF; "
        "D3 00 02 00 00 01 > FF; D3 00 02 00 01 01 > FF; D3 00 03 00 00 02 > FF; "
        "E2 00 02 00 00 00 > FF; E1 FF 04 01 10 00 00 00; "
        "FC > FE 00; E2 00 02 00 00 00 > FF; E1 FF 04 01 10 00 00 00 > FF; "
        "E2 00 02 00 01 00 > FF; E1 FF 04 00 20 00 00 00 > FF; "
        "E2 00 03 00 00 00 > FF; E1 FF 02 00 30 00 00 00 > FF; "
        "E1 FF 01 00 32 00 00 00 > FF; E0 10 02 00 05 00 03 00 > FF; "
        "E0 10 03 00 08 00 01 00 > FF; DE 02 02 00 > FF 20; DE 02 03 00 > ";
    const char* const collide = "START_STOP_DAQ_LIST: the ECU's first PIDs";
    // The slave's own; overlapping; not told by one; none of a DTO.
    for (const auto& [answer, expected] :
         {std::pair{"FF 22", "20 22"}, {"FF 21", collide}, {"FF", "20 02"}, {"FF FC", collide}}) {
        Bench bench(script + answer);
        bench.run("connect");
        const auto pids = bench.master.configureDaq(plan);
        const std::string told =
            pids ? test::hexText(pids.value().data(), pids.value().size()) : pids.error().text();
        EXPECT_EQ(told.substr(0, std::string(expected).size()), expected) << answer;
    }
    // Lost: the start, whose lists run by then or not.
    Bench bench(script +
                "FF 21; DD 01; FC > FE 00; FD > FF 00 00 00 00 00; DE 02 02 00 > FF 20; DE 02 03 00 > FF 21; "
                "DD 01; FC > FE 00; FD > FF 40 00 00 00 00; DD 00 > FF");
    bench.run("connect");
    EXPECT_EQ(bench.master.configureDaq(plan, FirstPids::planned).value(), (std::vector<std::uint8_t>{0, 2}));
    EXPECT_TRUE(bench.master.startDaq() && bench.master.stopDaq());
}

TEST(MasterDaq, WritesStaticListsAndStartsPredefinedOnes) {
    DaqCapabilities capabilities{.prescalerSupported = true, .maxEventChannel = 9};
    const Odt ready{.entries = {{{0x40, 0}, 2, 0}}};
    capabilities.lists = {{.number = 1, .predefined = true, .maxOdt = 4, .odts = {ready, ready}},
                          {.number = 3, .maxOdt = 2, .maxEntries = 1}};
    const DaqSignal signals[] = {{{0x10, 0}, 4, 5, 8}, {{0x20, 0}, 4, 5, 8}, {{0x40, 0}, 2, 6, 1}};
    const DaqPlan plan = planDaq(signals, capabilities, {.maxDto = 8}).value();
    const std::string prepared =
        "FF 00 > @; DD 00 > FE 2A; E3 00 03 00; FC > FE 00; E3 00 03 00 > FF; "
        "E2 00 03 00 00 00 > FF; E1 FF 04 00 10 00 00 00 > FF; E2 00 03 00 01 00 > FF; "
        "E1 FF 04 00 20 00 00 00 > FF; E0 00 03 00 05 00 08 00 > FF; E0 00 01 00 06 00 01 00 > FF; ";
    // Told, by one, by none.
    for (const auto& [answers, expected] : {std::pair{"DE 02 03 00 > FF 20; DE 02 01 00 > FF 30", "20 30"},
                                            std::pair{"DE 02 03 00 > FF 20; DE 02 01 00 > FF", "20 00"},
                                            std::pair{"DE 02 03 00 > FF; DE 02 01 00 > FF", "04 00"}}) {
        Bench bench(prepared + answers);
        bench.run("connect");
        const auto pids = bench.master.configureDaq(plan).value();
        EXPECT_EQ(test::hexText(pids.data(), pids.size()), expected);
    }
}

TEST(MasterDaq, WritesEntriesTogetherWhereTheSlaveCan) {
    std::vector<DaqSignal> signals;
    for (std::uint32_t i = 0; i < 3; ++i)
        signals.push_back({{0x10 + i, 1}, 1, 0, 1});
    signals.push_back({{0x20, 0}, 5, 0, 1});
    signals.push_back({{0x30, 0}, 1, 0, 1});
    const DaqCapabilities capabilities{.dynamicConfiguration = true, .maxEventChannel = 9};
    const DaqPlan plan = planDaq(signals, capabilities, {.maxDto = 8}).value();
    const std::string together = "C7 02 FF 05 20 00 00 00 00 00 FF 01 10 00 00 00 01 00";
    const std::string plain =
        "E2 00 00 00 00 00 > FF; E1 FF 05 00 20 00 00 00 > FF; E1 FF 01 01 10 00 00 00 > ";
    const std::string secondTogether =
        "E2 00 00 00 01 00 > FF; C7 02 FF 01 12 00 00 00 01 00 FF 01 30 00 00 00 00 00 > FF; ";
    const std::string secondPlain =
        "E2 00 00 00 01 00 > FF; E1 FF 01 01 12 00 00 00 > FF; E1 FF 01 00 30 00 00 00 > FF; ";
    const std::string rest = "E0 00 00 00 00 00 01 00 > FF; DE 02 00 00 > FF 00";
    const std::string third = "E1 FF 01 01 11 00 00 00 > FF; ";
    const struct {
        const char* what;
        std::string script;
        const char* result;
    } rows[] = {
        {"known", together + " > FF; C7 01 FF 01 11 00 00 00 01 00 > FF; " + secondTogether + rest, "ok"},
        {"not known", together + " > FE 20; " + plain + "FF; " + third + secondPlain + rest, "ok"},
        {"an entry is refused", together + " > FE 22; " + plain + "FE 22",
         "WRITE_DAQ: ERR_OUT_OF_RANGE (0x22)"},
        {"an answer is lost", together + "; FC > FE 00; " + plain + "FF; " + third + secondPlain + rest,
         "ok"},
    };
    for (const auto& row : rows) {
        Bench bench(
            "FF 00 > FF 05 00 12 08 00 01 01; D6 > FF; D5 00 01 00 > FF; D4 00 00 00 02 > FF; "
            "D3 00 00 00 00 03 > FF; D3 00 00 00 01 02 > FF; E2 00 00 00 00 00 > FF; " +
                row.script,
            {.t1 = 20, .t7 = 0, .offersWriteDaqMultiple = true});
        bench.run("connect");
        DaqRefusal refusal;
        const auto done = bench.master.configureDaq(plan, FirstPids::told, refusal);
        EXPECT_EQ(done ? "ok" : done.error().text(), row.result) << row.what;
        EXPECT_EQ(refusal.offset.has_value(), !done.ok());
    }
}

}  // namespace
}  // namespace lm::xcp
