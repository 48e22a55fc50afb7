#include "cli/page_remarks.h"

#include <string>
#include <vector>

#include "cli/message_output.h"

namespace lm::cli {

void tellPages(Workplace& place) {
    if (place.session == nullptr) return;
    const std::vector<std::string> remarks = place.session->pageRemarks();
    if (remarks.empty()) return;
    if (JsonWriter* const json = place.results.json()) json->listMember("remarks", remarks);
    place.results.output().flush();
    for (const std::string& remark : remarks)
        printMessage(remark + "\n");
}

}  // namespace lm::cli
