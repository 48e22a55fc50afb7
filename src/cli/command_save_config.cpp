#include "cli/command_save_config.h"

#include <filesystem>
#include <system_error>

#include <CLI/App.hpp>
#include <spdlog/spdlog.h>

namespace lm::cli {

void SaveConfigCommand::addOptions(CLI::App& app) {
    app.add_option("file", file_, "Output file")->required();
}

int SaveConfigCommand::run(Workplace& place) {
    if (auto saved = session::saveSessionConfig(file_, place.config); !saved) {
        place.results.fail("save", saved.error(), file_);
        return 1;
    }
    const std::filesystem::path& a2l = place.config.a2l;
    const auto directory = std::filesystem::path(file_).parent_path();
    std::error_code ignored;
    if (a2l.is_relative() && !a2l.empty() && std::filesystem::is_regular_file(file_, ignored) &&
        !std::filesystem::exists(directory / a2l, ignored)) {
        spdlog::warn("{}: the A2L file {} is not found from there", file_, a2l.string());
    }
    place.results.output().append(file_ + " written\n");
    return 0;
}

}  // namespace lm::cli
