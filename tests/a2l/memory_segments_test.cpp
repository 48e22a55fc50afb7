#include "a2l/memory_segments.h"

#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/description.h"

namespace lm::a2l {
namespace {

std::string dump(const MemorySegment& segment) {
    std::string out = fmt::format("{} {} {} {:x}+{:x}\n", segment.name, segment.programType,
                                  segment.memoryType, segment.address, segment.size);
    if (!segment.xcp) return out;
    const XcpSegment& xcp = *segment.xcp;
    out += fmt::format(" xcp {} pages {} ext {}", xcp.number, xcp.pageCount, xcp.addressExtension);
    if (const auto& sum = xcp.checksum)
        out += fmt::format(" sum {:x} {} {} '{}'", sum->type, sum->maxBlockSize.value_or(0),
                           sum->blockAlignment.value_or(0), sum->externalFunction);
    for (const XcpPage& page : xcp.pages)
        out += fmt::format(" page {} {}{}{} {}", page.number, static_cast<int>(page.ecu),
                           static_cast<int>(page.read), static_cast<int>(page.write),
                           page.initSegment.value_or(99));
    for (const AddressMapping& map : xcp.mappings)
        out += fmt::format(" map {:x} {:x} {:x}", map.from, map.to, map.size);
    return out + "\n";
}

TEST(MemorySegments, ReadsThemAndLeavesOddOnesOut) {
    const std::string head = "/begin MEMORY_SEGMENT cal \"\" DATA FLASH INTERN 0x1000 0x200 -1 -1 -1 -1 -1 ";
    const std::string xcp = "/begin IF_DATA XCP /begin SEGMENT 3 2 1 0 0 ";
    const std::string end = " /end SEGMENT /end IF_DATA /end MEMORY_SEGMENT";
    const struct {
        std::string text;
        std::string expected;
    } rows[] = {
        {R"(EPK "a ""b"" c" ADDR_EPK 0x80 ADDR_EPK 144 SYSTEM_CONSTANT "EPK" "x")",
         "'a \"b\" c' [128, 144]\n"},
        {"EPK ADDR_EPK 0x80", "'' [128]\nskipped: EPK (line 1): EPK must be a string"},
        {R"(EPK "x" ADDR_EPK -1)",
         "'x' []\nskipped: ADDR_EPK (line 1): ADDR_EPK must be a non-negative integer"},
        {head + "/begin IF_DATA ASAP1B_CCP 1 /end IF_DATA /end MEMORY_SEGMENT",
         "'' []\ncal DATA FLASH 1000+200\n"},
        {head + xcp +
             "/begin CHECKSUM XCP_CRC_16_CITT MAX_BLOCK_SIZE 0x100 EXTERNAL_FUNCTION \"MAX_BLOCK_SIZE\""
             " MTA_BLOCK_SIZE_ALIGN 4 /end CHECKSUM"
             " /begin PAGE 0 ECU_ACCESS_DONT_CARE XCP_READ_ACCESS_WITH_ECU_ONLY XCP_WRITE_ACCESS_NOT_ALLOWED"
             " INIT_SEGMENT 7 /end PAGE"
             " /begin PAGE 1 ECU_ACCESS_WITHOUT_XCP_ONLY XCP_READ_ACCESS_DONT_CARE"
             " XCP_WRITE_ACCESS_WITHOUT_ECU_ONLY /end PAGE"
             " /begin ADDRESS_MAPPING 0x1000 0x9000 0x200 /end ADDRESS_MAPPING" +
             end,
         "'' []\ncal DATA FLASH 1000+200\n xcp 3 pages 2 ext 1 sum 8 256 4 'MAX_BLOCK_SIZE' page 0 320 7 "
         "page "
         "1 131 99 map 1000 9000 200\n"},
        {head + xcp +
             "/begin CHECKSUM CRC_9 /end CHECKSUM /begin PAGE 1 ECU_ACCESS_SOMETIMES /end PAGE"
             " /begin PAGE 1 /end PAGE /begin PAGE x /end PAGE" +
             end,
         "'' []\ncal DATA FLASH 1000+200\n xcp 3 pages 2 ext 1 sum 0 0 0 '' page 1 333 99\n"
         "CHECKSUM (line 1): unknown type 'CRC_9'\nPAGE (line 1): unknown word 'ECU_ACCESS_SOMETIMES'\n"
         "PAGE (line 1): page 1 stands twice, the first counts\n"
         "skipped: PAGE (line 1): page number must be a non-negative integer"},
        {head + xcp + end + head + xcp + end,
         "'' []\ncal DATA FLASH 1000+200\n xcp 3 pages 2 ext 1\ncal DATA FLASH 1000+200\n"
         "MEMORY_SEGMENT (line 1): XCP segment 3 stands twice, the first counts"},
        {"/begin MEMORY_SEGMENT cal \"\" DATA FLASH INTERN zero 1 /end MEMORY_SEGMENT",
         "'' []\nskipped: MEMORY_SEGMENT (line 1): address must be a non-negative integer"},
        {head + "/begin IF_DATA XCP /begin SEGMENT 300 1 0 0 0 /end SEGMENT /end IF_DATA /end MEMORY_SEGMENT",
         "'' []\ncal DATA FLASH 1000+200\nskipped: SEGMENT (line 1): segment number must be a non-negative "
         "integer"},
    };
    for (const auto& row : rows) {
        const auto read = parseDescription("/begin PROJECT p \"\" /begin MODULE m \"\" /begin MOD_PAR \"\" " +
                                           row.text + " /end MOD_PAR /end MODULE /end PROJECT");
        ASSERT_TRUE(read.ok()) << row.text;
        const ModuleParameters& parameters = read.value().parameters;
        std::string out = fmt::format("'{}' {}\n", parameters.epk, parameters.epkAddresses);
        for (const MemorySegment& segment : parameters.segments)
            out += dump(segment);
        EXPECT_EQ(out + fmt::format("{}", fmt::join(read.value().warnings, "\n")), row.expected) << row.text;
    }
}

}  // namespace
}  // namespace lm::a2l
