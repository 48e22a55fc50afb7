#include "cli/apply_undo.h"

#include <utility>

#include <fmt/format.h>

#include "cli/apply_report.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "cli/write_journal.h"
#include "core/printable_text.h"
#include "session/change_log.h"

namespace lm::cli {
namespace {

using session::PutBack;

constexpr std::string_view kLast = "last";

bool isAway(const PutBack& object) {
    return object.error &&
           (object.error->code == ErrorCode::notOpen || object.error->code == ErrorCode::timeout);
}

}  // namespace

Result<void> checkEcu(Workplace& place, const session::SoftwareOf& file) {
    session::Session& session = *place.session;
    if (place.options.ignoreIdentity) return {};
    const session::Identity& identity = session.identity();
    if (identity.state == session::Identity::State::unreadable) {
        Error error{ErrorCode::permissionDenied, identity.text()};
        error.hint = "--ignore-identity goes on all the same";
        return error;
    }
    if (auto right = session.checkIdentity(); !right) return right;
    return session::checkSameSoftware(file, identity, session.description().sha256);
}

void markAsUsed(const std::string& undoFile) {
    if (auto marked = session::markUsed(undoFile); !marked)
        printMessageLine("'last' will take this undo file again: " + marked.error().text());
}

Result<void> ApplyUndo::prepare() {
    if (path_ == kLast) return {};
    auto loaded = session::loadUndoFile(path_, stopToken());
    if (!loaded) return loaded.error();
    file_ = std::move(loaded).value();
    return {};
}

Result<void> ApplyUndo::findLast(Workplace& place) {
    const auto path =
        session::lastUndoFile({place.session->ecuName(), place.session->ecuPlace()}, stopToken());
    if (!path) return path.error();
    path_ = path.value().string();
    printMessageLine("undo file: " + path_);
    if (auto read = prepare(); !read) return read;
    printMessageLine(fmt::format("it takes back \"{}\" of {}: {} object(s)", file_->command, file_->time,
                                 file_->objects.size()));
    if (JsonWriter* const json = place.results.json()) {
        json->member("undoFile", path_);
        json->member("undone", file_->command);
    }
    return {};
}

Result<void> ApplyUndo::check(Workplace& place) const {
    if (auto right = checkEcu(place, {file_->epk, file_->a2lSha256}); !right) return right;
    if (place.options.ignoreIdentity) return {};
    const std::string ecuText = file_->ecuText.empty() ? std::string() : place.session->ecuText();
    return session::checkSameEcu(*file_, place.session->ecuPlace(), ecuText);
}

Result<void> ApplyUndo::goToPages(session::Session& session) {
    if (file_->pages.empty()) return {};
    auto overview = session.pages().look();
    if (!overview) return overview.error();
    auto there = session::goToPages(session.pages(), overview.value(), file_->pages);
    if (!wasThere_) wasThere_ = std::move(overview).value();
    return there;
}

Result<void> ApplyUndo::connectAgain(session::Session& session) {
    if (auto opened = session.openAgain(); !opened) return opened;
    return goToPages(session);
}

/// An ECU that ended the session or was away is connected once more.
PutBack ApplyUndo::putBack(session::Session& session, const session::ObjectBytes& object) {
    PutBack one = session::putBack(session.objectMemory(), object);
    if (isAway(one) && !stopRequested() && !std::exchange(hasReconnected_, true)) {
        const auto again = connectAgain(session);
        isOver_ = !again;
        if (again) one = session::putBack(session.objectMemory(), object);
        if (!again && again.error().code == ErrorCode::permissionDenied) one.error = again.error();
    }
    isOver_ = isOver_ || isAway(one);
    // Killed before the other page was made the same.
    if (one.state == PutBack::State::others && wasThere_ &&
        session::isUntouched(*wasThere_, file_->pages, object))
        one.state = PutBack::State::unchanged;
    if (one.error) one.error = session.explainWrite(*one.error);
    return one;
}

/// What places others was written before them.
std::vector<PutBack> ApplyUndo::putAllBack(session::Session& session) {
    session::ChangeLog log(session.ecuName(), "undo", tellSession(session));
    std::vector<PutBack> all;
    std::vector<session::ObjectBytes> restored;
    for (std::size_t i = file_->objects.size(); i-- > 0 && !isOver_ && !stopRequested();) {
        const session::ObjectBytes& object = file_->objects[i];
        all.push_back(putBack(session, object));
        if (all.back().state == PutBack::State::restored) {
            log.add(object, true);
            log.flush();
            restored.push_back(object);
            for (session::BytePiece& piece : restored.back().pieces)
                std::swap(piece.before, piece.after);
        }
    }
    session.noteWrites(std::move(restored));
    return all;
}

int ApplyUndo::run(Workplace& place) {
    session::Session& session = *place.session;
    const auto fail = [&](const Error& error) {
        place.results.failOrStopped("undo", error);
        return 1;
    };
    if (!file_) {
        if (auto found = findLast(place); !found) return fail(found.error());
    } else if (!file_->used.empty()) {
        printMessageLine(fmt::format("all of this undo file was put back before, at {}", file_->used));
    }
    if (auto right = check(place); !right) return fail(right.error());
    if (auto there = goToPages(session); !there) return fail(there.error());
    const std::vector<PutBack> objects = putAllBack(session);
    if (wasThere_) {
        const auto finishing = session.objectMemory().finishing();
        for (const std::string& text : session::returnToPages(session.pages(), *wasThere_, file_->pages))
            printMessageLine(text);
    }
    place.results.show(PutBackReport(objects));
    const std::size_t missing = file_->objects.size() - objects.size();
    const std::size_t lost = notPutBack(objects) + missing;
    if (lost == 0) {
        markAsUsed(path_);
        return 0;
    }
    place.results.fail("undo",
                       {ErrorCode::protocolError,
                        fmt::format("{} of {} parameter(s) are not put back", lost, file_->objects.size())});
    return 1;
}

}  // namespace lm::cli
