#include "sim/runner.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace lm::sim {
namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

std::int64_t Runner::now() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Result<UniqueFd> Runner::openSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGRTMIN})
        sigaddset(&set, signal);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return Error::fromErrno(errno, "signals");
    UniqueFd descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor.valid()) return Error::fromErrno(errno, "signals");
    return descriptor;
}

Result<void> Runner::run() {
    const Result<UniqueFd> signals = openSignals();
    if (!signals.ok()) return signals.error();
    const std::int64_t quitNs = options_.quitAfter > 0
                                    ? now() + static_cast<std::int64_t>(options_.quitAfter * kNsPerSecond)
                                    : kNever;
    while (!stop_) {
        const Result<void> done = round(signals.value().get(), quitNs);
        if (!done.ok()) return done.error();
    }
    out_.clear();
    while (ecu_.hasBacklog())
        ecu_.workOff(now(), out_);
    const Result<void> left = medium_.onDue(now());
    if (!left.ok()) return left.error();
    return saveMemory();
}

Result<void> Runner::round(int signals, std::int64_t quitNs) {
    out_.clear();
    const bool idle = ecu_.advance(now(), out_);
    saveWritten();
    medium_.send(out_, now());
    const std::int64_t time = now();
    if (time >= quitNs) stop_ = true;
    if (time >= medium_.dueNs()) {
        const Result<void> done = medium_.onDue(time);
        if (!done.ok()) return done.error();
    }
    const std::int64_t until = std::min({ecu_.nextDueNs(), medium_.dueNs(), quitNs});
    const Result<void> waited = wait(signals, idle ? until : time);
    if (!waited.ok()) return waited.error();
    if (failure_) return *failure_;
    return {};
}

Result<void> Runner::wait(int signals, std::int64_t untilNs) {
    std::vector<pollfd> fds = medium_.descriptors();
    fds.push_back({signals, POLLIN, 0});
    const std::int64_t left = std::clamp<std::int64_t>(untilNs - now(), 0, kNsPerSecond);
    const timespec timeout{left / kNsPerSecond, left % kNsPerSecond};
    if (::ppoll(fds.data(), fds.size(), &timeout, nullptr) < 0) {
        if (errno == EINTR) return {};
        return Error::fromErrno(errno, "poll");
    }
    for (const pollfd& fd : fds) {
        if (fd.revents == 0) continue;
        if (fd.fd == signals) {
            const Result<void> handled = handleSignals(signals);
            if (!handled.ok()) return handled.error();
            continue;
        }
        const Result<void> received =
            medium_.receive(fd.fd, [this](std::span<const std::uint8_t> packet) { handleCommand(packet); });
        if (!received.ok()) return received.error();
    }
    return {};
}

void Runner::handleCommand(std::span<const std::uint8_t> packet) {
    out_.clear();
    ecu_.receive(packet, now(), out_);
    saveWritten();
    medium_.send(out_, now());
}

/// The image is written before the answer leaves: who has the answer may read it.
void Runner::saveWritten() {
    if (ecu_.slave().writes() == savedWrites_) return;
    const Result<void> saved = saveMemory();
    if (!saved.ok()) failure_ = saved.error();
}

Result<void> Runner::handleSignals(int descriptor) {
    signalfd_siginfo info{};
    while (::read(descriptor, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == static_cast<std::uint32_t>(SIGRTMIN)) {  // no constant: not for the switch
            const Result<void> done = medium_.togglePlug();
            if (!done.ok()) return done.error();
            continue;
        }
        switch (info.ssi_signo) {
            case SIGUSR1:
                ecu_.restart(now());
                break;
            case SIGUSR2:
                ecu_.silenceUntil(ecu_.silent(now()) ? 0 : kNever);
                break;
            case SIGHUP: {
                const Result<void> saved = saveMemory();
                if (!saved.ok()) return saved.error();
                break;
            }
            default:
                stop_ = true;
        }
    }
    return {};
}

Result<void> Runner::saveMemory() {
    savedWrites_ = ecu_.slave().writes();
    if (options_.memoryFile.empty()) return {};
    return ecu_.world().saveMemory(options_.memoryFile);
}

std::string Runner::statistics() const {
    const DaqCounters& daq = ecu_.slave().daqCounters();
    const MediumCounters& medium = medium_.counters();
    std::string text = fmt::format(
        "commands {}\nwrites {}\nsamples {}\nsamples-lost {}\ndtos {}\ndtos-lost {}\npackets-sent {}\n"
        "datagrams-sent {}\npackets-lost {}\npackets-malformed {}\nsend-failures {}\nstart-ns {}\n",
        ecu_.commands(), ecu_.slave().writes(), daq.samples, daq.samplesLost, daq.dtos, daq.dtosLost,
        medium.packetsSent, medium.datagramsSent, medium.packetsLost, medium.packetsMalformed,
        medium.sendFailures, ecu_.startNs());
    for (std::uint8_t event = 0; event < kEventCount; ++event) {
        text += fmt::format("event-{} {}\n", event, ecu_.world().counter(event));
    }
    for (const CommandInfo& command : kCommands) {
        const std::uint64_t heard = ecu_.commands(command.code);
        if (heard != 0) text += fmt::format("command-{} {}\n", command.name, heard);
    }
    return text;
}

}  // namespace lm::sim
