#include "exporter/csv_gaps.h"

#include <optional>
#include <string_view>

#include "exporter/csv_column.h"
#include "exporter/csv_time.h"

namespace lm::exporter {

std::string gapList(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                    const std::vector<storage::Gaps>& gaps, const std::vector<storage::Outage>& outages,
                    bool absolute) {
    CsvTime time(info, absolute);
    const std::string unit(time.unit());
    std::string text = "kind,group,begin " + unit + ",end " + unit + ",reason\r\n";
    const auto add = [&](std::string_view kind, std::string_view group, std::int64_t beginNs,
                         std::optional<std::int64_t> endNs, std::string_view reason) {
        text += kind;
        text += ',';
        appendField(text, group);
        text += ',';
        time.append(text, beginNs);
        text += ',';
        if (endNs) time.append(text, *endNs);
        text += ',';
        appendField(text, reason);
        text += "\r\n";
    };
    for (const storage::Outage& outage : outages) {
        std::string what = outage.ecu.empty() ? "" : outage.ecu + ": ";
        what += outage.reason;
        if (!outage.outcome.empty()) what += "; " + outage.outcome;
        add("outage", "", outage.beginNs, outage.endNs, what);
    }
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const std::string& name = groups[i].reader.info().name;
        for (const storage::Gap& gap : gaps[i].gaps)
            add("gap", name, gap.beginNs, gap.endNs, "");
        if (gaps[i].count > gaps[i].gaps.size()) {
            add("gap", name, gaps[i].gaps.back().endNs, std::nullopt,
                std::to_string(gaps[i].count) + " gaps, the first " + std::to_string(gaps[i].gaps.size()) +
                    " are listed");
        }
    }
    return text;
}

}  // namespace lm::exporter
