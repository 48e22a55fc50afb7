#include "cli/write_journal.h"

#include <algorithm>
#include <utility>

#include "core/log.h"
#include "core/printable_text.h"
#include "session/parameter_reading.h"
#include "session/state_folder.h"

namespace lm::cli {
namespace {

/// As it was typed, but for what is too long to be read.
std::string commandOf(const std::vector<std::string>& assignments) {
    constexpr std::size_t kLongest = 300;
    std::vector<std::string> words{"set"};
    words.insert(words.end(), assignments.begin(), assignments.end());
    std::string text = commandText(words);
    if (text.size() <= kLongest) return text;
    return printableText(text.substr(0, kLongest)) + " ...";  // perhaps in the midst of a character
}

/// A write that was refused.
bool holdsWhatItHeld(const session::HeldObject& object) {
    return object.content &&
           std::all_of(object.numbers.begin(), object.numbers.end(),
                       [](const auto& number) { return number.state == session::HeldSpan::State::before; });
}

}  // namespace

session::ChangeLog::Tell tellSession(session::Session& session) {
    return [&session](std::string_view object, const std::string& before, const std::string& after,
                      const std::string& by) {
        session.noteParameter({0, std::string(object), before, after, by});
    };
}

WriteJournal::WriteJournal(session::Session& session, const std::vector<std::string>& assignments)
    : session_(session),
      log_(session.ecuName(), "set", tellSession(session)),
      keepsSingles_(assignments.size() > 1) {
    undo_.ecu = session_.ecuName();
    undo_.epk = session_.identity().ecu;
    undo_.a2lSha256 = session_.description().sha256;
    undo_.place = session_.ecuPlace();
    undo_.command = commandOf(assignments);
}

void WriteJournal::keepUndo(const std::vector<session::ObjectBytes>& changes) {
    if (failed_) return;
    undo_.objects.insert(undo_.objects.end(), changes.begin(), changes.end());
    if (!pages_) {
        auto overview = session::hasPages(session_.description())
                            ? session_.pages().look()
                            : Result<session::PageOverview>(session::PageOverview());
        pages_ = overview ? std::move(overview).value() : session::PageOverview();
    }
    undo_.pages = session::pagesOf(*pages_, undo_.objects);
    if (const auto kept = keepFile(); !kept) {
        failed_ = true;
        log::warn("what was there is not kept for an undo: {}", kept.error().text());
    }
}

Result<void> WriteJournal::keepFile() {
    if (path_) return session::rewriteUndoFile(undo_, *path_);
    undo_.time = session::utcTime();
    auto path = session::keepUndoFile(undo_, {});
    if (!path) return path.error();
    path_ = std::move(path).value();
    log::info("undo file: {}", path_->string());
    return {};
}

void WriteJournal::note(const session::ObjectWriting& writing) {
    hasWritten_ = hasWritten_ || writing.value.ok() ||
                  !std::all_of(writing.held.begin(), writing.held.end(), &holdsWhatItHeld);
    for (const session::WrittenObject& object : writing.written) {
        const auto bytes = session::bytesOfChange(object.before, object.after.image);
        if (bytes.pieces.empty()) continue;
        log_.add(session::parameterOf(object.before, {}), session::parameterOf(object.after, {}), bytes);
    }
    log_.flush();
}

void WriteJournal::note(const session::WriteOutcome& outcome) {
    const bool isAsBefore = !outcome.held || (*outcome.held && outcome.held->value().bytes == outcome.before);
    hasWritten_ = hasWritten_ || outcome.value.ok() || !isAsBefore;
    if (!outcome.value) return;
    const session::Reading before{outcome.value.value().element, outcome.before};
    log_.add(before.element.name, before.physical(), outcome.value.value().physical());
    log_.flush();
}

void WriteJournal::end() {
    if (!path_ || hasWritten_) return;
    if (auto marked = session::markUsed(*path_); !marked) log::info("{}", marked.error().text());
}

}  // namespace lm::cli
