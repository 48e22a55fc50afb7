#include "cli/command_unlock.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

#include "cli/option_set.h"
#include "cli/stop_signal.h"

namespace lm::cli {
namespace {

using session::LockOutcome;

constexpr std::array<const char*, xcp::kResources.size()> kNames = {"cal", "daq", "stim", "pgm"};

class UnlockReport final : public IReport {
  public:
    explicit UnlockReport(const std::vector<LockOutcome>& outcomes) : outcomes_(outcomes) {}

    void print(Output& output) const override {
        for (const LockOutcome& outcome : outcomes_) {
            const std::string why = outcome.error ? ": " + outcome.error->text() : "";
            output.append(
                fmt::format("{:<15}{}{}\n", xcp::resourceName(outcome.resource), word(outcome), why));
        }
        if (outcomes_.empty()) output.append("nothing can be locked: the ECU offers no resources\n");
    }

    void write(JsonWriter& json) const override {
        json.key("resources").beginArray();
        for (const LockOutcome& outcome : outcomes_) {
            json.beginObject();
            json.member("name", xcp::resourceName(outcome.resource));
            json.member("state", word(outcome));
            if (outcome.error) {
                json.key("error").beginObject();
                writeError(json, *outcome.error);
                json.endObject();
            }
            json.endObject();
        }
        json.endArray();
    }

  private:
    static const char* word(const LockOutcome& outcome) {
        static constexpr std::array<const char*, 3> kWords = {"open", "unlocked", "locked"};
        return kWords.at(static_cast<std::size_t>(outcome.state));
    }

    const std::vector<LockOutcome>& outcomes_;
};

}  // namespace

void UnlockCommand::addOptions(OptionSet& options) {
    options
        .add("resources", names_,
             "cal (CAL/PAG), daq, stim, pgm (all that the ECU offers when none is given)")
        .oneOf({kNames.begin(), kNames.end()});
}

int UnlockCommand::run(Workplace& place) {
    std::vector<xcp::Resource> wanted;
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (std::find(names_.begin(), names_.end(), kNames[i]) != names_.end())
            wanted.push_back(xcp::kResources[i]);
    }
    const auto outcomes = place.session->unlock(wanted);
    if (!outcomes) {
        place.results.failOrStopped("unlock", outcomes.error());
        return 1;
    }
    place.results.show(UnlockReport(outcomes.value()));
    int exitCode = stopRequested() ? 1 : 0;
    for (const LockOutcome& outcome : outcomes.value()) {
        if (outcome.state != LockOutcome::State::locked) continue;
        exitCode = 1;
        if (outcome.error) place.results.hint(*outcome.error);
    }
    return exitCode;
}

}  // namespace lm::cli
