#include "sim/faults.h"

#include <limits>
#include <optional>

#include "core/text.h"
#include "sim/protocol.h"

namespace lm::sim {
namespace {

struct KindName {
    std::string_view name;
    FaultKind kind;
    std::uint32_t argument;  ///< when the rule gives none
    bool ofSamples;          ///< may stand with DAQ
};

constexpr KindName kFaultKinds[] = {
    {"ignore", FaultKind::ignore, 0, false},
    {"lose", FaultKind::lose, 0, false},
    {"late", FaultKind::late, 300, false},
    {"double", FaultKind::twice, 0, false},
    {"lose-part", FaultKind::losePart, 2, false},
    {"extra-part", FaultKind::extraPart, 2, false},
    {"short", FaultKind::cut, 1, false},
    {"wrong", FaultKind::wrong, 0, false},
    {"stray", FaultKind::stray, 0, false},
    {"busy", FaultKind::busy, 0, false},
    {"error", FaultKind::error, 0x31, false},
    {"pending", FaultKind::pending, 300, false},
    {"terminate", FaultKind::terminate, 0, true},
    {"silence", FaultKind::silence, 0, true},
    {"restart", FaultKind::restart, 0, true},
    {"stall", FaultKind::stall, 300, true},
    {"jump", FaultKind::jump, 0, true},
    {"halt", FaultKind::halt, 300, false},
    {"overtaken", FaultKind::overtaken, 0, false},
    {"positive", FaultKind::positive, 0, false},
    {"endless", FaultKind::endless, 100, false},
};

constexpr std::string_view kStreamNames[kStreamFaultCount] = {"lose-odt", "overload", "ctr-gap",
                                                              "lose-datagram", "malformed"};

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == ':') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

Error fail(const std::string& text, std::string_view reason) {
    return Error{ErrorCode::invalidArgument, "fault '" + text + "': " + std::string(reason)};
}

std::optional<std::uint64_t> numberAt(const std::vector<std::string>& parts, std::size_t index,
                                      std::uint64_t missing) {
    if (index >= parts.size()) return missing;
    const Result<std::uint64_t> value =
        parseUnsigned(parts[index], NumberBase::automatic, std::numeric_limits<std::uint32_t>::max());
    if (!value.ok()) return std::nullopt;
    return value.value();
}

const KindName* findKind(std::string_view name) {
    for (const KindName& kind : kFaultKinds) {
        if (kind.name == name) return &kind;
    }
    return nullptr;
}

}  // namespace

Result<FaultPlan> FaultPlan::parse(const std::vector<std::string>& rules) {
    FaultPlan plan;
    for (const std::string& text : rules) {
        const Result<void> added = plan.add(text);
        if (!added.ok()) return added.error();
    }
    return plan;
}

Result<void> FaultPlan::add(const std::string& text) {
    std::vector<std::string> parts = split(text);
    for (std::size_t i = 0; i < kStreamFaultCount; ++i) {
        if (kStreamNames[i] != parts[0]) continue;
        const std::optional<std::uint64_t> every = numberAt(parts, 1, 0);
        if (parts.size() != 2 || !every || *every == 0) return fail(text, "EVERY expected, 1 or more");
        cycles_[i].every = *every;
        return {};
    }
    const KindName* kind = findKind(parts[0]);
    if (kind == nullptr) return fail(text, "unknown kind");
    if (parts.size() > (kind->kind == FaultKind::halt ? 6U : 5U)) return fail(text, "too many parts");
    Rule rule;
    rule.kind = kind->kind;
    if (parts.size() > 1 && parts[1] == "DAQ") {
        if (!kind->ofSamples) return fail(text, "this kind needs a command");
        rule.daq = true;
    } else if (parts.size() > 1 && parts[1] != "*") {
        const std::optional<std::uint8_t> code = commandCode(parts[1]);
        if (!code) return fail(text, "unknown command");
        rule.command = *code;
    }
    const std::optional<std::uint64_t> from = numberAt(parts, 2, 1);
    const std::optional<std::uint64_t> count = numberAt(parts, 3, 1);
    const bool negative = kind->kind == FaultKind::jump && parts.size() == 5 && parts[4].starts_with('-');
    if (negative) parts[4].erase(0, 1);
    const std::optional<std::uint64_t> argument = numberAt(parts, 4, kind->argument);
    const std::optional<std::uint64_t> pause = numberAt(parts, 5, 0);
    if (!from || *from == 0 || !count || !argument || !pause) return fail(text, "number expected");
    rule.from = *from;
    rule.count = *count;
    rule.argument = static_cast<std::uint32_t>(negative ? -*argument : *argument);
    rule.pause = static_cast<std::uint32_t>(*pause);
    rules_.push_back(rule);
    return {};
}

Fault FaultPlan::count(std::uint8_t code, bool daq) {
    Fault fault;
    for (Rule& rule : rules_) {
        if (rule.daq != daq || (!daq && rule.command != 0 && rule.command != code)) continue;
        ++rule.seen;
        const bool inSpan = rule.seen >= rule.from && (rule.count == 0 || rule.seen < rule.from + rule.count);
        if (!inSpan) continue;
        if (rule.kind == FaultKind::halt) {
            if (fault.haltMs != 0) continue;
            fault.haltMs = rule.argument;
            fault.pauseMs = rule.pause;
        } else if (fault.kind == FaultKind::none) {
            fault.kind = rule.kind;
            fault.argument = rule.argument;
        }
    }
    return fault;
}

}  // namespace lm::sim
