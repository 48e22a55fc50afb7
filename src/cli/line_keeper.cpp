#include "cli/line_keeper.h"

#include <chrono>
#include <pthread.h>
#include <utility>

#include "cli/output.h"
#include "cli/stop_signal.h"
#include "core/thread.h"

namespace lm::cli {
namespace {

constexpr std::chrono::seconds kBetweenAttempts{1};

std::string textOnly(const Error& error) {
    return error.text() + " (showing the text only)";
}

}  // namespace

Result<void> LineKeeper::start() {
    auto thread = startThread("cannot keep the line open", [this] { keep(); });
    if (!thread.ok()) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void LineKeeper::end() {
    session_.requestStop();
    if (thread_.joinable()) thread_.join();
}

void LineKeeper::keep() {
    pthread_setname_np(pthread_self(), "line-keeper");
    bool open = openFirst();
    begun_.store(true);
    while (!stop_.waitFor(kBetweenAttempts)) {
        if (!open || session_.transportLost()) open = openAgain();
    }
}

bool LineKeeper::openFirst() {
    const Result<void> opened = session_.openTransport();
    const Result<void> connected = opened.ok() ? session_.open() : Result<void>();
    const Error* failure = !opened.ok() ? &opened.error() : !connected.ok() ? &connected.error() : nullptr;
    if (failure == nullptr) watch();
    // What a stop has ended did not fail.
    if (failure == nullptr || stop_.requested()) return opened.ok();
    Error told = *failure;
    told.message = textOnly(*failure);
    printError("connect", told);
    if (opened.ok()) return true;
    told_ = failure->text();
    session_.consoleLog().onNotice("no line yet, trying again each second");
    return false;
}

/// Once: each connection after it compares, and remembers what it found.
void LineKeeper::watch() {
    if (!std::exchange(watches_, true)) session_.watchForReset();
}

bool LineKeeper::openAgain() {
    const Result<void> opened = session_.openTransport();
    if (stop_.requested()) return false;
    if (!opened.ok()) {
        // Each reason once, not each second.
        if (told_ != opened.error().text()) session_.consoleLog().onNotice(opened.error().text());
        told_ = opened.error().text();
        return false;
    }
    told_.clear();
    const Result<void> connected = session_.open();
    if (connected.ok()) watch();
    if (!stop_.requested()) {
        session_.consoleLog().onNotice(connected.ok() ? "connected"
                                                      : "connect: " + textOnly(connected.error()));
    }
    return true;
}

}  // namespace lm::cli
