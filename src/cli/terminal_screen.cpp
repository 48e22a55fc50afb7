#include "cli/terminal_screen.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace lm::cli {
namespace {

// Another screen without cursor and without line wrap, and the way back.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l\033[2J";
constexpr std::string_view kLeave = "\033[m\033[?7h\033[?25h\033[?1049l";
constexpr std::chrono::milliseconds kLongestLeave{1000};

// What the signal handlers need: they can touch no object.
std::atomic<bool> stopAsked{false};
std::atomic<bool> continued{false};
std::atomic<bool> mustRestore{false};
int restoredOutput = -1;
termios restoredModes = {};

bool isInForeground(int descriptor) {
    const pid_t group = ::tcgetpgrp(descriptor);
    // Not our controlling terminal: no job control, it is ours.
    return group < 0 || group == ::getpgrp();
}

/// A terminal is changed by its foreground alone; others would be stopped.
class TerminalAccess {
  public:
    TerminalAccess() {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTTOU);
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~TerminalAccess() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    TerminalAccess(const TerminalAccess&) = delete;
    TerminalAccess& operator=(const TerminalAccess&) = delete;

  private:
    sigset_t before_;
};

bool setModes(int descriptor, const termios& modes) {
    const TerminalAccess access;
    return ::tcsetattr(descriptor, TCSANOW, &modes) == 0;
}

/// Undoes a Ctrl-S. TCOON alone continues only what TCOOFF has stopped.
void resumeOutput(int descriptor) {
    const TerminalAccess access;
    ::tcflow(descriptor, TCOOFF);
    ::tcflow(descriptor, TCOON);
}

/// Drops what the reader of the terminal has not taken.
void discardOutput(int descriptor) {
    const TerminalAccess access;
    ::tcflush(descriptor, TCOFLUSH);
}

bool isReady(int descriptor) {
    pollfd ready = {descriptor, POLLOUT, 0};
    return ::poll(&ready, 1, 0) > 0;
}

void onStop(int /*number*/) {
    stopAsked.store(true);
}

void onContinue(int /*number*/) {
    continued.store(true);
}

/// SA_RESETHAND: the signal then does what it always does.
void onAbort(int number) {
    restoreTerminal();
    raise(number);
}

/// Where the signal does what it does without us. True when it is ours now.
void handle(int number, void (*handler)(int), int flags) {
    struct sigaction before = {};
    if (sigaction(number, nullptr, &before) != 0 || before.sa_handler != SIG_DFL) return;
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

void handBack(int number, void (*handler)(int)) {
    struct sigaction now = {};
    if (sigaction(number, nullptr, &now) != 0 || now.sa_handler != handler) return;
    now = {};
    now.sa_handler = SIG_DFL;
    sigaction(number, &now, nullptr);
}

/// Those that end the program unless someone handles or ignores them, the faults among them; what cannot be
/// handled is refused. The numbers above the named ones end it, too.
template <typename Do>
void forEachDeath(Do apply) {
    constexpr std::array<int, 8> kHarmless = {SIGCHLD, SIGCONT, SIGSTOP, SIGTSTP,
                                              SIGTTIN, SIGTTOU, SIGURG,  SIGWINCH};
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (std::find(kHarmless.begin(), kHarmless.end(), number) == kHarmless.end()) apply(number);
    }
}

constexpr std::array<std::pair<std::string_view, Key>, 12> kKeys = {{
    {"\033[A", Key::up},
    {"\033OA", Key::up},
    {"\033[B", Key::down},
    {"\033OB", Key::down},
    {"\033[5~", Key::pageUp},
    {"\033[6~", Key::pageDown},
    {"\033[H", Key::home},
    {"\033OH", Key::home},
    {"\033[1~", Key::home},
    {"\033[F", Key::end},
    {"\033OF", Key::end},
    {"\033[4~", Key::end},
}};

/// The bytes of the key that begins here, 0 when more have to come: ESC [ or ESC O, parameters, a last byte.
std::size_t keyLength(std::string_view bytes) {
    if (bytes[0] != '\033') return 1;
    if (bytes.size() == 1) return 0;
    if (bytes[1] != '[' && bytes[1] != 'O') return 1;
    for (std::size_t i = 2; i < bytes.size(); ++i) {
        if (bytes[i] < 0x20 || bytes[i] > 0x3F) return i + 1;
    }
    return 0;
}

std::string styled(const ScreenLine& line) {
    switch (line.style) {
        case ScreenLine::Style::heading:
            return "\033[7m" + line.text + "\033[m";
        case ScreenLine::Style::alarm:
            return "\033[1m" + line.text + "\033[m";
        case ScreenLine::Style::plain:
            break;
    }
    return line.text;
}

}  // namespace

void restoreTerminal() {
    if (!mustRestore.exchange(false)) return;
    const bool ours = isInForeground(restoredOutput);
    if (ours) {
        resumeOutput(restoredOutput);
        if (!isReady(restoredOutput)) discardOutput(restoredOutput);
        setModes(restoredOutput, restoredModes);
    }
    // A terminal that takes nothing keeps its screen.
    if (!isReady(restoredOutput)) return;
    [[maybe_unused]] const auto count = ::write(restoredOutput, kLeave.data(), kLeave.size());
}

