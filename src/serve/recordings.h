// The recordings of a folder: the one that is being made, and those that are there.
//
// Names come from requests: they are checked here, in the one place where a name becomes a path, so that none
// leads out of the folder.
//
// Threads: start() and stop() belong to the desk's thread; the rest from any. Lifetime: the hub is borrowed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/result.h"
#include "serve/record_hub.h"
#include "serve/recording_shelf.h"
#include "session/session.h"
#include "storage/format/recording_events.h"

namespace lm::serve {

class Recordings final : public IRecordingShelf {
  public:
    Recordings(std::filesystem::path folder, RecordHub& hub) : folder_(std::move(folder)), hub_(hub) {}

    Result<std::filesystem::path> pathOf(const std::string& name) const override;
    Result<std::vector<std::string>> names() const override;

    /// Records what the running measurement gives from now on. Errors: alreadyOpen, those of pathOf() and
    /// Recorder::begin().
    Result<void> start(session::Session& session, const std::string& name);
    /// The measurement goes on. notOpen without one; the writer's error, then the recording is closed all the
    /// same.
    Result<void> stop();

    /// A text at this moment. Error: notOpen.
    Result<void> mark(const std::string& text);
    /// Who wrote what, now; nothing without a recording.
    void noteWrite(storage::ParameterWrite write);
    void noteOutage(bool begins, const std::string& text);

    /// {"name", "recorded", "dropped"}; null when nothing is recorded.
    nlohmann::json state() const;

  private:
    Result<std::filesystem::path> freePath(const std::string& name) const;

    const std::filesystem::path folder_;
    RecordHub& hub_;
    mutable std::mutex mutex_;
    std::string name_;
    std::shared_ptr<storage::Recorder> recorder_;
    bool outage_ = false;
};

}  // namespace lm::serve
