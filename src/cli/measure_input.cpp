#include "cli/measure_input.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "cli/command_values.h"
#include "cli/console_printer.h"
#include "cli/message_output.h"
#include "cli/recording_options.h"
#include "cli/sharing.h"
#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

/// What stands behind the first word.
std::string_view behind(std::string_view line, std::string_view word) {
    line.remove_prefix(word.size());
    return trimmed(line);
}

}  // namespace

MeasureInput::MeasureInput(Workplace& place, NextPlace nextPlace)
    : place_(place),
      nextPlace_(std::move(nextPlace)),
      lines_([this](const std::string& line) { return answer(line); }) {}

void MeasureInput::take() {
    std::array<char, 4096> block{};
    const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count > 0) {
        over_ = !lines_.add({block.data(), static_cast<std::size_t>(count)});
        return;
    }
    over_ = true;
    lines_.finish();
}

/// False once `quit` came.
bool MeasureInput::answer(const std::string& line) {
    const std::string_view words = trimmed(line);
    if (words.empty()) return true;
    const bool isJson = place_.results.json() != nullptr;
    Output output(STDERR_FILENO);
    Results results(output, "measure", isJson ? Form::jsonLines : Form::text, "answer");
    if (isJson) results.json()->member("line", line);
    told_.clear();
    const bool done =
        line.size() <= InputLines::kLongest
            ? perform(words, results)
            : (results.fail("stdin",
                            {ErrorCode::invalidArgument,
                             fmt::format("a line beyond {} bytes is not taken", InputLines::kLongest)}),
               false);
    if (isJson) {
        place_.console->showLine(results.takeLine(done ? 0 : 1));
    } else {
        output.flush();
        if (!told_.empty()) printMessage(told_ + "\n");
    }
    return !quit_;
}

bool MeasureInput::perform(std::string_view line, Results& results) {
    const std::string_view word = line.substr(0, line.find_first_of(" \t"));
    if (word == "quit" && word == line) return quit_ = true;
    if (word == "mark") return mark(behind(line, word), results);  // of now, whoever is at work
    // No client's commands come between those of a line.
    const auto own = place_.sharing->own();
    if (!own) {
        results.fail("stdin", own.error());
        return false;
    }
    if (word == "set") return assign(behind(line, word), results);
    if (word == "record") return record(behind(line, word), results);
    results.fail("stdin",
                 {ErrorCode::invalidArgument,
                  fmt::format("'{}' is none of: set NAME=VALUE, mark TEXT, record on, record off, quit",
                              printableText(line))});
    return false;
}

bool MeasureInput::assign(std::string_view assignment, Results& results) {
    Workplace place{.options = place_.options,
                    .results = results,
                    .session = place_.session,
                    .console = place_.console,
                    .sharing = place_.sharing,
                    .measured = place_.measured};
    return assignOne(std::string(assignment), place);
}

bool MeasureInput::mark(std::string_view text, Results& results) {
    if (text.empty()) {
        results.fail("mark", {ErrorCode::invalidArgument, "expected mark TEXT"});
        return false;
    }
    const auto marked = place_.session->mark(std::string(text));
    if (!marked) {
        results.fail("mark", marked.error());
        return false;
    }
    const std::int64_t zeroNs = place_.console->firstNs().value_or(marked.value());
    told_ = fmt::format("marked at {:.3f} s: {}", static_cast<double>(marked.value() - zeroNs) / 1e9,
                        printableText(text));
    if (JsonWriter* const json = results.json()) json->member("tNs", marked.value() - zeroNs);
    return true;
}

bool MeasureInput::record(std::string_view word, Results& results) {
    session::Session& session = *place_.session;
    const auto refuse = [&](const Error& error) {
        results.fail("record", error);
        return false;
    };
    if (word != "on" && word != "off")
        return refuse({ErrorCode::invalidArgument, "expected record on or record off"});
    if (word == "on") {
        auto place =
            session.isRecording() ? Result<storage::RecordingPlace>(storage::RecordingPlace{}) : nextPlace_();
        if (!place) return refuse(place.error());
        const auto started = session.startRecording(place.value(), commandLineWords());
        if (!started) return refuse(started.error());
    } else if (const auto stopped = session.stopRecording(); !stopped) {
        return refuse(stopped.error());
    }
    const std::string directory = session.statistics().recordingDirectory.string();
    told_ = (word == "on" ? "recording to " : "recorded ") + printableText(directory);
    if (JsonWriter* const json = results.json()) json->member("directory", directory);
    return true;
}

}  // namespace lm::cli
