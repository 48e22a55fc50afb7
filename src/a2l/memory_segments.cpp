#include "a2l/memory_segments.h"

#include <algorithm>
#include <array>
#include <utility>

#include "a2l/arguments.h"
#include "a2l/block_parts.h"
#include "a2l/if_data.h"

namespace lm::a2l {
namespace {

constexpr std::uint8_t kUserDefined = 0xFF;
/// By the number of BUILD_CHECKSUM, from 1.
constexpr std::array<std::string_view, 9> kChecksums = {"ADD_11", "ADD_12", "ADD_14",      "ADD_22", "ADD_24",
                                                        "ADD_44", "CRC_16", "CRC_16_CITT", "CRC_32"};

std::uint8_t checksumType(std::string_view word) {
    if (word.starts_with("XCP_")) word.remove_prefix(4);
    if (word == "USER_DEFINED") return kUserDefined;
    const auto* const found = std::find(kChecksums.begin(), kChecksums.end(), word);
    return found == kChecksums.end() ? std::uint8_t{0}
                                     : static_cast<std::uint8_t>(found - kChecksums.begin() + 1);
}

XcpChecksum readChecksum(const Block& block, Diagnostics& diagnostics) {
    enum class Word : std::uint8_t { size, alignment, function };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"MAX_BLOCK_SIZE", 1, Word::size},
        OptionalKeyword<Word>{"MTA_BLOCK_SIZE_ALIGN", 1, Word::alignment},
        OptionalKeyword<Word>{"EXTERNAL_FUNCTION", 1, Word::function},
    };
    XcpChecksum checksum;
    checksum.word = readIdentifier(block, 0, "type");
    checksum.type = checksumType(checksum.word);
    if (checksum.type == 0) tellOdd(block, "unknown type '" + checksum.word + "'", diagnostics);
    forEachOptional<Word>(block, 1, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::size)
            checksum.maxBlockSize = readCount<std::uint32_t>(block, value, "MAX_BLOCK_SIZE");
        if (word == Word::alignment)
            checksum.blockAlignment = readCount<std::uint16_t>(block, value, "MTA_BLOCK_SIZE_ALIGN");
        if (word == Word::function) checksum.externalFunction = readString(block, value, "EXTERNAL_FUNCTION");
    });
    return checksum;
}

/// What stands behind a prefix: ECU_ACCESS_ + WITH_XCP_ONLY.
struct AccessWord {
    std::string_view prefix;
    std::string_view other;  ///< the side that WITH_..._ONLY names
    PageAccess XcpPage::*field;
};

constexpr std::array kAccessWords = {
    AccessWord{"ECU_ACCESS_", "XCP", &XcpPage::ecu},
    AccessWord{"XCP_READ_ACCESS_", "ECU", &XcpPage::read},
    AccessWord{"XCP_WRITE_ACCESS_", "ECU", &XcpPage::write},
};

std::optional<PageAccess> accessOf(std::string_view rest, std::string_view other) {
    const std::string only = std::string(other) + "_ONLY";
    if (rest == "NOT_ALLOWED") return PageAccess::never;
    if (rest == "DONT_CARE") return PageAccess::always;
    if (rest == "WITHOUT_" + only) return PageAccess::withoutOther;
    if (rest == "WITH_" + only) return PageAccess::withOther;
    return std::nullopt;
}

XcpPage readPage(const Block& block, Diagnostics& diagnostics) {
    XcpPage page;
    page.number = readCount<std::uint8_t>(block, 0, "page number");
    const auto tokens = block.tokens();
    for (std::size_t i = 1; i < tokens.size(); ++i) {
        if (tokens[i].is("INIT_SEGMENT"))
            page.initSegment = readCount<std::uint8_t>(block, i + 1, "INIT_SEGMENT");
        for (const AccessWord& word : kAccessWords) {
            if (tokens[i].kind == TokenKind::string || !tokens[i].text.starts_with(word.prefix)) continue;
            const auto access = accessOf(tokens[i].text.substr(word.prefix.size()), word.other);
            if (access) page.*word.field = *access;
            if (!access) tellOdd(block, "unknown word '" + std::string(tokens[i].text) + "'", diagnostics);
        }
    }
    return page;
}

AddressMapping readMapping(const Block& block, Diagnostics&) {
    return {readCount<std::uint32_t>(block, 0, "source"), readCount<std::uint32_t>(block, 1, "destination"),
            readCount<std::uint32_t>(block, 2, "length")};
}

/// Of two pages of one number the first counts.
void addPage(XcpSegment& segment, const Block& block, Diagnostics& diagnostics) {
    auto page = readPart(block, readPage, diagnostics);
    if (!page) return;
    const bool known = std::any_of(segment.pages.begin(), segment.pages.end(),
                                   [&](const XcpPage& other) { return other.number == page->number; });
    if (known) {
        tellOdd(block, "page " + std::to_string(page->number) + " stands twice, the first counts",
                diagnostics);
    } else {
        segment.pages.push_back(*page);
    }
}

