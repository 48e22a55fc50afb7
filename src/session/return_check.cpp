#include "session/return_check.h"

#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/printable_text.h"
#include "session/change_log.h"

namespace lm::session {

using OnReset = SessionConfig::OnReset;

Identity ReturnCheck::identity() const {
    const std::lock_guard lock(mutex_);
    return identity_;
}

void ReturnCheck::setIdentity(Identity identity) {
    const std::lock_guard lock(mutex_);
    identity_ = std::move(identity);
}

bool ReturnCheck::sawOtherSoftware() const {
    const std::lock_guard lock(mutex_);
    return sawOther_;
}

Result<EcuReturn> ReturnCheck::look(const std::string& ecuName) {
    EcuReturn back;
    lookAtSoftware(back);
    if (!back.ending.empty()) return back;
    const auto compared = watch_.compare();
    if (!compared) return compared.error();
    const ParameterWatch::Comparison& found = compared.value();
    if (!found.unknown.empty()) {
        back.notes.push_back(
            {"parameters", fmt::format("whether the ECU holds the parameters from before the connection "
                                       "was lost is not known: {}",
                                       fmt::join(found.unknown, "; "))});
    }
    if (found.different.empty()) return back;
    back.notes.push_back(
        {"parameters", fmt::format("the ECU lost parameters while it was away, by a reset most likely; not "
                                   "as before: {}",
                                   fmt::join(found.different, "; "))});
    if (config_.onReset == OnReset::stop)
        back.ending = "the ECU was reset and lost parameters (calibration.onReset is \"stop\")";
    if (config_.onReset == OnReset::reapply) reapply(found, ecuName, back);
    return back;
}

/// An EPK that cannot be read any more is no other one: it is told when something is to be written.
void ReturnCheck::lookAtSoftware(EcuReturn& back) {
    if (config_.identityCheck == SessionConfig::IdentityCheck::off) return;
    const Identity before = identity();
    MasterMemory memory(master_, {.wholeUnits = true});
    Identity now = readIdentity(memory, description_.parameters);
    const bool isOther = now.state == Identity::State::different && now.ecu != before.ecu;
    const std::string text = now.text();
    {
        const std::lock_guard lock(mutex_);
        identity_ = std::move(now);
        sawOther_ = sawOther_ || isOther;
    }
    if (!isOther) return;
    back.notes.push_back(
        {"software", "the ECU came back with another software: " + text + ": values may be wrong"});
    if (config_.identityCheck == SessionConfig::IdentityCheck::refuse && !ignoresIdentity_)
        back.ending = text + " (identity.check is \"refuse\")";
}

/// Empty when all is well.
std::string ReturnCheck::whyNotAgain(const ParameterWatch::Comparison& found) const {
    const Identity now = identity();
    const bool isSure = now.state == Identity::State::same || now.state == Identity::State::unknown;
    if (!isSure && !ignoresIdentity_) return now.text();
    if (found.pagesMoved) return "XCP is on another page than the one that was written";
    return {};
}

void ReturnCheck::reapply(const ParameterWatch::Comparison& found, const std::string& ecuName,
                          EcuReturn& back) {
    const auto note = [&](std::string text) { back.notes.push_back({"writtenAgain", std::move(text)}); };
    if (found.lost.empty()) return note("this session wrote nothing that could be written again");
    if (const std::string reason = whyNotAgain(found); !reason.empty())
        return note(fmt::format("{} object(s) are not written again: {}", found.lost.size(), reason));
    const auto done = watch_.writeAgain(found.lost);
    ChangeLog log(ecuName, "measure, again after a reset");
    std::size_t count = 0;
    std::string failures;
    for (std::size_t i = 0; i < found.lost.size(); ++i) {
        if (i < done.size() && done[i]) {
            ++count;
            if (!done[i].value().pieces.empty()) log.add(done[i].value(), false);
            continue;
        }
        const std::string reason = i < done.size() ? done[i].error().text() : "not tried any more";
        failures +=
            fmt::format("{}{}: {}", failures.empty() ? "" : "; ", printableText(found.lost[i].name), reason);
    }
    log.flush();
    note(fmt::format("{} of {} object(s) that this session wrote are written again and read back{}", count,
                     found.lost.size(), failures.empty() ? "" : ", NOT: " + failures));
}

}  // namespace lm::session
