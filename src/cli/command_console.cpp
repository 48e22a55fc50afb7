#include "cli/command_console.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>
#include <mutex>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "cli/line_keeper.h"
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
    std::atomic<bool> ended{false};
};

/// False when the command is over.
bool sendLine(Input& input, const std::string& line) {
    const std::lock_guard lock(input.mutex);
    if (input.session == nullptr) return false;
    const Result<void> sent = input.session->sendText(line);
    if (!sent.ok()) printError("send", sent.error());
    return true;
}

/// Waits for input; false at the end of input, after an error, or when a stop is asked for.
bool readSome(std::string& text) {
    std::array<char, 4096> block{};
    while (!stopRequested()) {
        std::array<pollfd, 2> waits = {pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{stopDescriptor(), POLLIN, 0}};
        if (::poll(waits.data(), waits.size(), -1) < 0 || waits[1].revents != 0) continue;
        const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
        if (count > 0) text.append(block.data(), static_cast<std::size_t>(count));
        if (count > 0) return true;
        if (count == 0 || (errno != EINTR && errno != EAGAIN)) return false;
    }
    return false;
}

/// Sends standard input line by line, the last line also without a line end.
void sendInput(const std::shared_ptr<Input>& input) {
    // The signals are for threads that are there to the end.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::string text;
    while (readSome(text)) {
        std::size_t begin = 0;
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
            if (!sendLine(*input, text.substr(begin, end - begin))) return;
            begin = end + 1;
        }
        text.erase(0, begin);
    }
    if (!text.empty() && !stopRequested()) sendLine(*input, text);
    input->ended.store(true);
}

/// False when a stop is asked for or nobody reads standard output any more.
bool pauseUnlessOver() {
    std::array<pollfd, 2> waits = {pollfd{stopDescriptor(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
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
                  const std::shared_ptr<Input>& input) {
    if (auto started = keeper.start(); !started.ok()) return started;
    while (!keeper.begun()) {
        if (!printer.print() || !pauseUnlessOver()) return {};
    }
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

int cmdConsole(session::Session& session, double duration, Output& output) {
    const auto input = std::make_shared<Input>();
    input->session = &session;
    LogPrinter printer(session.consoleLog(), output);
    LineKeeper keeper(session);
    const Result<void> shown = show(keeper, printer, duration, input);
    if (!shown.ok()) printError("console", shown.error());
    {
        const std::lock_guard lock(input->mutex);
        input->session = nullptr;
    }
    keeper.end();
    const Result<void> closed = session.close();
    printer.print();
    if (!closed.ok()) printError("close", closed.error());
    return shown.ok() && closed.ok() ? 0 : 1;
}

}  // namespace lm::cli
