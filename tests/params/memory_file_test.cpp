// Memory images as text: what is refused and where, and that no way through either form changes a byte.
#include "params/memory_file.h"

#include <algorithm>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace lm::params {
namespace {

constexpr const char* kEnd = ":00000001FF\n";

std::string errorOf(const std::string& text) {
    const auto file = parseMemoryFile(text);
    EXPECT_TRUE(file.ok() || !file.error().hint.empty()) << file.error().text();
    return file ? "ok" : file.error().text();
}

TEST(MemoryFiles, TellWhereTheyAreMalformed) {
    const struct {
        std::string text, error;
    } rows[] = {
        {"", "neither Intel HEX nor S-records"},
        {"a2l\n", "neither Intel HEX nor S-records"},
        {kEnd, "no record with data"},
        {":01000000AA55\n", "line 1: the end record is missing behind it"},
        {":01000000AA55\r\n\r\n:01000000AA54\r\n", "line 3: the sum is 0x54, that of its bytes 0x55"},
        {":01000000AA5\n", "line 1: the record has 11 digit(s), its length byte 0x01 asks for 12"},
        {":01000000AA5500\n", "line 1: the record has 14 digit(s)"},
        {":\n", "line 1: the record has no length"},
        {":01000000AA5G\n", "line 1: 'G' is no hexadecimal digit"},
        {":01000000AA55\nS9030000FC\n", "line 2: does not begin with ':'"},
        {":01000006AA4F\n", "line 1: 0x06 is no record type from 00 to 05"},
        {":0100000410EB\n", "line 1: a record of type 04 has 2 byte(s), not 1"},
        {":02FFFF00AABB9B\n" + std::string(kEnd), "line 1: the record reaches beyond its 64 KiB"},
        {":020000040001F9\n:02FFFF00AABB9B\n" + std::string(kEnd), "ok"},
        {":02000004FFFFFC\n:02FFFF00AABB9B\n" + std::string(kEnd),
         "line 2: the record reaches beyond 32 bits"},
        {":01000000AA55\n" + std::string(kEnd) + "\n:01000000AA55\n",
         "line 4: stands behind the end record in line 2"},
        {":01000000AA55\n:01000000AA55\n" + std::string(kEnd), "ok"},
        {":0200000001AA53\n:01000100BB43\n" + std::string(kEnd),
         "line 2: 0x00000001 is 0xBB here and 0xAA in line 1"},
        {":01000100BB43\n:0200000001AA53\n" + std::string(kEnd),
         "line 2: 0x00000001 is 0xAA here and 0xBB in line 1"},
        {":0400000500000001F6\n:0400000500000002F5\n",
         "line 2: the start address is 0x00000002 here and was 0x00000001"},
        {"S104000011EA\n", "line 1: the end record is missing"},
        {"S104000011EB\n", "line 1: the sum is 0xEB, that of its bytes 0xEA"},
        {"S0\n", "line 1: the record has no length"},
        {"S40300 \n", "line 1: does not begin with S0 to S9"},
        {"S10100\n", "line 1: the record is too short for an S1"},
        {"S105FFFF1122C9\n", "line 1: the record reaches beyond the addresses of an S1"},
        {"S104000011EA\nS5030002FA\n", "line 2: counts 2 data record(s), 1 stand before it"},
        {"S104000011EA\nS904000000FB\n", "line 2: an S9 holds no data, this one has 1 byte(s)"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(errorOf(row.text).substr(0, row.error.size()), row.error) << row.text;
}

TEST(MemoryFiles, KeepWhatStandsBesideTheBytes) {
    // Written again as they are, line by line.
    for (const std::string text :
         {":020000040800F2\r\n:080100000000E8401122334425\r\n:0400000508000100EE\r\n:00000001FF\r\n",
          ":020000021000EC\n:04FFFC0001020304F7\n:020000022000DC\n:0400000005060708E2\n:0400000312345678E5\n:"
          "00123401B9\n",
          "S00600004844521B\nS30D080001000000E8401122334417\nS5030001FB\nS70508000101F0\n"}) {
        const auto file = parseMemoryFile(text);
        ASSERT_TRUE(file.ok()) << file.error().text();
        EXPECT_EQ(memoryFileText(file.value(), file.value().layout().form, 2), text);
    }
}

/// A few runs, here and there beside a border of the forms.
std::vector<MemoryRun> randomRuns(std::mt19937& random) {
    constexpr std::uint64_t kBorders[] = {0,         0x10000,    0x100000,
                                          0x1000000, 0x80000000, std::uint64_t{1} << 32U};
    std::vector<MemoryRun> runs;
    std::uint64_t free = 0;
    for (const std::uint64_t border : kBorders) {
        if (random() % 3 == 0) continue;
        const std::uint64_t start = std::max(free, border - std::min<std::uint64_t>(border, random() % 600));
        const std::uint64_t size =
            std::min<std::uint64_t>(1 + random() % 900, (std::uint64_t{1} << 32U) - start);
        if (size == 0) continue;
        MemoryRun& run = runs.emplace_back(MemoryRun{static_cast<std::uint32_t>(start), {}});
        for (std::uint64_t i = 0; i < size; ++i)
            run.bytes.push_back(static_cast<std::uint8_t>(random()));
        free = run.end() + 1;
    }
    if (runs.empty()) runs.push_back({static_cast<std::uint32_t>(random()) / 2, {0x5A}});
    return runs;
}

TEST(MemoryFiles, HoldTheSameBytesInAllForms) {
    std::mt19937 random(18);  // NOLINT(cert-msc*): the same cases each time
    for (int i = 0; i < 300; ++i) {
        const auto runs = randomRuns(random);
        MemoryFileLayout layout{.recordSize = 1 + random() % 255, .isSegmented = random() % 2 == 0};
        layout.isCounted = layout.beginsWithBase = random() % 2 == 0;
        layout.hasCarriageReturns = random() % 2 == 0;
        layout.segmentStart = static_cast<std::uint32_t>(random());
        const MemoryFile file(runs, layout);
        for (const MemoryForm form : {MemoryForm::intelHex, MemoryForm::sRecord}) {
            const std::size_t addressBytes = 2 + random() % 3;
            const std::string text = memoryFileText(file, form, addressBytes);
            const auto again = parseMemoryFile(text);
            ASSERT_TRUE(again.ok()) << i << again.error().text();
            ASSERT_EQ(again.value().runs(), runs) << i;
            const MemoryForm other =
                form == MemoryForm::intelHex ? MemoryForm::sRecord : MemoryForm::intelHex;
            const auto turned = parseMemoryFile(memoryFileText(again.value(), other, 2));
            ASSERT_TRUE(turned.ok()) << i << turned.error().text();
            ASSERT_EQ(turned.value().runs(), runs) << i;
            // A damaged character is never taken for a good one, but for the type of an S-record, which has
            // no sum.
            std::string damaged = text;
            const std::size_t at = random() % damaged.size();
            if (at > 0 && damaged[at - 1] == 'S') continue;
            damaged[at] = "0123456789ABCDEFS:\n"[random() % 19];
            const auto bad = parseMemoryFile(damaged);
            EXPECT_TRUE(!bad || bad.value().runs() == runs) << i << ' ' << at << ' ' << damaged[at];
        }
    }
}

}  // namespace
}  // namespace lm::params
