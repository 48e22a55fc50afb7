#include "sim/a2l_writer.h"

#include <fmt/format.h>

#include "sim/a2l_interface.h"
#include "sim/a2l_objects.h"

namespace lm::sim {
namespace {

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
        "    /begin MOD_PAR \"\"\n{}"
        "      SYSTEM_CONSTANT \"K_VOLT_PER_COUNT\" \"1 / $(K_COUNTS_PER_VOLT)\"\n"
        "      SYSTEM_CONSTANT \"K_COUNTS_PER_VOLT\" \"100\"\n"
        "      SYSTEM_CONSTANT \"K_VOLT_OFFSET\" \"-0.5\"\n"
        "    /end MOD_PAR\n\n"
        "    /begin IF_DATA XCP\n{}"
        "    /end IF_DATA\n",
        options.a2lVersion % 100, orderWord(options.order), a2lSoftware(options, catalog),
        a2lInterface(options, catalog));
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
