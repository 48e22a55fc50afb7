#include "cli/command_console.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "cli/input_lines.h"
#include "cli/line_keeper.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "core/thread.h"

namespace lm::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPauseMs = 50;

/// What the command shares with the thread that reads standard input.
struct Input {
    std::mutex mutex;
    session::Session* session = nullptr;  ///< under mutex; null once the command is over
    std::atomic<bool> ending{false};      ///< the command is about to be over
    std::atomic<bool> ended{false};
};

/// False when the command is over.
bool sendLine(Input& input, const std::string& line) {
    const std::lock_guard lock(input.mutex);
    if (input.session == nullptr || input.ending || stopRequested()) return false;
    const Result<void> sent =
        line.size() <= InputLines::kLongest
            ? input.session->sendText(line)
            : Error{ErrorCode::invalidArgument,
                    fmt::format("a line beyond {} bytes is not sent", InputLines::kLongest)};
    if (!sent.ok()) printError("send", sent.error());
    return true;
}

/// Waits for input: what has come, empty at the end of input, after an error, or when a stop is asked for.
std::string_view readSome(std::array<char, 4096>& block) {
    while (!stopRequested()) {
        std::array<pollfd, 2> waits = {pollfd{STDIN_FILENO, POLLIN, 0},
                                       pollfd{stopToken().descriptor(), POLLIN, 0}};
        if (::poll(waits.data(), waits.size(), -1) < 0 || waits[1].revents != 0) continue;
        const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
        if (count > 0) return {block.data(), static_cast<std::size_t>(count)};
        if (count == 0 || (errno != EINTR && errno != EAGAIN)) return {};
    }
    return {};
}

/// Sends standard input line by line, the last line also without a line end.
void sendInput(const std::shared_ptr<Input>& input) {
    // The signals are for threads that are there to the end.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::array<char, 4096> block{};
    InputLines lines([&](const std::string& line) { return sendLine(*input, line); });
    for (auto text = readSome(block); !text.empty(); text = readSome(block)) {
        if (!lines.add(text)) return;
    }
    lines.finish();
    input->ended.store(true);
}

/// False when a stop is asked for or no one reads standard output any more.
bool pauseUnlessOver() {
    std::array<pollfd, 2> waits = {pollfd{stopToken().descriptor(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
    ::poll(waits.data(), waits.size(), kPauseMs);
    return !stopRequested() && (waits[1].revents & (POLLERR | POLLHUP)) == 0;
}

/// Prints each line of a log once.
class LogPrinter {
  public:
    LogPrinter(const session::ConsoleLog& log, Output& output) : log_(log), output_(output) {}

    /// False once standard output has failed.
    bool print() {
        const auto reading = log_.read(position_);
        if (reading.missed != 0) {
            output_.append(consoleLine({std::chrono::system_clock::now(), session::ConsoleLineKind::notice,
                                        fmt::format("{} line(s) not shown", reading.missed)}));
        }
        for (const session::ConsoleLine& line : reading.lines)
            output_.append(consoleLine(line));
        return output_.flush();
    }

  private:
    const session::ConsoleLog& log_;
    Output& output_;
    std::uint64_t position_ = 0;
};

/// Shows the text until something ends it.
Result<void> show(LineKeeper& keeper, LogPrinter& printer, double duration,
                  const std::shared_ptr<Input>& input, const std::function<void()>& onBegun) {
    if (auto started = keeper.start(); !started.ok()) return started;
    while (!keeper.begun()) {
        if (!printer.print() || !pauseUnlessOver()) return {};
    }
    onBegun();
    auto reader = startThread("cannot read standard input", [input] { sendInput(input); });
    if (!reader.ok()) return reader.error();
    reader.value().detach();
    const auto start = Clock::now();
    bool over = false;
    while (!over) {
        // What the ECU answers to the last line has one more pause to come.
        over = duration > 0 ? std::chrono::duration<double>(Clock::now() - start).count() >= duration
                            : input->ended.load();
        if (!printer.print() || !pauseUnlessOver()) return {};
    }
    return {};
}

}  // namespace

std::string consoleLine(const session::ConsoleLine& line) {
    using session::ConsoleLineKind;
    const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(line.time.time_since_epoch());
    const std::time_t seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch).count();
    std::tm local{};
    ::localtime_r(&seconds, &local);
    const char* marker = line.kind == ConsoleLineKind::sent     ? "> "
                         : line.kind == ConsoleLineKind::notice ? "-- "
                                                                : "";
    return fmt::format("{:02}:{:02}:{:02}.{:03}  {}{}\n", local.tm_hour, local.tm_min, local.tm_sec,
                       (sinceEpoch % std::chrono::seconds(1)).count(), marker, line.text);
}

void ConsoleCommand::addOptions(OptionSet& options) {
    addDuration(options, durationSeconds_, "Seconds (0 = until Ctrl-C or end of input)");
    addReadOnly(options, readOnly_);
}

int ConsoleCommand::run(Workplace& place) {
    session::Session& session = *place.session;
    if (!session.medium().hasText()) {
        printMessage("console: needs a serial line (--serial)\n");
        return 1;
    }
    const auto input = std::make_shared<Input>();
    input->session = &session;
    LogPrinter printer(session.consoleLog(), place.results.output());
    LineKeeper keeper(session);
    const Result<void> shown =
        show(keeper, printer, durationSeconds_, input, [&] { place.sharing->start(session, readOnly_); });
    place.sharing->stop();
    if (!shown.ok()) place.results.fail("console", shown.error());
    input->ending.store(true);
    keeper.end();  // ends the sending of a line, too
    {
        const std::lock_guard lock(input->mutex);
        input->session = nullptr;
    }
    const Result<void> closed = session.close();
    printer.print();
    if (!closed.ok()) place.results.fail("close", closed.error());
    return shown.ok() && closed.ok() ? 0 : 1;
}

}  // namespace lm::cli
