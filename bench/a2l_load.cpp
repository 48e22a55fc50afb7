// How long loading an A2L description takes, as a ratio to `LC_ALL=C wc -w` over the same bytes.
//
//     scripts/make_big_a2l.py --measurements 300000 --conversions 2000 big.a2l
//     a2l_load big.a2l
//
// Both run in turn, each in a fresh process as a command does; the least processor and wall time of each
// counts, so that other load on the machine disturbs little.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "a2l/description.h"

namespace {

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double childrenSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Least {
    double processor = std::numeric_limits<double>::infinity();
    double wall = std::numeric_limits<double>::infinity();

    // Runs something that starts a process and waits for it; false when that failed.
    template <typename Run>
    bool take(Run run) {
        const double before = childrenSeconds();
        const auto start = std::chrono::steady_clock::now();
        if (run() != 0) return false;
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        processor = std::min(processor, childrenSeconds() - before);
        wall = std::min(wall, elapsed.count());
        return true;
    }
};

int loadInChild(const std::filesystem::path& file) {
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        const auto description = lm::a2l::load(file);
        if (!description.ok()) std::fprintf(stderr, "%s\n", description.error().text().c_str());
        _exit(description.ok() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child ? status : -1;
}

void print(const char* name, const Least& least, double megabytes) {
    std::printf("%-6s %7.1f ms processor, %7.1f ms wall, %6.0f MB/s\n", name, least.processor * 1e3,
                least.wall * 1e3, megabytes / least.processor);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kRounds = 7;
    if (argc != 2) {
        std::fputs("usage: a2l_load FILE\n", stderr);
        return 1;
    }
    const std::filesystem::path file = argv[1];
    setenv("A2L_LOAD_FILE", file.c_str(), 1);  // spares quoting it for the shell
    Least words;
    Least load;
    for (int round = 0; round < kRounds; ++round) {
        const auto countWords = [] {
            return std::system("LC_ALL=C exec wc -w < \"$A2L_LOAD_FILE\" > /dev/null");
        };
        if (!words.take(countWords) || !load.take([&] { return loadInChild(file); })) return 1;
    }
    const double megabytes = static_cast<double>(std::filesystem::file_size(file)) / 1e6;
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    std::printf("%s: %.1f MB\n", file.c_str(), megabytes);
    print("wc -w", words, megabytes);
    print("load", load, megabytes);
    std::printf("ratio  %7.2f of the processor time, %.2f of the wall time\n",
                load.processor / words.processor, load.wall / words.wall);
    std::printf("memory %7.2f of the file's size at most\n",
                static_cast<double>(usage.ru_maxrss) * 1024 / 1e6 / megabytes);
    return 0;
}
