#include "cli/serve_forms.h"

#include <utility>

#include <fmt/format.h>

#include "cli/command_describe.h"
#include "cli/command_list.h"
#include "cli/json_writer.h"
#include "cli/object_json.h"
#include "cli/object_names.h"
#include "cli/object_report.h"
#include "cli/recording_overview.h"
#include "cli/recording_report.h"
#include "cli/value_json.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {
namespace {

using session::Reading;

void writeReadingValue(JsonWriter& json, const Reading& reading, value::NumberStyle style) {
    const std::string text = value::valueText(reading.element, reading.physical(), style);
    writeValue(json, reading.element, reading.bytes.data(), text.empty() ? "?" : text);
}

void writeErrorObject(JsonWriter& json, std::string_view key, const Error& error) {
    json.key(key).beginObject();
    writeError(json, error);
    json.endObject();
}

void writeResult(JsonWriter& json, const Result<Reading>& value, value::NumberStyle style) {
    if (value) return writeReadingValue(json.key("value"), value.value(), style);
    writeErrorObject(json, "error", value.error());
}

std::string readingText(std::string_view name, const Result<Reading>& value, value::NumberStyle style) {
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    json.member("name", name);
    writeResult(json, value, style);
    json.endObject();
    return text;
}

std::string writeText(std::string_view name, std::string_view typed, const session::WriteOutcome& outcome,
                      value::NumberStyle style) {
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    json.member("name", name);
    json.member("typed", typed);
    writeResult(json, outcome.value, style);
    if (outcome.value) {
        const std::string deviation =
            value::deviationText(outcome.value.value().element, typed, outcome.asked, outcome.written, style);
        if (!deviation.empty()) json.member("deviation", deviation);
    }
    if (outcome.held && *outcome.held) writeReadingValue(json.key("held"), outcome.held->value(), style);
    if (outcome.held && !*outcome.held) {
        json.key("held").null();
        writeErrorObject(json, "heldError", outcome.held->error());
    }
    json.endObject();
    return text;
}

std::string reportText(const IReport& report) {
    std::string text;
    JsonWriter json(text);
    report.write(json);
    return text;
}

Result<std::string> listText(const a2l::Description& description, const serve::Search& search) {
    ListCommand::Options options;
    options.pattern = search.pattern;
    if (!search.group.empty()) options.groups.push_back(search.group);
    if (!search.function.empty()) options.functions.push_back(search.function);
    options.onlyMeasurements = search.kind == "measurement";
    options.onlyParameters = search.kind == "parameter";
    options.onlyAxes = search.kind == "axis";
    options.leaves = search.parts;
    options.inDescriptions = search.descriptions;
    const bool isKind =
        search.kind.empty() || options.onlyMeasurements || options.onlyParameters || options.onlyAxes;
    if (!isKind) return Error{ErrorCode::invalidArgument, "kind: measurement, parameter or axis"};
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    if (Result<void> written = writeList(description, options, json); !written) return written.error();
    json.endObject();
    return text;
}

Result<std::string> describeText(const a2l::Description& description, const std::string& name) {
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    if (Result<void> written = writeDescription(description, name, json); !written) return written.error();
    json.endObject();
    return text;
}

Result<std::string> recordingText(const std::filesystem::path& path, value::NumberStyle style) {
    const auto recording = storage::RecordingReader::open(path);
    if (!recording) return recording.error();
    std::string errors;
    JsonWriter errorJson(errors);
    const auto overview = overviewOf(recording.value(), style, [&](const Error& error) {
        errorJson.beginObject();
        writeError(errorJson, error);
        errorJson.endObject();
    });
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    RecordingReport(overview).write(json);
    json.key("errors").beginArray();
    text += errors;
    json.endArray();
    json.endObject();
    return text;
}

}  // namespace

serve::Forms serveForms(value::NumberStyle style) {
    serve::Forms forms;
    forms.list = listText;
    forms.describe = describeText;
    forms.names = objectNames;
    forms.reading = [style](std::string_view name, const Result<Reading>& value) {
        return readingText(name, value, style);
    };
    forms.object = [style](std::string_view name, const Result<session::ObjectReading>& reading) {
        return reportText(ObjectReport(name, reading, {style, std::nullopt}));
    };
    forms.write = [style](std::string_view name, std::string_view typed,
                          const session::WriteOutcome& outcome) {
        return writeText(name, typed, outcome, style);
    };
    forms.objectWrite = [style](const session::WriteWish& wish, const session::ObjectWriting& writing) {
        return reportText(ObjectWriteReport(wish, writing, {style, std::nullopt}));
    };
    forms.value = [style](const value::Element& element, const std::vector<std::uint8_t>& bytes) {
        std::string text;
        JsonWriter json(text);
        writeReadingValue(json, {element, bytes}, style);
        return text;
    };
    forms.content = [style](const a2l::ObjectContent& content) {
        // The writer of objects puts them behind a key.
        std::string text;
        JsonWriter json(text);
        writeObject(json, content, style);
        return text;
    };
    forms.recordingInfo = [style](const std::filesystem::path& path) { return recordingText(path, style); };
    return forms;
}

}  // namespace lm::cli
