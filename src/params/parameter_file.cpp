#include "params/parameter_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/durable_file.h"
#include "core/stoppable_input.h"
#include "core/text.h"
#include "params/cdfx_reader.h"
#include "params/cdfx_writer.h"
#include "params/dcm_reader.h"
#include "params/dcm_writer.h"
#include "params/json_file.h"

namespace lm::params {
namespace {

struct Form {
    std::string_view ending;
    Result<ParameterSet> (*read)(std::string_view text, std::vector<std::string>& notes);
    Result<std::string> (*write)(const ParameterSet& set, std::vector<std::string>& notes);
};

template <auto kRead>
Result<ParameterSet> readWith(std::string_view text, std::vector<std::string>& notes) {
    auto read = kRead(text);
    if (!read) return read.error();
    notes = std::move(read.value().warnings);
    return std::move(read.value().set);
}

template <auto kWrite>
Result<std::string> writeWith(const ParameterSet& set, std::vector<std::string>& notes) {
    auto written = kWrite(set);
    if (!written) return written.error();
    for (const LeftOut& one : written.value().leftOut)
        notes.push_back(fmt::format("left out: {}: {}", one.name, one.why));
    const auto& names = written.value().notExact;
    if (!names.empty()) {
        notes.push_back(fmt::format(
            "{} parameter(s) are not held exactly, as their physical values lead to other bytes: {}",
            names.size(), fmt::join(names, ", ")));
    }
    return std::move(written.value().text);
}

constexpr Form kForms[] = {
    {".json", readJson,
     [](const ParameterSet& set, std::vector<std::string>&) { return Result<std::string>(writeJson(set)); }},
    {".cdfx", readWith<readCdfx>, writeWith<writeCdfx>},
    {".dcm", readWith<readDcm>, writeWith<writeDcm>},
};

const Form* formOf(const std::filesystem::path& path) {
    std::string ending;
    lowerAsciiInto(ending, path.extension().string());
    const auto found = std::find_if(std::begin(kForms), std::end(kForms),
                                    [&](const Form& form) { return form.ending == ending; });
    return found == std::end(kForms) ? nullptr : found;
}

Result<std::string> readText(const std::filesystem::path& path, const StopToken& stop) {
    constexpr std::size_t kMost = std::size_t{2} << 30U;
    const auto failed = [&](int failure) {
        if (failure == ECANCELED) return Error::stopped(path.string() + ": stopped");
        return Error::fromErrno(failure, "cannot read " + path.string());
    };
    const UniqueFd file = openForReading(path);
    if (!file.valid()) return failed(errno);
    std::string text;
    struct stat status {};
    const bool hasSize = ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (hasSize) text.reserve(std::min(static_cast<std::size_t>(status.st_size) + 1, kMost));
    constexpr std::size_t kStep = std::size_t{256} << 10U;
    std::vector<char> piece(kStep);
    for (;;) {
        const ssize_t count = readUnlessStopped(file.get(), piece.data(), piece.size(), stop);
        if (count < 0) return failed(errno);
        if (count == 0) return text;
        text.append(piece.data(), static_cast<std::size_t>(count));
        if (text.size() > kMost) return failed(EFBIG);
    }
}

/// The rights of a file stay when it is written again.
void keepMode(const std::filesystem::path& path, int descriptor) {
    constexpr mode_t kRights = 0666;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return;
    [[maybe_unused]] const int done = ::fchmod(descriptor, status.st_mode & kRights);
}

int place(const std::filesystem::path& path, std::string_view text, bool replace) {
    StagedFile file;
    if (const int failure = file.createBeside(path); failure != 0) return failure;
    keepMode(path, file.descriptor());
    if (const int failure = file.write(text); failure != 0) return failure;
    if (const int failure = file.close(); failure != 0) return failure;
    const auto existing = replace ? StagedFile::Existing::replaced : StagedFile::Existing::kept;
    if (const int failure = file.place(path, existing); failure != 0) return failure;
    return flushDirectoryToDisk(path.has_parent_path() ? path.parent_path() : ".");
}

}  // namespace

Result<void> checkEnding(const std::filesystem::path& path) {
    if (formOf(path) != nullptr) return {};
    std::string known;
    for (const Form& form : kForms)
        known += (known.empty() ? "" : ", ") + std::string(form.ending);
    return Error{ErrorCode::invalidArgument,
                 fmt::format("the name {} does not end as a parameter file does: {}", path.string(), known)};
}

Result<void> checkTarget(const std::filesystem::path& path, bool replace) {
    if (auto known = checkEnding(path); !known) return known;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return {};
    if (!S_ISREG(status.st_mode))
        return Error{ErrorCode::invalidArgument, path.string() + " is not a regular file"};
    if (replace) return {};
    return Error{ErrorCode::alreadyOpen, path.string() + " already exists (--force overwrites it)"};
}

Result<ParameterSet> readParameterFile(const std::filesystem::path& path, std::vector<std::string>& notes,
                                       const StopToken& stop) {
    if (auto known = checkEnding(path); !known) return known.error();
    const auto text = readText(path, stop);
    if (!text) return text.error();
    std::vector<std::string> own;
    auto set = formOf(path)->read(text.value(), own);
    for (const std::string& note : own)
        notes.push_back(path.string() + ": " + note);
    if (set) return set;
    Error error = set.error();
    error.message = path.string() + ": " + error.text();
    return error;
}

Result<void> writeParameterFile(const std::filesystem::path& path, const ParameterSet& set, bool replace,
                                std::vector<std::string>& notes) {
    if (auto fits = checkTarget(path, replace); !fits) return fits;
    const auto text = formOf(path)->write(set, notes);
    if (!text) return text.error();
    // A link stays and leads to the new file.
    std::error_code noLink;
    const auto real = std::filesystem::canonical(path, noLink);
    const int failure = place(noLink ? path : real, text.value(), replace);
    if (failure == EEXIST && !replace) return checkTarget(path, replace);
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + path.string());
    return {};
}

}  // namespace lm::params