Result<void> TerminalScreen::check(int output) {
    const char* const kind = std::getenv("TERM");
    if (::isatty(output) == 0)
        return Error{ErrorCode::unsupported, "--table needs a terminal as standard output"};
    if (kind != nullptr && std::string_view(kind) == "dumb")
        return Error{ErrorCode::unsupported, "--table needs a terminal that places text (TERM is dumb)"};
    return {};
}

TerminalScreen::TerminalScreen(int output, int input)
    : output_(output), input_(input), writer_(output), hasKeys_(::isatty(input) == 1) {
    // A reader of a job that was stopped must see it stop: the terminal is given back first.
    handle(SIGTSTP, &onStop, 0);
    handle(SIGCONT, &onContinue, SA_RESTART);
    forEachDeath([](int number) { handle(number, &onAbort, SA_RESETHAND | SA_NODEFER); });
}

TerminalScreen::~TerminalScreen() {
    leave();
    handBack(SIGTSTP, &onStop);
    handBack(SIGCONT, &onContinue);
    forEachDeath([](int number) { handBack(number, &onAbort); });
}

ScreenSize TerminalScreen::size() const {
    winsize size = {};
    if (::ioctl(output_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
    return {size.ws_col, size.ws_row};
}

bool TerminalScreen::inForeground() const {
    return isInForeground(output_);
}

void TerminalScreen::enter() {
    if (!mustRestore.load()) {
        if (::tcgetattr(output_, &restoredModes) != 0) {
            failure_ = errno;
            return;
        }
        restoredOutput = writer_.descriptor();
    }
    termios modes = restoredModes;
    // Ctrl-C and Ctrl-Z go on being signals.
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    mustRestore.store(true);
    entered_ = true;
    if (!setModes(output_, modes)) failure_ = errno;
    shown_.clear();
    unsent_.clear();
    send(std::string(kEnter));
}

void TerminalScreen::leave() {
    if (!entered_) return;
    // What is left of a drawing is not worth a wait; a sequence that was cut ends at the next escape. The way
    // to the other screen must come before the way back.
    if (!shown_.empty()) unsent_.clear();
    const bool ours = inForeground();
    if (ours) resumeOutput(output_);
    send(std::string(kLeave));
    waitUntilSent(kLongestLeave / 2);
    if (!unsent_.empty() && failure_ == 0) {
        if (ours) discardOutput(output_);
        unsent_ = kLeave;
        waitUntilSent(kLongestLeave / 2);
    }
    entered_ = false;
    // In the background the shell has set its own.
    if (mustRestore.exchange(false) && ours) setModes(output_, restoredModes);
}

void TerminalScreen::waitUntilSent(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    flush();
    while (!unsent_.empty() && failure_ == 0 && std::chrono::steady_clock::now() < deadline) {
        writer_.waitWritable(-1, std::chrono::milliseconds(50));
        flush();
    }
}

void TerminalScreen::followSignals() {
    if (stopAsked.exchange(false)) {
        leave();
        handBack(SIGTSTP, &onStop);
        raise(SIGTSTP);
        handle(SIGTSTP, &onStop, 0);
    }
    if (!inForeground()) return;
    // Who stopped us in another way has left the terminal in modes of its own. A shell may continue us in the
    // background: then that waits until we are in the foreground.
    if (continued.exchange(false) || !entered_) enter();
}

void TerminalScreen::draw(const std::vector<ScreenLine>& lines) {
    followSignals();
    flush();
    if (!entered_ || !inForeground() || !unsent_.empty() || failure_ != 0) return;
    const ScreenSize now = size();
    std::string text;
    if (now != shownSize_) {
        shown_.clear();
        text += "\033[2J";
    }
    shownSize_ = now;
    for (std::size_t i = 0; i < std::max(lines.size(), shown_.size()); ++i) {
        const ScreenLine line = i < lines.size() ? lines[i] : ScreenLine{};
        if (i < shown_.size() && shown_[i] == line) continue;
        text += fmt::format("\033[{};1H{}\033[K", i + 1, styled(line));
    }
    shown_ = lines;
    send(text);
}

void TerminalScreen::send(const std::string& text) {
    unsent_ += text;
    flush();
}

void TerminalScreen::flush() {
    while (!unsent_.empty() && failure_ == 0) {
        const auto taken = writer_.tryWrite(unsent_);
        if (!taken) failure_ = taken.error().sysErrno;
        if (!taken || taken.value() == 0) return;
        unsent_.erase(0, taken.value());
    }
}

std::vector<Key> TerminalScreen::keys() {
    std::array<char, 256> block;
    const ssize_t count = ::read(input_, block.data(), block.size());
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) hasKeys_ = false;
    if (count > 0) keyBytes_.append(block.data(), static_cast<std::size_t>(count));
    std::vector<Key> pressed;
    while (!keyBytes_.empty()) {
        const std::size_t length = keyLength(keyBytes_);
        if (length == 0) break;
        for (const auto& [bytes, key] : kKeys) {
            if (std::string_view(keyBytes_).substr(0, length) == bytes) pressed.push_back(key);
        }
        keyBytes_.erase(0, length);
    }
    return pressed;
}

}  // namespace lm::cli
