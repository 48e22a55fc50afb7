#include "cli/command_view.h"

#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "cli/command_line.h"
#include "cli/command_serve.h"
#include "cli/option_set.h"
#include "cli/options.h"
#include "cli/serve_forms.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "serve/viewer.h"

namespace lm::cli {

void ViewCommand::addOptions(OptionSet& options) {
    options.add("directory", directories_, "Recordings, or folders below which there are some").required();
    options.add("--listen", listen_, "ADDRESS:PORT instead of a free port of 127.0.0.1");
}

Result<void> ViewCommand::checkOptions() {
    for (const std::string& directory : directories_) {
        std::error_code failure;
        if (!std::filesystem::is_directory(directory, failure))
            return Error{ErrorCode::notFound, directory + ": there is no such folder"};
    }
    if (listen_.empty()) return {};
    const Result<HostPort> parsed = parseListen(listen_);
    if (!parsed) return parsed.error();
    host_ = parsed.value().host;
    port_ = parsed.value().port;
    return {};
}

int ViewCommand::run(Workplace& place) {
    if (const Result<void> checked = checkOptions(); !checked) {
        place.results.fail("view", checked.error());
        return 1;
    }
    serve::ViewerOptions options;
    options.listenHost = host_;
    options.listenPort = port_;
    options.directories.assign(directories_.begin(), directories_.end());
    options.version = programVersion();
    serve::Viewer viewer(options, serveForms(value::NumberStyle{}).recordingInfo, stopToken());
    const Result<std::size_t> count = viewer.count();
    const auto addresses = count ? viewer.start() : count.error();
    if (!addresses) {
        place.results.fail("view", addresses.error());
        return 1;
    }
    Output& output = place.results.output();
    output.append(fmt::format("viewing {} recording(s)\n{}\n", count.value(), addresses.value().http));
    output.flush();
    if (addresses.value().reachable) {
        log::warn(
            "view: other machines reach this address, and what goes over it is not encrypted: a tunnel is "
            "the way");
    }
    while (!stopToken().waitFor(std::chrono::milliseconds(60000))) {
    }
    viewer.stop();
    return 0;
}

}  // namespace lm::cli
