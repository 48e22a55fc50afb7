#include "session/key_helper.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/child_process.h"
#include "core/log.h"
#include "core/platform.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "core/trusted_file.h"
#include "session/helper_errors.h"

namespace lm::session {
namespace {

constexpr std::size_t kLongestKey = 255;

Error failure(const std::string& message) {
    return Error{ErrorCode::ioError, message};
}

/// Where the shell would find a program; the name itself when that is nowhere.
std::filesystem::path findProgram(const std::string& name) {
    const char* const path = std::getenv("PATH");
    if (name.find('/') != std::string::npos || path == nullptr) return name;
    std::string_view rest = path;
    while (!rest.empty()) {
        const std::string_view directory = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(rest.size(), directory.size() + 1));
        auto candidate = std::filesystem::path(directory) / name;
        std::error_code unknown;
        const bool isFile = std::filesystem::is_regular_file(candidate, unknown);
        if (!directory.empty() && isFile && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return name;
}

/// Beside the tool in a build tree, else below the same prefix.
std::filesystem::path keyProgram() {
    const auto directory = executablePath().parent_path();
    auto beside = directory / "xcplumo-key";
    std::error_code unknown;
    if (std::filesystem::exists(beside, unknown)) return beside;
    return directory.parent_path() / "libexec" / "xcplumo-cli" / "xcplumo-key";
}

/// The program that the first line of a script names; empty for others.
std::string interpreterOf(const std::filesystem::path& program) {
    std::ifstream file(program, std::ios::binary);
    std::string line(256, '\0');  // as much as Linux looks at
    file.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<std::size_t>(file.gcount()));
    if (!line.starts_with("#!")) return {};
    const std::size_t from = std::min(line.find_first_not_of(" \t", 2), line.size());
    return line.substr(from, line.find_first_of(" \t\n", from) - from);
}

std::string toHex(std::span<const std::uint8_t> bytes) {
    return fmt::format("{:02X}", fmt::join(bytes, ""));
}

/// Blanks and line ends do not count. Nothing for what is no key.
std::optional<std::vector<std::uint8_t>> parseKey(std::string text) {
    std::erase_if(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    std::vector<std::uint8_t> key;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        const auto high = hexDigit(text[at]);
        const auto low = hexDigit(text[at + 1]);
        if (!high || !low) return std::nullopt;
        key.push_back(static_cast<std::uint8_t>(*high << 4U | *low));
    }
    if (text.size() % 2 != 0 || key.size() > kLongestKey) return std::nullopt;
    return key;
}

/// Logs what the program said, but for the last line of one that failed, which it gives: it says why.
std::string tellErrors(const std::string& text, bool failed, std::span<const Secret> secrets) {
    auto lines = linesToShow(withoutSecrets(text, secrets));
    std::string last;
    if (failed && !lines.empty()) {
        last = std::move(lines.back());
        lines.pop_back();
    }
    for (const std::string& line : lines)
        log::warn("security: {}", line);
    return last;
}

/// The helper as it will be started, and what keeps its files as they were looked at.
class Helper {
  public:
    Helper(const SessionConfig::Security& config, xcp::Resource resource) : config_(config) {
        const std::string privilege = std::to_string(static_cast<unsigned>(resource));
        if (config.library.empty()) {
            subject_ = "security.command " + config.command.front();
            run_.arguments = config.command;
        } else {
            subject_ = "security.library " + config.library.string();
            run_.arguments = {"xcplumo-key", config.library.string()};
        }
        run_.arguments.push_back(privilege);
        byHand_ = fmt::format("{}", fmt::join(run_.arguments, " "));
        run_.limit = config.timeout;
    }

    Result<void> checkFiles() {
        if (!config_.refusal.empty()) return Error{ErrorCode::permissionDenied, config_.refusal};
        run_.program = config_.library.empty() ? findProgram(config_.command.front()) : keyProgram();
        std::error_code unknown;
        if (!config_.library.empty() && !std::filesystem::exists(run_.program, unknown)) {
            return Error{ErrorCode::notFound,
                         "xcplumo-key, which runs security.library, is missing: " + run_.program.string(), 0,
                         Error::kNoDetail,
                         "it is installed along with xcplumo-cli; beside a copy of that it works, too"};
        }
        const bool isOwn = !config_.library.empty();
        if (isOwn) byHand_.replace(0, run_.arguments.front().size(), run_.program.string());
        // A digest stands for what the maker of the ECU gave, not for the tool's own part.
        auto program = vouch(run_.program, isOwn ? std::span<const std::string>{} : config_.sha256);
        if (!program) return program.error();
        source_ = std::exchange(run_.program, program.value());
        for (std::size_t i = 1; i + 1 < run_.arguments.size(); ++i) {
            if (!isOwn && !std::filesystem::is_regular_file(run_.arguments[i], unknown)) continue;
            auto vouched = vouch(run_.arguments[i], config_.sha256);
            if (!vouched) return vouched.error();
            run_.arguments[i] = vouched.value();
        }
        if (config_.sha256.empty() || !copies_.empty()) return {};
        Error none{ErrorCode::permissionDenied, subject_ + " is refused: its SHA-256 is not security.sha256"};
        none.hint = "`sha256sum FILE` tells what it is";
        return none;
    }

