#include "cli/described_memory.h"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "core/printable_text.h"

namespace lm::cli {
namespace {

std::string epkLine(const a2l::ModuleParameters& parameters) {
    if (parameters.epk.empty() && parameters.epkAddresses.empty()) return "";
    std::string text = parameters.epk.empty() ? "no text" : "\"" + printableText(parameters.epk) + "\"";
    if (parameters.epkAddresses.empty()) text += ", no address: nothing can be compared";
    for (const std::uint32_t address : parameters.epkAddresses)
        text += fmt::format(" at 0x{:08X}", address);
    return fmt::format("{:<14} {}\n", "EPK", text);
}

std::string segmentLine(const a2l::MemorySegment& segment) {
    std::string line = fmt::format("  {:<12} {} {} {}, 0x{:08X}, {} bytes",
                                   segment.xcp ? fmt::format("segment {}", segment.xcp->number) : "memory",
                                   printableText(segment.name), printableText(segment.programType),
                                   printableText(segment.memoryType), segment.address, segment.size);
    if (segment.xcp && segment.xcp->checksum)
        line += ", checksum " + printableText(segment.xcp->checksum->word);
    if (segment.xcp && segment.xcp->addressExtension != 0)
        line += fmt::format(", address extension {}", segment.xcp->addressExtension);
    return line + "\n";
}

std::string pageLines(const a2l::XcpSegment& segment) {
    std::string lines;
    for (const a2l::XcpPage& page : segment.pages)
        lines +=
            fmt::format("    page {:<6} {}\n", page.number, pageAccessText(page.ecu, page.read, page.write));
    for (const a2l::AddressMapping& mapping : segment.mappings)
        lines += fmt::format("    mapping     0x{:08X} lies at 0x{:08X}, {} bytes\n", mapping.from,
                             mapping.to, mapping.size);
    return lines;
}

void writePage(JsonWriter& json, const a2l::XcpPage& page) {
    json.beginObject();
    json.member("page", page.number);
    json.member("ecuAccess", a2l::pageAccessName(page.ecu));
    json.member("readAccess", a2l::pageAccessName(page.read));
    json.member("writeAccess", a2l::pageAccessName(page.write));
    json.endObject();
}

void writeSegment(JsonWriter& json, const a2l::MemorySegment& segment) {
    json.beginObject();
    json.member("name", segment.name);
    json.member("programType", segment.programType);
    json.member("memoryType", segment.memoryType);
    json.member("address", segment.address);
    json.member("size", segment.size);
    if (segment.xcp) {
        json.member("segment", segment.xcp->number);
        json.member("addressExtension", segment.xcp->addressExtension);
        if (segment.xcp->checksum) json.member("checksum", segment.xcp->checksum->word);
        json.key("pages").beginArray();
        for (const a2l::XcpPage& page : segment.xcp->pages)
            writePage(json, page);
        json.endArray();
    }
    json.endObject();
}

}  // namespace

std::string pageAccessText(a2l::PageAccess ecu, a2l::PageAccess read, a2l::PageAccess write) {
    return fmt::format("ECU {}, XCP reads {}, writes {}", a2l::pageAccessName(ecu), a2l::pageAccessName(read),
                       a2l::pageAccessName(write));
}

std::string describedMemoryLines(const a2l::ModuleParameters& parameters,
                                 const std::optional<a2l::XcpPag>& pag) {
    std::string lines = epkLine(parameters);
    if (parameters.segments.empty()) return lines;
    const auto& all = parameters.segments;
    const auto paged = std::count_if(
        all.begin(), all.end(), [](const a2l::MemorySegment& segment) { return segment.xcp.has_value(); });
    lines += fmt::format("{:<14} {} segment(s), {} of them known to XCP{}\n", "memory", all.size(), paged,
                         pag && pag->freeze ? ", pages can be stored" : "");
    for (const a2l::MemorySegment& segment : all) {
        lines += segmentLine(segment);
        if (segment.xcp) lines += pageLines(*segment.xcp);
    }
    return lines;
}

void writeDescribedMemory(JsonWriter& json, const a2l::ModuleParameters& parameters,
                          const std::optional<a2l::XcpPag>& pag) {
    if (!parameters.epk.empty()) json.member("epk", parameters.epk);
    if (!parameters.epkAddresses.empty()) json.listMember("epkAddresses", parameters.epkAddresses);
    if (pag) json.member("pagesCanBeStored", pag->freeze);
    if (parameters.segments.empty()) return;
    json.key("segments").beginArray();
    for (const a2l::MemorySegment& segment : parameters.segments)
        writeSegment(json, segment);
    json.endArray();
}

}  // namespace lm::cli
