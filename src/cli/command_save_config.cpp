#include "cli/command_save_config.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "cli/option_set.h"
#include "core/log.h"

namespace lm::cli {

namespace fs = std::filesystem;

void SaveConfigCommand::addOptions(OptionSet& options) {
    options.add("file", file_, "Output file").required();
}

/// The relative path of the A2L would lead to another file, or to none, from where the configuration goes.
/// Where a device or pipe takes it to is not known.
bool SaveConfigCommand::isA2lLost(const fs::path& a2l) const {
    if (a2l.empty() || a2l.is_absolute()) return false;
    std::error_code ignored;
    if (fs::exists(file_, ignored) && !fs::is_regular_file(file_, ignored)) return false;
    const fs::path fromThere = fs::path(file_).parent_path() / a2l;
    if (!fs::exists(a2l, ignored)) return !fs::exists(fromThere, ignored);
    return !fs::equivalent(a2l, fromThere, ignored);
}

/// Makes what it names findable from the new place.
Result<void> SaveConfigCommand::carryOver(session::SessionConfig& config) const {
    // In a file that only its owner writes to it would be believed.
    if (const std::string& refusal = config.security.refusal; !refusal.empty())
        return Error{ErrorCode::permissionDenied, refusal + "; it is not copied"};
    if (!isA2lLost(config.a2l)) return {};
    std::error_code ignored;
    if (fs::exists(config.a2l, ignored)) {
        const fs::path absolute = fs::absolute(config.a2l, ignored).lexically_normal();
        if (!ignored) config.a2l = absolute;
    }
    return {};
}

int SaveConfigCommand::run(Workplace& place) {
    session::ConfigDocument document{place.config, place.ecuConfigs};
    std::vector<session::SessionConfig*> configs{&document.one};
    for (session::SessionConfig& ecu : document.ecus)
        configs.push_back(&ecu);
    std::vector<fs::path> lost;
    for (session::SessionConfig* const config : configs) {
        const bool wasLost = isA2lLost(config->a2l);
        if (auto carried = carryOver(*config); !carried) {
            place.results.fail("save", carried.error(), file_);
            return 1;
        }
        if (wasLost && config->a2l.is_relative()) lost.push_back(config->a2l);
    }
    if (auto saved = session::saveConfigDocument(file_, document); !saved) {
        place.results.fail("save", saved.error(), file_);
        return 1;
    }
    for (const fs::path& a2l : lost)
        log::warn("{}: the A2L file {} is not found from there", file_, a2l.string());
    place.results.output().append(file_ + " written\n");
    return 0;
}

}  // namespace lm::cli