    Result<std::vector<std::uint8_t>> run(std::span<const std::uint8_t> seed, const StopToken& stop) {
        run_.input = toHex(seed) + "\n";
        const auto done = runChild(run_, stop);
        if (!done) return done.error().isStop() ? done.error() : cannotStart(done.error());
        const ChildEnd& end = done.value();
        const bool failed = end.late || end.signal != 0 || end.exitCode != 0;
        auto key = parseKey(end.output);
        std::vector<Secret> secrets = {Secret(seed.begin(), seed.end())};
        if (key && !key->empty()) secrets.push_back(*key);
        const std::string last = tellErrors(endedInLine(end.errors), failed, secrets);
        if (end.late) {
            Error late = failure(fmt::format("{}: no key within {} ms", subject_, config_.timeout.count()));
            late.hint = "security.timeoutMs in the configuration is the limit";
            return late;
        }
        if (failed) return hinted(failure(subject_ + ": " + reasonOf(end, last)));
        if (!key) {
            return hinted(failure(fmt::format("{}: {} byte(s) of output that are not a key in hexadecimal",
                                              subject_, end.output.size())));
        }
        if (key->empty()) return hinted(failure(subject_ + ": it printed no key"));
        return *std::move(key);
    }

  private:
    /// The path to use for a file: its own, or that of the copy that a digest stands for.
    Result<std::string> vouch(const std::filesystem::path& path, std::span<const std::string> digests) {
        auto vouched = vouchFor(path, digests);
        if (!vouched) {
            Error error = vouched.error();
            error.message = subject_ + ": " + error.message;
            // No one is invited to run by hand what is not to be trusted.
            return error.code == ErrorCode::permissionDenied ? error : hinted(std::move(error));
        }
        if (!vouched.value().copy.valid())
            return path.is_absolute() ? vouched.value().path.string() : path.string();
        const auto number = ChildRun::kFirstHandedOn + static_cast<int>(copies_.size());
        copies_.push_back(std::move(vouched.value().copy));
        run_.handedOn.push_back(copies_.back().get());
        return fmt::format("/proc/self/fd/{}", number);
    }

    Error cannotStart(Error error) const {
        const std::string interpreter = interpreterOf(source_);
        std::error_code unknown;
        error.message = subject_ + ": " +
                        (interpreter.empty() || std::filesystem::exists(interpreter, unknown)
                             ? error.message
                             : "its first line names " + printableText(interpreter) + ", which is missing");
        return hinted(std::move(error));
    }

    /// A line that was cut may end within a seed, which is not known again then.
    std::string endedInLine(const std::string& text) const {
        return text.size() < run_.mostOutput ? text : text.substr(0, text.rfind('\n'));
    }

    std::string reasonOf(const ChildEnd& end, const std::string& last) const {
        if (end.signal != 0) {
            const char* const name = ::sigabbrev_np(end.signal);
            const char* const text = ::sigdescr_np(end.signal);
            return fmt::format("it crashed (SIG{}, {})", name == nullptr ? "?" : name,
                               text == nullptr ? "unknown signal" : text);
        }
        if (!config_.library.empty() && !last.empty()) return last;
        return fmt::format("it ended with exit code {}{}{}", end.exitCode, last.empty() ? "" : ": ", last);
    }

    Error hinted(Error error) const {
        if (error.hint.empty()) error.hint = "to try it by hand: echo 01020304 | " + byHand_;
        return error;
    }

    const SessionConfig::Security& config_;
    std::string subject_;
    std::string byHand_;
    std::filesystem::path source_;  ///< of the program, where that is a copy
    ChildRun run_;
    std::vector<UniqueFd> copies_;
};

}  // namespace

Result<std::vector<std::uint8_t>> KeyHelper::operator()(xcp::Resource resource,
                                                        std::span<const std::uint8_t> seed) const {
    if (use_->ended) {
        return Error{
            .code = ErrorCode::permissionDenied,
            .message = "not tried: a key was refused",
            .hint = "many ECUs count wrong keys: \"security\" in the configuration has to be mended first"};
    }
    Helper helper(config_, resource);
    if (auto checked = helper.checkFiles(); !checked) return checked.error();
    auto key = helper.run(seed, stop_);
    if (key) use_->given.fetch_or(static_cast<std::uint8_t>(resource));
    return key;
}

}  // namespace lm::session
