#include "sim/a2l_interface.h"

#include <fmt/format.h>

#include "sim/checksums.h"
#include "sim/event_cycle.h"
#include "sim/offered_commands.h"

namespace lm::sim {
namespace {

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
    const BlockOptions& blocks = options.blocks;
    if (blocks.answers || blocks.maxBs != 0) {
        text +=
            fmt::format("        COMMUNICATION_MODE_SUPPORTED BLOCK{}{}\n", blocks.answers ? " SLAVE" : "",
                        blocks.maxBs == 0 ? "" : fmt::format(" MASTER {} {}", blocks.maxBs, blocks.pause));
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

std::string predefinedOdts(const StaticList& list, std::uint8_t granularity) {
    std::string text = "          /begin PREDEFINED\n";
    for (std::size_t odt = 0; odt < list.predefined.size(); ++odt) {
        text += fmt::format("            /begin ODT {}\n", odt);
        for (std::size_t i = 0; i < list.predefined[odt].size(); ++i) {
            const StaticList::Entry& entry = list.predefined[odt][i];
            text += fmt::format("              ODT_ENTRY {} 0x{:08X} {} {} 0xFF\n", i, entry.address,
                                entry.extension, entry.size / granularity);
        }
        text += "            /end ODT\n";
    }
    return text + "          /end PREDEFINED\n";
}

std::string daqLists(const Options& options) {
    std::string text;
    for (std::size_t i = 0; i < options.staticLists.size(); ++i) {
        const StaticList& list = options.staticLists[i];
        text += fmt::format(
            "        /begin DAQ_LIST {}\n"
            "          DAQ_LIST_TYPE DAQ\n"
            "          MAX_ODT {}\n"
            "          MAX_ODT_ENTRIES {}\n",
            i, list.maxOdts, list.maxEntries);
        if (options.identification == 0) text += fmt::format("          FIRST_PID {}\n", list.firstPid);
        if (list.event) text += fmt::format("          EVENT_FIXED {}\n", *list.event);
        if (!list.predefined.empty()) text += predefinedOdts(list, options.granularity);
        text += "        /end DAQ_LIST\n";
    }
    return text;
}

std::string events(const Options& options, const Catalog& catalog) {
    std::string text;
    for (std::size_t event = 0; event < kEventCount; ++event) {
        const EventCycle cycle = eventCycle(options, static_cast<std::uint8_t>(event));
        text += fmt::format(
            "        /begin EVENT\n"
            "          \"{}\" \"event{}\" {} DAQ 255 {} {} 0\n"
            "        /end EVENT\n",
            catalog.eventNames()[event], event, event, cycle.count, cycle.unit);
    }
    return text;
}

std::string daqBlock(const Options& options, const Catalog& catalog) {
    if (!options.daq) return {};
    static constexpr const char* kIdentification[] = {"ABSOLUTE", "RELATIVE_BYTE", "RELATIVE_WORD",
                                                      "RELATIVE_WORD_ALIGNED"};
    std::string text = fmt::format(
        "      /begin DAQ\n"
        "        {}\n"
        "        {} {} {}\n"
        "        OPTIMISATION_TYPE_DEFAULT\n"
        "        ADDRESS_EXTENSION_FREE\n"
        "        IDENTIFICATION_FIELD_TYPE_{}\n"
        "        GRANULARITY_ODT_ENTRY_SIZE_DAQ_{}\n"
        "        {}\n",
        options.isStatic() ? "STATIC" : "DYNAMIC", options.isStatic() ? options.staticLists.size() : 255U,
        kEventCount, options.reservedLists(), kIdentification[options.identification],
        granularityWord(options.granularity), options.maxOdtEntrySize());
    text += options.overload == OverloadIndication::event    ? "        OVERLOAD_INDICATION_EVENT\n"
            : options.overload == OverloadIndication::topBit ? "        OVERLOAD_INDICATION_PID\n"
                                                             : "        NO_OVERLOAD_INDICATION\n";
    if (options.prescaler) text += "        PRESCALER_SUPPORTED\n";
    if (options.pidOff) text += "        PID_OFF_SUPPORTED\n";
    return text + timestamps(options) + daqLists(options) + events(options, catalog) + "      /end DAQ\n";
}

std::string pagBlock(const Options& options, const Catalog& catalog) {
    if (options.paging.pages == 0) return {};
    return fmt::format(
        "      /begin PAG\n"
        "        {}{}\n"
        "      /end PAG\n",
        catalog.segments().size(), options.paging.freeze ? " FREEZE_SUPPORTED" : "");
}

std::string segment(std::size_t number, const SegmentPlace& place, const PageOptions& paging) {
    std::string text = fmt::format(
        "      /begin MEMORY_SEGMENT parameters_{0} \"\" DATA FLASH INTERN 0x{1:08X} 0x{2:X} -1 -1 -1 -1 -1\n"
        "        /begin IF_DATA XCP\n"
        "          /begin SEGMENT {0} {3} {4} 0 0\n"
        "            /begin CHECKSUM {5}{6} /end CHECKSUM\n",
        number, place.base, place.size, paging.pages, place.extension, checksumWord(paging.checksumType),
        paging.checksumType == 0xFF ? " EXTERNAL_FUNCTION \"demo_sum.dll\"" : "");
    for (unsigned page = 0; page < paging.pages; ++page) {
        text += fmt::format(
            "            /begin PAGE {} ECU_ACCESS_DONT_CARE XCP_READ_ACCESS_DONT_CARE XCP_WRITE_ACCESS_{}"
            " INIT_SEGMENT {} /end PAGE\n",
            page, page == 0 && paging.pages > 1 ? "NOT_ALLOWED" : "DONT_CARE", number);
    }
    return text +
           "          /end SEGMENT\n"
           "        /end IF_DATA\n"
           "      /end MEMORY_SEGMENT\n";
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
    if (options.canDaqId && options.canListIds.empty()) {
        text += fmt::format(
            "        /begin DAQ_LIST_CAN_ID\n"
            "          {} FIXED 0x{:X}\n"
            "        /end DAQ_LIST_CAN_ID\n",
            options.minDaq, *options.canDaqId);
    }
    for (std::size_t i = 0; i < options.canListIds.size(); ++i) {
        text += fmt::format(
            "        /begin DAQ_LIST_CAN_ID\n"
            "          {} {}\n"
            "        /end DAQ_LIST_CAN_ID\n",
            i, options.canListIdsVariable ? "VARIABLE" : fmt::format("FIXED 0x{:X}", options.canListIds[i]));
    }
    if (!options.canListIds.empty()) text += "        OPTIONAL_TL_SUBCMD GET_DAQ_ID\n";
    if (options.canListIdsVariable) text += "        OPTIONAL_TL_SUBCMD SET_DAQ_ID\n";
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

}  // namespace

std::string_view orderWord(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "MSB_FIRST" : "MSB_LAST";
}

std::string a2lSoftware(const Options& options, const Catalog& catalog) {
    std::string text;
    if (!options.paging.epk.empty())
        text = fmt::format("      EPK \"{}\"\n      ADDR_EPK 0x{:08X}\n", options.paging.epk, kEpkBase);
    for (std::size_t i = 0; i < catalog.segments().size(); ++i)
        text += segment(i, catalog.segments()[i], options.paging);
    return text;
}

std::string a2lInterface(const Options& options, const Catalog& catalog) {
    return protocolLayer(options) + daqBlock(options, catalog) + pagBlock(options, catalog) +
           transportLayer(options);
}

}  // namespace lm::sim
