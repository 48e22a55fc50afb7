#include "storage/write/part_names.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <utility>

#include <spdlog/fmt/fmt.h>

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kNumber = "{n}";
/// The longest name of a file has 255 bytes on Linux; an export and its temporary file add to it.
constexpr std::size_t kLongestName = 180;

Error wrong(std::string_view pattern, const std::string& reason) {
    return {ErrorCode::invalidArgument, fmt::format("the name '{}' {}", pattern, reason)};
}

/// What no file name should have on the systems that may read it.
bool isUnfit(char c) {
    constexpr std::string_view kUnfit = "/\\:*?\"<>|";
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || kUnfit.find(c) != std::string_view::npos;
}

/// A name that the ECU or its A2L gives may hold anything.
std::string fitName(std::string text) {
    std::replace_if(text.begin(), text.end(), isUnfit, '_');
    if (text.size() > kLongestName) text.resize(kLongestName);
    // A cut may leave a part of a character.
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0U) == 0x80U)
        text.pop_back();
    return text;
}

std::string timeText(std::int64_t utcNs) {
    const auto seconds = static_cast<std::time_t>(utcNs / 1'000'000'000);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return {text, length};
}

}  // namespace

Result<void> PartNames::check(std::string_view pattern) {
    if (pattern.empty()) return wrong(pattern, "is empty");
    if (pattern.size() > kLongestName) return wrong(pattern, "is too long");
    if (pattern.front() == '.') return wrong(pattern, "begins with a dot, which hides the recording");
    for (std::size_t at = 0; at < pattern.size(); ++at) {
        const char c = pattern[at];
        if (c == '/') return wrong(pattern, "is a path: -r names the folder");
        if (isUnfit(c))
            return wrong(pattern,
                         fmt::format("has a character at place {} that file names should not have", at + 1));
        if (c == '}') return wrong(pattern, "has a } without a {");
        if (c != '{') continue;
        const std::size_t end = pattern.find('}', at);
        const std::string_view word = pattern.substr(at, end == std::string_view::npos ? end : end - at + 1);
        if (word != "{time}" && word != "{ecu}" && word != kNumber)
            return wrong(pattern, fmt::format("has {}, known are {{time}}, {{ecu}} and {{n}}", word));
        at = end;
    }
    return {};
}

PartNames PartNames::forParts(fs::path folder, std::string pattern, std::string ecu) {
    if (pattern.find(kNumber) == std::string::npos) pattern += "_{n}";
    return {std::move(folder), std::move(pattern), std::move(ecu), false};
}

PartNames PartNames::forRecordings(fs::path folder, std::string pattern, std::string ecu) {
    const bool hasNumber = pattern.find(kNumber) != std::string::npos;
    return {std::move(folder), std::move(pattern), std::move(ecu), hasNumber};
}

std::string PartNames::nameOf(std::uint64_t number, std::int64_t utcNs) const {
    std::string name;
    for (std::size_t at = 0; at < pattern_.size(); ++at) {
        if (pattern_[at] != '{') {
            name += pattern_[at];
            continue;
        }
        const std::size_t end = pattern_.find('}', at);
        const std::string_view word = std::string_view(pattern_).substr(at + 1, end - at - 1);
        if (word == "time") name += timeText(utcNs);
        if (word == "ecu") name += ecu_;
        if (word == "n") name += fmt::format("{:04}", number);
        at = end;
    }
    name = fitName(std::move(name));
    return name.empty() || name.front() == '.' ? "_" + name : name;
}

Result<PartNames::Claimed> PartNames::claim(std::uint64_t number, std::int64_t utcNs) const {
    Claimed claimed;
    const auto make = [&claimed](const fs::path& path) -> Result<bool> {
        std::error_code failure;
        const bool made = fs::create_directory(path, failure);
        if (made) claimed.made.push_back(path);
        // Something else than a directory is taken, too.
        if (!failure || failure == std::errc::file_exists || failure == std::errc::not_a_directory)
            return made;
        return Error::fromErrno(failure.value(), "cannot create " + path.string());
    };
    fs::path above;
    for (const fs::path& piece : folder_) {
        above /= piece;
        std::error_code unknown;
        if (fs::is_directory(above, unknown)) continue;
        if (auto made = make(above); !made) return made.error();
    }
    constexpr std::uint64_t kMostTries = 100'000;
    for (std::uint64_t i = 0; i < kMostTries; ++i) {
        std::string name = nameOf(countsOn_ ? number + i : number, utcNs);
        if (!countsOn_ && i > 0) name += fmt::format("-{}", i + 1);
        claimed.path = folder_ / name;
        auto made = make(claimed.path);
        if (made && made.value()) return claimed;
        if (made) continue;
        for (; !claimed.made.empty(); claimed.made.pop_back()) {
            std::error_code ignored;
            fs::remove(claimed.made.back(), ignored);
        }
        return made.error();
    }
    return Error{ErrorCode::alreadyOpen, "no name is free in " + folder_.string()};
}

}  // namespace lm::storage
