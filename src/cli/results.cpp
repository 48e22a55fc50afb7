#include "cli/results.h"

#include <array>
#include <chrono>
#include <utility>

#include "cli/message_output.h"

namespace lm::cli {
namespace {

constexpr std::chrono::seconds kLastLineLimit{1};

std::string_view codeName(ErrorCode code) {
    static constexpr std::array<std::string_view, 11> kNames = {
        "invalidArgument", "notFound",    "permissionDenied", "ioError",       "timeout", "wouldBlock",
        "notOpen",         "alreadyOpen", "unsupported",      "protocolError", "closed"};
    return kNames.at(static_cast<std::size_t>(code));
}

}  // namespace

void writeError(JsonWriter& json, const Error& error) {
    json.member("code", codeName(error.code));
    json.member("message", error.text());
    if (!error.hint.empty()) json.member("hint", error.hint);
}

std::string objectStart(std::string_view command) {
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    json.member("schema", 1);
    json.member("command", command);
    return text;
}

Results::Results(Output& output, std::string_view command, Form form, std::string_view lineType)
    : output_(output), form_(form), text_(objectStart(command)), json_(text_) {
    if (form_ == Form::jsonLines) json_.member("type", lineType);
}

void Results::show(const IReport& report) {
    if (form_ == Form::text) {
        report.print(output_);
    } else {
        report.write(json_);
    }
}

void Results::fail(std::string_view prefix, const Error& error, std::string_view name) {
    printError(prefix, error);
    errors_.push_back({error, std::string(name)});
}

void Results::hint(const Error& error) {
    if (form_ != Form::text || error.hint.empty() || !toldHints_.insert(error.hint).second) return;
    output_.flush();
    printMessage(hintLine(error));
}

void Results::failOrStopped(std::string_view prefix, const Error& error, std::string_view name) {
    if (!error.isStop()) printError(prefix, error);
    errors_.push_back({error, std::string(name)});
}

void Results::afterLines(bool failed, bool insideLine) {
    abandoned_ = failed;
    if (insideLine) text_.insert(0, 1, '\n');
}

int Results::finish(int exitCode) {
    if (form_ == Form::text) return output_.finish(exitCode);
    if (abandoned_) return exitCode;
    endObject(exitCode);
    output_.append(text_);
    return form_ == Form::json ? output_.finish(exitCode) : output_.finishWithin(kLastLineLimit, exitCode);
}

std::string Results::takeLine(int exitCode) {
    endObject(exitCode);
    return std::move(text_);
}

void Results::endObject(int exitCode) {
    json_.key("errors").beginArray();
    for (const auto& [error, name] : errors_) {
        json_.beginObject();
        writeError(json_, error);
        if (!name.empty()) json_.member("name", name);
        json_.endObject();
    }
    json_.endArray();
    json_.member("exit", exitCode);
    json_.endObject();
    text_ += '\n';
}

}  // namespace lm::cli
