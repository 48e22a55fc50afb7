// What `serve` and `view` answer about recordings and layouts. Reading waits for disks: threads of its own do
// it, so that the workers of the server stay free for the ECU.
//
// Threads: start() and stop() belong to the owner; handlers run on the workers, their work on the threads of
// this class. Lifetime: the shelf is borrowed until stop().
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/stop_token.h"
#include "http/router.h"
#include "http/workers.h"
#include "serve/layouts.h"
#include "serve/opened_recording.h"
#include "serve/recording_details.h"
#include "serve/recording_shelf.h"

namespace lm::serve {

class RecordingDesk {
  public:
    using InfoForm = std::function<Result<std::string>(const std::filesystem::path&)>;

    /// `layouts`: the folder beside whose recordings they lie; may be empty.
    RecordingDesk(const IRecordingShelf& shelf, const std::filesystem::path& layouts, InfoForm info,
                  StopToken stop)
        : shelf_(shelf), layouts_(layouts), info_(std::move(info)), stop_(std::move(stop)) {}

    /// Error: that of a thread.
    Result<void> start();
    /// What waits is still answered; an export ends early when the stop was requested.
    void stop();

    void addRoutes(http::Router& router);
    /// On the threads of this class: what takes long without the ECU.
    void post(std::function<void()> work) { readers_->post(std::move(work)); }
    const Layouts& layouts() const { return layouts_; }

  private:
    using Work = std::function<void(const http::Request&, const http::Reply&, const std::filesystem::path&)>;

    /// A handler of a recording that is there, on the threads of this class.
    http::Handler ofRecording(Work work);
    void addLayoutRoutes(http::Router& router);
    void list(const http::Request& request, const http::Reply& reply);
    void series(const http::Request& request, const http::Reply& reply, const std::filesystem::path& path);
    void exportOne(const http::Request& request, const http::Reply& reply, const std::filesystem::path& path);

    const IRecordingShelf& shelf_;
    Layouts layouts_;
    const InfoForm info_;
    const StopToken stop_;
    std::unique_ptr<http::Workers> readers_;
    OpenRecordings open_;
    Catalogue catalogue_;
    std::mutex exporting_;
};

}  // namespace lm::serve
