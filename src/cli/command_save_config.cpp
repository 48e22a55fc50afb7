#include "cli/command_save_config.h"

#include <filesystem>
#include <system_error>

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

int SaveConfigCommand::run(Workplace& place) {
    // In a file that only its owner writes to it would be believed.
    if (const std::string& refusal = place.config.security.refusal; !refusal.empty()) {
        place.results.fail("save", Error{ErrorCode::permissionDenied, refusal + "; it is not copied"}, file_);
        return 1;
    }
    const bool lost = isA2lLost(place.config.a2l);
    std::error_code ignored;
    if (lost && fs::exists(place.config.a2l, ignored)) {
        const fs::path absolute = fs::absolute(place.config.a2l, ignored).lexically_normal();
        if (!ignored) place.config.a2l = absolute;
    }
    if (auto saved = session::saveSessionConfig(file_, place.config); !saved) {
        place.results.fail("save", saved.error(), file_);
        return 1;
    }
    const fs::path& a2l = place.config.a2l;
    if (lost && a2l.is_relative())
        log::warn("{}: the A2L file {} is not found from there", file_, a2l.string());
    place.results.output().append(file_ + " written\n");
    return 0;
}

}  // namespace lm::cli
