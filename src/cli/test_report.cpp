#include "cli/test_report.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "cli/json_writer.h"
#include "core/durable_file.h"
#include "core/text.h"

namespace lm::cli {
namespace {

using Outcome = TestCase::Outcome;

std::string nowInUtc() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&now, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

/// Text in an element or in an attribute of XML: without what no XML can hold.
std::string escaped(std::string_view text) {
    const std::string readable = isValidUtf8(text) ? std::string(text) : windows1252ToUtf8(text);
    std::string xml;
    for (const char c : readable) {
        switch (c) {
            case '&':
                xml += "&amp;";
                break;
            case '<':
                xml += "&lt;";
                break;
            case '>':
                xml += "&gt;";
                break;
            case '"':
                xml += "&quot;";
                break;
            case '\n':
                xml += "&#10;";
                break;
            default:
                xml += static_cast<unsigned char>(c) < ' ' ? '?' : c;
                break;
        }
    }
    // U+FFFE and U+FFFF are no characters of XML.
    for (const std::string_view no : {std::string_view("\xEF\xBF\xBE"), std::string_view("\xEF\xBF\xBF")}) {
        for (auto at = xml.find(no); at != std::string::npos; at = xml.find(no))
            xml.replace(at, no.size(), "?");
    }
    return xml;
}

std::size_t count(const std::vector<TestCase>& cases, Outcome outcome) {
    return static_cast<std::size_t>(std::count_if(
        cases.begin(), cases.end(), [outcome](const TestCase& one) { return one.outcome == outcome; }));
}

const char* outcomeName(Outcome outcome) {
    static constexpr std::array<const char*, 3> kNames = {"passed", "failed", "error"};
    return kNames.at(static_cast<std::size_t>(outcome));
}

}  // namespace

Result<TestReport> TestReport::create(std::string path, std::string command) {
    TestReport report;
    report.isXml_ = path.ends_with(".xml");
    if (!report.isXml_ && !path.ends_with(".json"))
        return Error{ErrorCode::invalidArgument,
                     "--report " + path + ": the file must end in .xml (JUnit) or .json"};
    report.path_ = std::move(path);
    report.command_ = std::move(command);
    report.started_ = nowInUtc();
    return report;
}

std::string TestReport::xml(const std::string& ecu, double seconds,
                            const std::vector<TestCase>& cases) const {
    const std::string counts = fmt::format("tests=\"{}\" failures=\"{}\" errors=\"{}\"", cases.size(),
                                           count(cases, Outcome::failed), count(cases, Outcome::broken));
    const std::string time = formatFixed(seconds, 3);
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    text += fmt::format("<testsuites name=\"xcplumo-cli\" {} time=\"{}\">\n", counts, time);
    text += fmt::format("  <testsuite name=\"{}\" {} skipped=\"0\" time=\"{}\" timestamp=\"{}\">\n",
                        escaped(command_ + " " + ecu), counts, time, started_.substr(0, 19));
    for (const TestCase& one : cases) {
        text += fmt::format("    <testcase classname=\"{}\" name=\"{}\" time=\"{}\"",
                            escaped(ecu.empty() ? command_ : ecu), escaped(one.name),
                            formatFixed(one.seconds, 3));
        if (one.outcome == Outcome::passed) {
            if (!one.details.empty())
                text += ">\n      <system-out>" + escaped(one.details) + "</system-out>\n    </testcase>\n";
            else
                text += "/>\n";
            continue;
        }
        const char* const element = one.outcome == Outcome::failed ? "failure" : "error";
        text += fmt::format(">\n      <{0} message=\"{1}\" type=\"{2}\">{3}</{0}>\n    </testcase>\n",
                            element, escaped(one.message), outcomeName(one.outcome), escaped(one.details));
    }
    return text + "  </testsuite>\n</testsuites>\n";
}

std::string TestReport::json(const std::string& ecu, double seconds,
                             const std::vector<TestCase>& cases) const {
    std::string text;
    JsonWriter json(text);
    json.beginObject();
    json.member("schema", 1);
    json.member("command", command_);
    json.member("ecu", ecu);
    json.member("start", started_);
    json.member("seconds", seconds);
    json.member("asWanted", count(cases, Outcome::passed) == cases.size());
    json.key("cases").beginArray();
    for (const TestCase& one : cases) {
        json.beginObject();
        json.member("name", one.name);
        json.member("result", outcomeName(one.outcome));
        json.member("seconds", one.seconds);
        if (!one.message.empty()) json.member("message", one.message);
        if (!one.details.empty()) json.member("details", one.details);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    return text + "\n";
}

Result<void> TestReport::write(const std::string& ecu, double seconds,
                               const std::vector<TestCase>& cases) const {
    const int failure = replaceOrWrite(path_, isXml_ ? xml(ecu, seconds, cases) : json(ecu, seconds, cases));
    if (failure == 0) return {};
    return Error::fromErrno(failure, "cannot write " + path_);
}

}  // namespace lm::cli