XcpSegment readSegment(const Block& block, Diagnostics& diagnostics) {
    XcpSegment segment;
    segment.number = readCount<std::uint8_t>(block, 0, "segment number");
    segment.pageCount = readCount<std::uint8_t>(block, 1, "number of pages");
    segment.addressExtension = readCount<std::uint8_t>(block, 2, "address extension");
    segment.compression = readCount<std::uint8_t>(block, 3, "compression method");
    segment.encryption = readCount<std::uint8_t>(block, 4, "encryption method");
    for (const Block& child : block.children()) {
        if (child.keyword == "CHECKSUM") readFirst(segment.checksum, child, readChecksum, diagnostics);
        if (child.keyword == "PAGE") addPage(segment, child, diagnostics);
        if (child.keyword != "ADDRESS_MAPPING") continue;
        if (const auto mapping = readPart(child, readMapping, diagnostics))
            segment.mappings.push_back(*mapping);
    }
    if (segment.pages.size() > segment.pageCount)
        segment.pageCount = static_cast<std::uint8_t>(std::min<std::size_t>(segment.pages.size(), UINT8_MAX));
    return segment;
}

MemorySegment readMemorySegment(const Block& block, Diagnostics& diagnostics) {
    constexpr std::size_t kAddress = 5;
    MemorySegment segment;
    segment.name = readIdentifier(block, 0, "name");
    segment.longIdentifier = withPlainQuotes(readString(block, 1, "long identifier"));
    segment.programType = readIdentifier(block, 2, "program type");
    segment.memoryType = readIdentifier(block, 3, "memory type");
    segment.address = readCount<std::uint32_t>(block, kAddress, "address");
    segment.size = readCount<std::uint32_t>(block, kAddress + 1, "size");
    for (const Block& child : block.children()) {
        if (!isXcpInterfaceData(child)) continue;
        for (const Block& part : child.children()) {
            if (part.keyword == "SEGMENT") readFirst(segment.xcp, part, readSegment, diagnostics);
        }
    }
    return segment;
}

void addSegment(ModuleParameters& parameters, const Block& block, Diagnostics& diagnostics) {
    auto segment = readPart(block, readMemorySegment, diagnostics);
    if (!segment) return;
    if (segment->xcp && parameters.segment(segment->xcp->number) != nullptr) {
        tellOdd(block,
                "XCP segment " + std::to_string(segment->xcp->number) + " stands twice, the first counts",
                diagnostics);
        segment->xcp.reset();
    }
    parameters.segments.push_back(std::move(*segment));
}

void readEpk(const Block& block, std::size_t at, ModuleParameters& parameters, Diagnostics& diagnostics) {
    const std::string_view keyword = block.tokens()[at].text;
    try {
        if (keyword == "ADDR_EPK") {
            parameters.epkAddresses.push_back(readCount<std::uint32_t>(block, at + 1, keyword));
        } else if (parameters.epk.empty()) {
            parameters.epk = withPlainQuotes(readString(block, at + 1, keyword));
        }
    } catch (const BlockError& error) {
        diagnostics.skipped(keyword, {}, block.tokens()[at].line, error.what());
    }
}

}  // namespace

std::uint8_t ModuleParameters::extensionAt(std::uint32_t place) const {
    for (const MemorySegment& segment : segments) {
        if (segment.xcp && segment.holds(place)) return segment.xcp->addressExtension;
    }
    return 0;
}

const MemorySegment* ModuleParameters::segment(std::uint8_t number) const {
    for (const MemorySegment& segment : segments) {
        if (segment.xcp && segment.xcp->number == number) return &segment;
    }
    return nullptr;
}

std::string_view checksumName(std::uint8_t type) {
    if (type == kUserDefined) return "USER_DEFINED";
    return type == 0 || type > kChecksums.size() ? std::string_view() : kChecksums.at(type - 1U);
}

std::string_view pageAccessName(PageAccess access) {
    static constexpr std::array<std::string_view, 4> kNames = {"never", "without the other side",
                                                               "with the other side", "always"};
    return kNames.at(static_cast<std::size_t>(access));
}

void readModuleParameters(const Block& block, ModuleParameters& parameters, Diagnostics& diagnostics) {
    const auto tokens = block.tokens();
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        if (tokens[i].is("EPK") || tokens[i].is("ADDR_EPK")) readEpk(block, i, parameters, diagnostics);
    }
    for (const Block& child : block.children()) {
        if (child.keyword == "MEMORY_SEGMENT") addSegment(parameters, child, diagnostics);
    }
}

}  // namespace lm::a2l
