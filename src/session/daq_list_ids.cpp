#include "session/daq_list_ids.h"

#include <algorithm>

#include <spdlog/fmt/fmt.h>

namespace lm::session {
namespace {

/// Of an ECU that keeps its identifiers as they are.
Error notSettable(std::uint16_t list, std::uint32_t id, const Error& reason) {
    Error error = reason;
    error.message = fmt::format("SET_DAQ_ID 0x{:X} for DAQ list {}: {}", id, list, reason.text());
    error.hint = fmt::format(
        "without the key \"{}\" under \"can.daqIds\" in the configuration the list keeps the identifier that "
        "it has",
        list);
    return error;
}

}  // namespace

const char* sourceName(DaqListId::Source source) {
    switch (source) {
        case DaqListId::Source::a2l:
            return "a2l";
        case DaqListId::Source::configuration:
            return "configuration";
        case DaqListId::Source::ecu:
            break;
    }
    return "ecu";
}

Result<void> DaqListIds::check() const {
    for (const auto& [list, id] : wanted_) {
        const auto told = fixed(list);
        if (!told || *told == id) continue;
        return Error{ErrorCode::invalidArgument,
                     fmt::format("can.daqIds: the A2L fixes CAN-ID 0x{:X} for DAQ list {}", *told, list)};
    }
    return {};
}

std::vector<DaqListId> DaqListIds::given() const {
    std::vector<DaqListId> ids;
    for (const auto& [list, id] : wanted_)
        if (!fixed(list)) ids.push_back({list, id, DaqListId::Source::configuration});
    CanIdByList described;
    for (const a2l::XcpDaqListId& list : described_)
        if (list.id) described.emplace(list.list, *list.id);
    for (const auto& [list, id] : described)
        ids.push_back({list, id, DaqListId::Source::a2l});
    std::sort(ids.begin(), ids.end(), [](const DaqListId& a, const DaqListId& b) { return a.list < b.list; });
    return ids;
}

/// The first that the file gives a list counts.
std::optional<std::uint32_t> DaqListIds::fixed(std::uint16_t list) const {
    for (const a2l::XcpDaqListId& told : described_)
        if (told.list == list && told.id) return told.id;
    return std::nullopt;
}

bool DaqListIds::isVariable(std::uint16_t list) const {
    return std::any_of(described_.begin(), described_.end(),
                       [list](const a2l::XcpDaqListId& told) { return told.list == list && !told.id; });
}

Result<std::vector<DaqListId>> DaqListIds::find(xcp::Master& master, std::span<const std::uint16_t> lists) {
    std::vector<DaqListId> ids;
    for (const std::uint16_t list : lists) {
        if (const auto told = fixed(list)) {
            ids.push_back({list, *told, DaqListId::Source::a2l});
            continue;
        }
        const auto told = ask(master, list);
        if (!told) return told.error();
        if (told.value()) ids.push_back({list, told.value()->id, DaqListId::Source::ecu});
    }
    return ids;
}

Result<std::vector<DaqListId>> DaqListIds::settle(xcp::Master& master, std::span<const std::uint16_t> lists) {
    std::vector<std::uint16_t> others;
    std::vector<DaqListId> ids;
    for (const std::uint16_t list : lists) {
        const auto wish = wanted_.find(list);
        if (wish == wanted_.end() || fixed(list)) {
            others.push_back(list);
            continue;
        }
        if (auto done = set(master, list, wish->second); !done) return done.error();
        ids.push_back({list, wish->second, DaqListId::Source::configuration});
    }
    auto found = find(master, others);
    if (!found) return found.error();
    ids.insert(ids.end(), found.value().begin(), found.value().end());
    return ids;
}

/// Of an ECU that never answers the question it is asked once, since that takes its time.
Result<std::optional<xcp::DaqId>> DaqListIds::ask(xcp::Master& master, std::uint16_t list) {
    if (neverAnswers_ || (!mayAsk_ && !isVariable(list))) return std::optional<xcp::DaqId>{};
    const auto answer = master.askDaqId(list);
    if (!answer) return answer.error();
    neverAnswers_ = !answer.value().known;
    return answer.value().told;
}

/// Some ECUs refuse what they have already; and what is believed must be what they say afterwards.
Result<void> DaqListIds::set(xcp::Master& master, std::uint16_t list, std::uint32_t id) {
    const auto before = ask(master, list);
    if (!before) return before.error();
    if (before.value() && before.value()->id == id) return {};
    if (auto done = master.setDaqId(list, id); !done) {
        const bool refused = done.error().detail != Error::kNoDetail;
        return refused ? notSettable(list, id, done.error()) : done.error();
    }
    const auto after = ask(master, list);
    if (!after) return after.error();
    if (!after.value() || after.value()->id == id) return {};
    return notSettable(list, id,
                       {.code = ErrorCode::protocolError,
                        .message = fmt::format("the ECU then tells 0x{:X}", after.value()->id)});
}

}  // namespace lm::session
