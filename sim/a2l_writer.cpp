#include "sim/a2l_writer.h"

#include <fmt/format.h>

#include "sim/a2l_objects.h"
#include "sim/event_cycle.h"
#include "sim/offered_commands.h"

namespace lm::sim {
namespace {

std::string_view orderWord(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "MSB_FIRST" : "MSB_LAST";
}

std::string_view granularityWord(std::uint8_t granularity) {
    return granularity == 4 ? "DWORD" : granularity == 2 ? "WORD" : "BYTE";
}

std::string protocolLayer(const Options& options) {
    std::string text = fmt::format(
        "      /begin PROTOCOL_LAYER\n"
        "        0x0101\n"
        "        1000 1000 1000 1000 1000 1000 200\n"
        "        {} {}\n"
        "        BYTE_ORDER_{}\n"
        "        ADDRESS_GRANULARITY_{}\n",
        options.maxCto, options.maxDto, orderWord(options.order), granularityWord(options.granularity));
    for (const CommandInfo& command : kCommands) {
        if (command.presence == Presence::mandatory || !isOffered(command, options)) continue;
        text += fmt::format("        OPTIONAL_CMD {}\n", command.name);
    }
    if (options.lock.resources != 0) text += "        SEED_AND_KEY_EXTERNAL_FUNCTION \"demo_key.dll\"\n";
    return text + "      /end PROTOCOL_LAYER\n";
}

std::string timestamps(const Options& options) {
    if (options.timestampSize == 0) return {};
    static constexpr const char* kUnits[] = {"1NS",   "10NS", "100NS", "1US",   "10US",
                                             "100US", "1MS",  "10MS",  "100MS", "1S"};
    const char* size = options.timestampSize == 4 ? "DWORD" : options.timestampSize == 2 ? "WORD" : "BYTE";
    return fmt::format(
        "        /begin TIMESTAMP_SUPPORTED\n"
        "          1 SIZE_{} UNIT_{}{}\n"
        "        /end TIMESTAMP_SUPPORTED\n",
        size, kUnits[options.tickExponent()], options.timestampFixed ? " TIMESTAMP_FIXED" : "");
}

std::string daqBlock(const Options& options, const Catalog& catalog) {
    if (!options.daq) return {};
    static constexpr const char* kIdentification[] = {"ABSOLUTE", "RELATIVE_BYTE", "RELATIVE_WORD",
                                                      "RELATIVE_WORD_ALIGNED"};
    std::string text = fmt::format(
        "      /begin DAQ\n"
        "        {}\n"
        "        255 {} {}\n"
        "        OPTIMISATION_TYPE_DEFAULT\n"
        "        ADDRESS_EXTENSION_FREE\n"
        "        IDENTIFICATION_FIELD_TYPE_{}\n"
        "        GRANULARITY_ODT_ENTRY_SIZE_DAQ_{}\n"
        "        {}\n",
        options.staticDaq ? "STATIC" : "DYNAMIC", kEventCount, options.minDaq,
        kIdentification[options.identification], granularityWord(options.granularity),
        options.maxOdtEntrySize());
    text += options.overload == OverloadIndication::event    ? "        OVERLOAD_INDICATION_EVENT\n"
            : options.overload == OverloadIndication::topBit ? "        OVERLOAD_INDICATION_PID\n"
                                                             : "        NO_OVERLOAD_INDICATION\n";
    text += timestamps(options);
    for (std::size_t event = 0; event < kEventCount; ++event) {
        const EventCycle cycle = eventCycle(options, static_cast<std::uint8_t>(event));
        text += fmt::format(
            "        /begin EVENT\n"
            "          \"{}\" \"event{}\" {} DAQ 255 {} {} 0\n"
            "        /end EVENT\n",
            catalog.eventNames()[event], event, event, cycle.count, cycle.unit);
    }
    return text + "      /end DAQ\n";
}

std::string onCan(const Options& options) {
    std::string text = fmt::format(
        "      /begin XCP_ON_CAN\n"
        "        0x0100\n"
        "        CAN_ID_MASTER 0x{:X}\n"
        "        CAN_ID_SLAVE 0x{:X}\n"
        "        BAUDRATE 500000\n",
        options.canCmdId, options.canResId);
    if (options.maxDlcRequired) text += "        MAX_DLC_REQUIRED\n";
    if (options.canDaqId) {
        text += fmt::format(
            "        /begin DAQ_LIST_CAN_ID\n"
            "          {} FIXED 0x{:X}\n"
            "        /end DAQ_LIST_CAN_ID\n",
            options.minDaq, *options.canDaqId);
    }
    if (options.canFd) {
        text += fmt::format(
            "        /begin CAN_FD\n"
            "          MAX_DLC {}\n"
            "          CAN_FD_DATA_TRANSFER_BAUDRATE 2000000\n"
            "        /end CAN_FD\n",
            options.maxDlc());
    }
    return text + "      /end XCP_ON_CAN\n";
}

std::string transportLayer(const Options& options) {
    if (options.serial) {
        return fmt::format(
            "      /begin XCP_ON_SxI\n"
            "        0x0100 {} ASYNCH_FULL_DUPLEX_MODE PARITY_NONE ONE_STOP_BIT\n"
            "      /end XCP_ON_SxI\n",
            options.baudrate);
    }
    if (!options.can.empty()) return onCan(options);
    return fmt::format(
               "      /begin XCP_ON_UDP_IP\n"
               "        0x0100 {} ADDRESS \"127.0.0.1\"\n"
               "      /end XCP_ON_UDP_IP\n",
               options.port) +
           onCan(options);
}

std::string head(const Options& options, const Catalog& catalog) {
    return fmt::format(
        "ASAP2_VERSION 1 {}\n"
        "/begin PROJECT demo \"Simulated ECU\"\n"
        "  /begin MODULE SimulatedEcu \"Engine controller that is not there\"\n"
        "    /begin MOD_COMMON \"\"\n"
        "      BYTE_ORDER {}\n"
        "      ALIGNMENT_BYTE 1\n"
        "      ALIGNMENT_WORD 2\n"
        "      ALIGNMENT_LONG 4\n"
        "      ALIGNMENT_INT64 8\n"
        "      ALIGNMENT_FLOAT32_IEEE 4\n"
        "      ALIGNMENT_FLOAT64_IEEE 8\n"
        "    /end MOD_COMMON\n"
        "    /begin MOD_PAR \"\"\n"
        "      SYSTEM_CONSTANT \"K_VOLT_PER_COUNT\" \"1 / $(K_COUNTS_PER_VOLT)\"\n"
        "      SYSTEM_CONSTANT \"K_COUNTS_PER_VOLT\" \"100\"\n"
        "      SYSTEM_CONSTANT \"K_VOLT_OFFSET\" \"-0.5\"\n"
        "    /end MOD_PAR\n\n"
        "    /begin IF_DATA XCP\n{}{}{}"
        "    /end IF_DATA\n",
        options.a2lVersion % 100, orderWord(options.order), protocolLayer(options),
        daqBlock(options, catalog), transportLayer(options));
}

bool isArrayOrLeaf(const Row& row) {
    return row.kind == Kind::hidden || !row.sizes.empty();
}

}  // namespace

std::string a2lText(const Options& options, const Catalog& catalog) {
    const std::uint16_t version = options.a2lVersion;
    std::string text = head(options, catalog) + a2lConversions(version);
    for (const Row& row : catalog.rows()) {
        if (isDescribed(row, version)) text += a2lObject(row, version);
    }
    if (version >= 171) text += a2lTypes(version);
    return text + a2lGroups(catalog, version) + a2lFunctions(version) + "  /end MODULE\n/end PROJECT\n";
}

std::string modelTable(const Catalog& catalog) {
    std::string text =
        "| measurement | type | byte order | mask | event | raw value |\n"
        "|---|---|---|---|---|---|\n";
    for (const Row& row : catalog.rows()) {
        if (row.model.text.empty() || isArrayOrLeaf(row)) continue;
        const char* order = row.order == ObjectOrder::module     ? "module"
                            : row.order == ObjectOrder::msbFirst ? "MSB_FIRST"
                                                                 : "MSB_LAST";
        text += fmt::format("| {} | {} | {} | {} | {} | `{}` |\n", row.name, typeInfo(row.type).name, order,
                            row.mask == 0 ? std::string("-") : fmt::format("0x{:X}", row.mask), row.event,
                            row.model.text);
    }
    text +=
        "\n"
        "| elements | i | type | event | raw value |\n"
        "|---|---|---|---|---|\n";
    for (const Row& row : catalog.rows()) {
        if (row.model.text.empty() || !isArrayOrLeaf(row)) continue;
        const int last = row.firstElement + row.elements - 1;
        text += fmt::format("| {} | {}{} | {} | {} | `{}` |\n", row.name, row.firstElement,
                            row.elements == 1 ? "" : fmt::format(" to {}", last), typeInfo(row.type).name,
                            row.event, row.model.text);
    }
    return text;
}

}  // namespace lm::sim
