#include "core/child_process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/file_write.h"
#include "core/unique_fd.h"

namespace lm {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    UniqueFd reading;
    UniqueFd writing;
};

int makePipe(Pipe& pipe) {
    std::array<int, 2> ends = {-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return errno;
    pipe.reading = UniqueFd(ends[0]);
    pipe.writing = UniqueFd(ends[1]);
    return 0;
}

/// What posix_spawn is told. Each step is skipped after the first that failed.
class SpawnPlan {
  public:
    SpawnPlan() {
        failure_ = ::posix_spawn_file_actions_init(&actions_);
        if (failure_ == 0) failure_ = ::posix_spawnattr_init(&attributes_);
    }
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void give(int descriptor, int as) { then(::posix_spawn_file_actions_adddup2, &actions_, descriptor, as); }
    void closeFrom(int descriptor) {
        then(::posix_spawn_file_actions_addclosefrom_np, &actions_, descriptor);
    }
    void startClean() {
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        then(::posix_spawnattr_setsigmask, &attributes_, &none);
        then(::posix_spawnattr_setsigdefault, &attributes_, &all);
        then(::posix_spawnattr_setpgroup, &attributes_, 0);
        constexpr int kFlags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP;
        then(::posix_spawnattr_setflags, &attributes_, static_cast<short>(kFlags));
    }
    int start(const ChildRun& run, pid_t& child) {
        std::vector<char*> words;
        // posix_spawn wants mutable texts that it does not change.
        for (const std::string& word : run.arguments)
            words.push_back(const_cast<char*>(word.c_str()));  // NOLINT(*-const-cast)
        words.push_back(nullptr);
        then(::posix_spawn, &child, run.program.c_str(), &actions_, &attributes_, words.data(), ::environ);
        return failure_;
    }

  private:
    template <typename Call, typename... Arguments>
    void then(Call call, Arguments... arguments) {
        if (failure_ == 0) failure_ = call(arguments...);
    }

    posix_spawn_file_actions_t actions_ = {};
    posix_spawnattr_t attributes_ = {};
    int failure_ = 0;
};

/// A started child, which is gone with its whole group when this is.
class Child {
  public:
    /// By its number: the header of glibc 2.36 declares pidfd_open() for C alone.
    explicit Child(pid_t id) : id_(id), end_(static_cast<int>(::syscall(SYS_pidfd_open, id, 0))) {}
    ~Child() { status(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Readable once it has ended; -1 with errno when there was none to be had.
    int descriptor() const { return end_.get(); }

    /// Kills what is left of it.
    int status() {
        if (id_ == 0) return status_;
        ::kill(-id_, SIGKILL);  // while it is not reaped the number is its own
        while (::waitpid(id_, &status_, 0) < 0 && errno == EINTR) {
        }
        id_ = 0;
        return status_;
    }

  private:
    pid_t id_;
    UniqueFd end_;
    int status_ = 0;
};

/// Reads what is there; false at the end of the stream.
bool readSome(int descriptor, std::size_t most, std::string& text) {
    std::array<char, 4096> block;
    const ssize_t count = ::read(descriptor, block.data(), block.size());
    if (count < 0) return errno == EINTR || errno == EAGAIN;
    const std::size_t room = most - std::min(most, text.size());
    text.append(block.data(), std::min(room, static_cast<std::size_t>(count)));
    return count > 0;
}

int millisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

enum class Ending : std::uint8_t { itself, late, stopped };

/// Until the child ends; what others hold open behind it is not waited for.
Ending listen(const ChildRun& run, const Child& child, Pipe& output, Pipe& errors, const StopToken& stop,
              ChildEnd& end) {
    const auto deadline = Clock::now() + run.limit;
    for (bool ended = false;;) {
        std::array<pollfd, 4> waits = {
            pollfd{output.reading.get(), POLLIN, 0}, pollfd{errors.reading.get(), POLLIN, 0},
            pollfd{child.descriptor(), POLLIN, 0}, pollfd{stop.descriptor(), POLLIN, 0}};
        const int left = millisecondsUntil(deadline);
        const int ready = ::poll(waits.data(), waits.size(), ended ? 0 : left);
        if (ready < 0) continue;  // interrupted
        if (waits[3].revents != 0) return Ending::stopped;
        const bool told = waits[0].revents != 0 || waits[1].revents != 0;
        if (ended && (!told || left == 0)) return Ending::itself;
        if (left == 0 && waits[2].revents == 0) return Ending::late;
        if (waits[0].revents != 0 && !readSome(output.reading.get(), run.mostOutput, end.output))
            output.reading = UniqueFd();
        if (waits[1].revents != 0 && !readSome(errors.reading.get(), run.mostOutput, end.errors))
            errors.reading = UniqueFd();
        ended = waits[2].revents != 0;
    }
}

Error cannotStart(const ChildRun& run, int systemError) {
    return Error::fromErrno(systemError, "cannot start " + run.program.string());
}

}  // namespace

Result<ChildEnd> runChild(const ChildRun& run, const StopToken& stop) {
    Pipe input;
    Pipe output;
    Pipe errors;
    for (Pipe* const pipe : {&input, &output, &errors}) {
        if (const int failure = makePipe(*pipe); failure != 0) return cannotStart(run, failure);
    }
    // It fits into the pipe, which has a reader as yet.
    if (const int failure = writeAll(input.writing.get(), run.input); failure != 0)
        return cannotStart(run, failure);

    SpawnPlan plan;
    plan.startClean();
    plan.give(input.reading.get(), STDIN_FILENO);
    plan.give(output.writing.get(), STDOUT_FILENO);
    plan.give(errors.writing.get(), STDERR_FILENO);
    int next = ChildRun::kFirstHandedOn;
    // From above all that they are put onto.
    std::vector<UniqueFd> raised;
    for (const int descriptor : run.handedOn) {
        raised.emplace_back(::fcntl(descriptor, F_DUPFD_CLOEXEC, 64));
        if (!raised.back().valid()) return cannotStart(run, errno);
        plan.give(raised.back().get(), next++);
    }
    plan.closeFrom(next);
    pid_t id = 0;
    if (const int failure = plan.start(run, id); failure != 0) return cannotStart(run, failure);
    Child child(id);
    if (child.descriptor() < 0) return cannotStart(run, errno);
    for (UniqueFd* const descriptor : {&input.reading, &input.writing, &output.writing, &errors.writing})
        *descriptor = UniqueFd();

    ChildEnd end;
    const Ending ending = listen(run, child, output, errors, stop, end);
    if (ending == Ending::stopped) return Error::stopped("stopped");
    end.late = ending == Ending::late;
    const int status = child.status();
    if (WIFSIGNALED(status)) {
        end.signal = WTERMSIG(status);
    } else {
        end.exitCode = WEXITSTATUS(status);
    }
    return end;
}

}  // namespace lm
