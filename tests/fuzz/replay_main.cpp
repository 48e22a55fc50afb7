// Runs a fuzz target over the files of a corpus, without a fuzzer, as an ordinary test.
//
//   fuzz_TARGET DIRECTORY             each file in it and below, once
//   fuzz_TARGET --growth DIRECTORY    parts of each file repeated many times: four times the bytes must take
//                                     about four times the processor time, not sixteen times
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace {

constexpr std::size_t kShort = std::size_t{32} << 10U;
constexpr std::size_t kLong = 4 * kShort;
constexpr double kMostGrowth = 10;
constexpr double kWorthTellingMs = 20;

void run(const std::string& bytes) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

double milliseconds(const std::string& bytes) {
    const std::clock_t start = std::clock();
    run(bytes);
    return 1e3 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

/// The text with its part from `at` repeated until the whole has `size` bytes.
std::string pumped(const std::string& text, std::size_t at, std::size_t length, std::size_t size) {
    std::string out = text.substr(0, at);
    const std::string part = text.substr(at, length);
    while (out.size() + text.size() < size + at)
        out += part;
    return out + text.substr(at);
}

bool growsLinearly(const std::string& text, const char* name) {
    std::mt19937 random(1);
    for (int i = 0; i < 12 && !text.empty(); ++i) {
        const std::size_t at = random() % text.size();
        const std::size_t length = 1 + random() % std::min<std::size_t>(100, text.size() - at);
        const std::string few = pumped(text, at, length, kShort);
        const std::string many = pumped(text, at, length, kLong);
        // The least of several times is that of the undisturbed run.
        double fewMs = milliseconds(few);
        double manyMs = milliseconds(many);
        const auto linear = [&] { return manyMs < kWorthTellingMs || manyMs < kMostGrowth * fewMs; };
        for (int again = 0; again < 4 && !linear(); ++again) {
            fewMs = std::min(fewMs, milliseconds(few));
            manyMs = std::min(manyMs, milliseconds(many));
        }
        if (linear()) continue;
        std::fprintf(stderr, "%s: time grows faster than length when %zu bytes from %zu on are repeated\n",
                     name, length, at);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const bool growth = argc > 2 && std::string(argv[1]) == "--growth";
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[argc - 1])) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    bool good = !files.empty();
    for (const auto& path : files) {
        std::ifstream file(path, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        good = good && !file.bad();
        std::fprintf(stderr, "%s\n", path.c_str());
        if (growth) {
            good = growsLinearly(bytes, path.c_str()) && good;
        } else {
            run(bytes);
        }
    }
    return good ? 0 : 1;
}
