// The XCP interface data of an A2L module: what stands between /begin IF_DATA and its end.
#include "a2l/if_data.h"

#include <string>

#include "a2l/tokenizer.h"
#include "fuzz_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const std::string text =
        "/begin IF_DATA XCP\n" + std::string(fuzz::Input(data, size).rest()) + "\n/end IF_DATA";
    const Result<a2l::Block> root = a2l::parse(text);
    if (!root) return 0;
    a2l::XcpInterface xcp;
    a2l::Diagnostics diagnostics;
    for (const a2l::Block& block : root.value().children()) {
        if (!a2l::isXcpInterfaceData(block)) continue;
        a2l::readXcpInterface(block, xcp, diagnostics);
        const bool complete = xcp.protocolLayer && xcp.daq && xcp.can && xcp.udp && xcp.serial;
        const std::size_t events = xcp.daq ? xcp.daq->events.size() : 0;
        // Of several blocks of one kind the first counts: reading again adds nothing.
        if (complete) a2l::readXcpInterface(block, xcp, diagnostics);
        if (complete) fuzz::require(xcp.daq->events.size() == events, "the first DAQ block counts");
    }
    if (xcp.protocolLayer && xcp.protocolLayer->addressGranularity) {
        const unsigned granularity = *xcp.protocolLayer->addressGranularity;
        fuzz::require(granularity == 1 || granularity == 2 || granularity == 4, "granularity");
    }
    for (const std::string& told : diagnostics.take()) {
        const bool isOddity = told.starts_with("DAQ") || told.starts_with("TIMESTAMP_SUPPORTED (");
        fuzz::require(told.starts_with("skipped: ") || isOddity, "a warning begins as documented");
    }
    return 0;
}
