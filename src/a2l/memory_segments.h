// What the file says of the software that it belongs to and of the ECU's memory: the EPK and where it lies,
// the memory segments, their calibration pages and checksums.
//
// Threads: plain records; readModuleParameters one at a time. Lifetime: the records own their texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/block.h"
#include "a2l/diagnostics.h"

namespace lm::a2l {

/// Whether one side may use a page: never, only while the other side is off it, only while it is on it, or
/// either way. The numbers are those of GET_PAGE_INFO.
enum class PageAccess : std::uint8_t { never = 0, withoutOther = 1, withOther = 2, always = 3 };

/// PAGE of a SEGMENT.
struct XcpPage {
    std::uint8_t number = 0;
    PageAccess ecu = PageAccess::always;
    PageAccess read = PageAccess::always;   ///< by XCP
    PageAccess write = PageAccess::always;  ///< by XCP
    std::optional<std::uint8_t> initSegment;
};

/// CHECKSUM of a SEGMENT.
struct XcpChecksum {
    std::string word;       ///< as written: "XCP_CRC_32"
    std::uint8_t type = 0;  ///< as BUILD_CHECKSUM names it; 0: a word that no one knows
    std::optional<std::uint32_t> maxBlockSize;
    std::optional<std::uint16_t> blockAlignment;
    std::string externalFunction;  ///< never loaded
};

/// ADDRESS_MAPPING: where a part of the segment lies on the wire.
struct AddressMapping {
    std::uint32_t from = 0;
    std::uint32_t to = 0;
    std::uint32_t size = 0;
};

/// SEGMENT in the interface data of a MEMORY_SEGMENT.
struct XcpSegment {
    std::uint8_t number = 0;
    std::uint8_t pageCount = 0;
    std::uint8_t addressExtension = 0;
    std::uint8_t compression = 0;
    std::uint8_t encryption = 0;
    std::optional<XcpChecksum> checksum;
    std::vector<XcpPage> pages;  ///< in file order
    std::vector<AddressMapping> mappings;
};

/// MEMORY_SEGMENT.
struct MemorySegment {
    std::string name;
    std::string longIdentifier;
    std::string programType;  ///< DATA, CODE, ...
    std::string memoryType;   ///< FLASH, RAM, ...
    std::uint32_t address = 0;
    std::uint32_t size = 0;
    std::optional<XcpSegment> xcp;

    bool holds(std::uint32_t place) const { return place >= address && place - address < size; }
};

/// What MOD_PAR says of the software and the memory.
struct ModuleParameters {
    std::string epk;  ///< empty: none
    std::vector<std::uint32_t> epkAddresses;
    std::vector<MemorySegment> segments;  ///< in file order

    /// The address extension that the segment around the place has on the wire; 0 where none tells it.
    std::uint8_t extensionAt(std::uint32_t place) const;
    /// The segment that XCP knows by that number; nullptr when there is none.
    const MemorySegment* segment(std::uint8_t number) const;
};

/// "ADD_11" to "CRC_32" and "USER_DEFINED" for the numbers of BUILD_CHECKSUM; empty for others.
std::string_view checksumName(std::uint8_t type);
/// "never", "without the other side", "with the other side", "always".
std::string_view pageAccessName(PageAccess access);

/// What cannot be read is reported and left out.
void readModuleParameters(const Block& block, ModuleParameters& parameters, Diagnostics& diagnostics);

}  // namespace lm::a2l
