// A library to be preloaded: numbers the calls of a program that change files below one directory, notes
// them, and lets the system refuse or cut short the one that is asked for.
//
//   CALLS_BELOW   the directory; calls for other files pass unseen
//   CALLS_LOG     gets a line per call: NUMBER NAME PATH OFFSET SIZE RESULT; the result is -errno or what
//                 the call gave; removals have number 0
//   CALLS_STRIKE  N:ERRNO:MODE. once: the N-th call fails. on: all from the N-th on fail. short: a write
//                 takes half of its bytes. torn: the same, and the two calls behind it fail. kill: the
//                 program ends there, a write half-way.
//   CALLS_CLOCK   MILLISECONDS:SECONDS. So long after its first look at it, the program finds the system's
//                 clock set by so much.
//
// Threads: any. Lifetime: the whole of the process.
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

template <typename Function>
Function* original(Function* /*type*/, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
#define ORIGINAL(name) (original(&::name, #name))

struct Strike {
    long number = LONG_MAX;
    int systemError = 0;
    char mode[8] = "";
};

Strike readStrike() {
    Strike strike;
    const char* text = std::getenv("CALLS_STRIKE");
    if (text != nullptr &&
        std::sscanf(text, "%ld:%d:%7s", &strike.number, &strike.systemError, strike.mode) != 3) {
        std::abort();
    }
    return strike;
}

struct ClockSet {
    long after = 0;  ///< milliseconds
    long seconds = 0;
};

ClockSet readClockSet() {
    ClockSet set;
    const char* text = std::getenv("CALLS_CLOCK");
    if (text != nullptr && std::sscanf(text, "%ld:%ld", &set.after, &set.seconds) != 2) std::abort();
    return set;
}

bool isBelow(std::string_view path) {
    static const char* directory = std::getenv("CALLS_BELOW");
    return directory != nullptr && path.starts_with(directory) &&
           path.substr(std::strlen(directory)).starts_with('/');
}

std::string pathOf(int descriptor) {
    char link[64];
    char path[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const ssize_t length = ::readlink(link, path, sizeof path);
    // A file that is gone has " (deleted)" behind its name.
    const std::string_view text(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return std::string(text.substr(0, text.find(' ')));
}

/// One call that changes a file; `run` makes it, with the bytes it may take.
class Call {
  public:
    Call(const char* name, std::string path, long offset = 0, std::size_t size = 0, bool counts = true)
        : name_(name), path_(std::move(path)), offset_(offset), size_(size), seen_(isBelow(path_)) {
        static std::atomic<long> calls{0};
        if (seen_ && counts) number_ = ++calls;
    }

    template <typename Run>
    auto run(const Run& run) -> decltype(run(std::size_t{0})) {
        static const Strike strike = readStrike();
        if (!seen_) return run(size_);
        const std::string_view mode = strike.mode;
        const long behind = number_ != 0 ? number_ - strike.number : -1;  // 0: the call that is struck
        if (behind == 0 && mode == "kill") {
            if (size_ > 1) run(size_ / 2);
            ::raise(SIGKILL);
        }
        if (behind == 0 && size_ > 1 && (mode == "short" || mode == "torn")) return note(run(size_ / 2));
        const bool goesOn = mode == "on" || (mode == "torn" && behind <= 2);
        if (behind < 0 || (behind == 0 && mode == "short") || (behind > 0 && !goesOn))
            return note(run(size_));
        // What is closed is closed, also when the data did not get to the disk.
        if (std::string_view(name_) == "close") run(0);
        errno = strike.systemError;
        return note(static_cast<decltype(run(0))>(-1));
    }

  private:
    template <typename Value>
    Value note(Value result) const {
        const int systemError = errno;
        static const char* const place = std::getenv("CALLS_LOG");
        static const int log =
            place == nullptr ? -1 : ORIGINAL(open)(place, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        const long told = result < 0 ? -long{systemError} : static_cast<long>(result);
        if (log >= 0 && ::dprintf(log, "%ld %s %s %ld %zu %ld\n", number_, name_, path_.c_str(), offset_,
                                  size_, told) < 0)
            std::abort();
        errno = systemError;
        return result;
    }

    const char* name_;
    std::string path_;
    long offset_;
    std::size_t size_;
    bool seen_;
    long number_ = 0;
};

int openNoting(const char* path, int flags, mode_t mode) {
    const auto run = [&](std::size_t /*size*/) { return ORIGINAL(open)(path, flags, mode); };
    if ((flags & (O_ACCMODE | O_CREAT)) == O_RDONLY) return run(0);
    return Call((flags & O_TRUNC) != 0   ? "truncate"
                : (flags & O_CREAT) != 0 ? "create"
                                         : "open",
                path)
        .run(run);
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openNoting(path, flags, mode);
}

int __open_2(const char* path, int flags) {
    return openNoting(path, flags, 0);
}

int mkdir(const char* path, mode_t mode) {
    return Call("mkdir", path).run([&](std::size_t) { return ORIGINAL(mkdir)(path, mode); });
}

int rename(const char* from, const char* to) {
    return Call("rename", std::string(from) + ">" + to).run([&](std::size_t) {
        return ORIGINAL(rename)(from, to);
    });
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
    return Call("rename", std::string(from) + ">" + to).run([&](std::size_t) {
        return ORIGINAL(renameat2)(fromDirectory, from, toDirectory, to, flags);
    });
}

int unlink(const char* path) {
    return Call("unlink", path, 0, 0, false).run([&](std::size_t) { return ORIGINAL(unlink)(path); });
}

ssize_t write(int descriptor, const void* data, std::size_t size) {
    return Call("write", pathOf(descriptor), ::lseek(descriptor, 0, SEEK_CUR), size)
        .run([&](std::size_t count) { return ORIGINAL(write)(descriptor, data, count); });
}

ssize_t pwrite(int descriptor, const void* data, std::size_t size, off_t offset) {
    return Call("write", pathOf(descriptor), offset, size).run([&](std::size_t count) {
        return ORIGINAL(pwrite)(descriptor, data, count, offset);
    });
}

int ftruncate(int descriptor, off_t length) {
    return Call("ftruncate", pathOf(descriptor), length).run([&](std::size_t) {
        return ORIGINAL(ftruncate)(descriptor, length);
    });
}

int fsync(int descriptor) {
    return Call("sync", pathOf(descriptor)).run([&](std::size_t) { return ORIGINAL(fsync)(descriptor); });
}

int fdatasync(int descriptor) {
    return Call("sync", pathOf(descriptor)).run([&](std::size_t) { return ORIGINAL(fdatasync)(descriptor); });
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto real = ORIGINAL(clock_gettime);
    const auto milliseconds = [] {
        timespec now{};
        real(CLOCK_MONOTONIC, &now);
        return static_cast<long>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
    };
    static const ClockSet set = readClockSet();
    static const long first = milliseconds();
    const int result = real(clock, time);
    if (clock == CLOCK_REALTIME && result == 0 && set.seconds != 0 && milliseconds() - first >= set.after)
        time->tv_sec += set.seconds;
    return result;
}

int close(int descriptor) {
    const auto run = [&](std::size_t) { return ORIGINAL(close)(descriptor); };
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) return run(0);
    return Call("close", pathOf(descriptor)).run(run);
}

}  // extern "C"
