// What a command found out and what went wrong, as text or as JSON (docs/json.md).
//
// As text a report is printed when it is shown. As JSON everything is gathered in one object, which is
// written at the end, errors included. Error lines go to standard error either way.
//
// Threads: the main thread. Lifetime: the output is borrowed; reports are used during the call only.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cli/json_writer.h"
#include "cli/output.h"
#include "core/result.h"

namespace lm::cli {

/// A result in both of its forms.
class IReport {
  public:
    virtual ~IReport() = default;
    /// Standard output, and what belongs to the result on standard error.
    virtual void print(Output& output) const = 0;
    /// Members of the command's JSON object.
    virtual void write(JsonWriter& json) const = 0;
};

enum class Form : std::uint8_t {
    text,
    json,       ///< one object
    jsonLines,  ///< the object is the last line, "type": "end"
};

class Results {
  public:
    /// `lineType` is the "type" as JSON lines.
    Results(Output& output, std::string_view command, Form form, std::string_view lineType = "end");
    Results(const Results&) = delete;
    Results& operator=(const Results&) = delete;

    /// For commands that print while they work.
    Output& output() { return output_; }
    void show(const IReport& report);
    /// Where members of the object go, nullptr as text.
    JsonWriter* json() { return form_ == Form::text ? nullptr : &json_; }

    /// The error as a line on standard error (see printError) and in the object. `name` is the object or file
    /// that it is about, where that is known.
    void fail(std::string_view prefix, const Error& error, std::string_view name = {});
    /// The same, without a line for a stop: who asked for it knows of it.
    void failOrStopped(std::string_view prefix, const Error& error, std::string_view name = {});

    /// The hint of an error that is part of a report, as a line on standard error; each once, and none as
    /// JSON, where it stands in the report.
    void hint(const Error& error);

    /// Lines were written to standard output by another way, which could not write all of them (`failed`) or
    /// not the whole of the last one.
    void afterLines(bool failed, bool insideLine);

    /// As JSON: the whole object with its line end, for whoever prints it instead of finish().
    std::string takeLine(int exitCode);

    /// Writes what is left; the exit code is Output::finish's. As JSON lines no one waits for a reader longer
    /// than a second.
    int finish(int exitCode);

  private:
    struct NamedError {
        Error error;
        std::string name;
    };

    void endObject(int exitCode);

    Output& output_;
    const Form form_;
    std::string text_;  ///< the object so far
    JsonWriter json_;
    std::vector<NamedError> errors_;
    std::set<std::string> toldHints_;
    bool abandoned_ = false;
};

/// The members "code" and "message", and "hint" where there is one.
void writeError(JsonWriter& json, const Error& error);

/// {"schema":1,"command":COMMAND without the end: how every object begins.
std::string objectStart(std::string_view command);

}  // namespace lm::cli
