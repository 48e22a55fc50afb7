// What `set` leaves behind of what it writes into an ECU: one undo file for all of the command, the file of
// changes.
//
// Threads: the main thread. Lifetime: the session is borrowed.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "session/change_log.h"
#include "session/session.h"
#include "session/undo_file.h"

namespace lm::cli {

/// For a ChangeLog: what was written goes into the recording that runs.
session::ChangeLog::Tell tellSession(session::Session& session);

class WriteJournal {
  public:
    WriteJournal(session::Session& session, const std::vector<std::string>& assignments);

    /// A single number alone needs no undo file.
    bool keepsSingles() const { return keepsSingles_; }
    /// Before these are written: the undo file holds them, and what the command wrote before. Where there is
    /// no place for the file, that is one warning.
    void keepUndo(const std::vector<session::ObjectBytes>& changes);
    void note(const session::ObjectWriting& writing);
    void note(const session::WriteOutcome& outcome);
    /// After the last assignment: a file of which nothing can be put back is marked as used.
    void end();

  private:
    Result<void> keepFile();

    session::Session& session_;
    session::ChangeLog log_;
    const bool keepsSingles_;
    session::UndoFile undo_;
    std::optional<std::filesystem::path> path_;
    std::optional<session::PageOverview> pages_;  ///< once it was asked for
    bool failed_ = false;
    bool hasWritten_ = false;  ///< or may have
};

}  // namespace lm::cli
