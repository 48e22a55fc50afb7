// `apply --undo`: an undo file, taken back; and what has to be so before anything of a file goes into an ECU.
//
// Threads: the main thread. Lifetime: owns everything; the workplace is borrowed for the calls.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "session/undo_file.h"

namespace lm::cli {

/// An EPK that cannot be read is enough for a single value, not for a whole set. Errors (permissionDenied):
/// that, Session::checkIdentity()'s, session::checkSameSoftware()'s.
Result<void> checkEcu(Workplace& place, const session::SoftwareOf& file);

/// What is used up is not what 'last' means; that this failed is told.
void markAsUsed(const std::string& undoFile);

class ApplyUndo {
  public:
    /// The name of a file, or "last".
    explicit ApplyUndo(std::string file) : path_(std::move(file)) {}

    /// Reads the file, but for the last one, of which the ECU has to be known. Errors: loadUndoFile()'s.
    Result<void> prepare();
    /// Puts back every object that can be, the last one first. The exit code.
    int run(Workplace& place);

  private:
    Result<void> findLast(Workplace& place);
    Result<void> check(Workplace& place) const;
    Result<void> goToPages(session::Session& session);
    Result<void> connectAgain(session::Session& session);
    std::vector<session::PutBack> putAllBack(session::Session& session);
    session::PutBack putBack(session::Session& session, const session::ObjectBytes& object);

    std::string path_;
    std::optional<session::UndoFile> file_;
    std::optional<session::PageOverview> wasThere_;  ///< before XCP went to the pages of the file
    bool hasReconnected_ = false;
    bool isOver_ = false;  ///< the ECU is away for good, or another one
};

}  // namespace lm::cli
