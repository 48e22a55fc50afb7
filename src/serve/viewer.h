// `view`: recordings in the browser, without an ECU.
//
// Threads: start(), stop() and the destructor belong to the owner; handlers run on the server's workers.
// Lifetime: owns everything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "http/server.h"
#include "serve/recording_desk.h"
#include "serve/recording_shelf.h"
#include "serve/service.h"

namespace lm::serve {

struct ViewerOptions {
    std::string listenHost = "127.0.0.1";
    std::uint16_t listenPort = 0;
    std::vector<std::filesystem::path> directories = {};
    std::string version = {};
};

class Viewer {
  public:
    Viewer(ViewerOptions options, RecordingDesk::InfoForm info, StopToken stop);
    ~Viewer() { stop(); }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

    /// Recordings that are there now.
    Result<std::size_t> count() const;
    /// Errors: those of the socket and threads.
    Result<Addresses> start();
    void stop();

  private:
    const ViewerOptions options_;
    FoundRecordings shelf_;
    RecordingDesk desk_;
    std::unique_ptr<http::Server> server_;
};

}  // namespace lm::serve
