#include "params/dcm_object.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

std::string firstWord(const DcmStatement& statement) {
    return statement.words.empty() ? std::string() : statement.words.front();
}

/// The counts after the name, "3 2", "3 @ 2" or "3@2"; one that is no number is 0.
std::vector<std::size_t> countsOf(const DcmStatement& head) {
    std::vector<std::size_t> counts;
    for (std::size_t i = 1; i < head.words.size(); ++i) {
        std::string_view rest = head.words[i];
        while (!rest.empty()) {
            const std::string_view count = rest.substr(0, rest.find('@'));
            rest.remove_prefix(std::min(count.size() + 1, rest.size()));
            if (count.empty()) continue;
            const auto number = parseUnsigned(count, NumberBase::decimal, kMostFileBytes);
            counts.push_back(number ? number.value() : 0);
        }
    }
    return counts;
}

}  // namespace

Result<DcmObject> DcmObject::begin(const DcmKind& kind, const DcmStatement& head, SetReading& reading) {
    if (head.words.empty()) return reading.error(head.line, fmt::format("{} without a name", kind.keyword));
    DcmObject object(reading);
    object.kind_ = &kind;
    object.line_ = head.line;
    Parameter& parameter = object.parameter_;
    parameter.name = head.words.front();
    parameter.shape = kind.shape;
    parameter.dimensions = countsOf(head);
    std::vector<std::size_t>& counts = parameter.dimensions;
    if (counts.size() < kind.leastCounts || counts.size() > kind.mostCounts ||
        std::find(counts.begin(), counts.end(), std::size_t{0}) != counts.end()) {
        return reading.error(head.line, fmt::format("{} wants {} count(s) above 0 after the name",
                                                    kind.keyword, kind.leastCounts));
    }
    // "3 @ 1" is "3", as the writer has it: trailing ones are no dimensions.
    while (kind.shape == Shape::block && counts.size() > 1 && counts.back() == 1)
        counts.pop_back();
    const bool hasAxes = kind.shape == Shape::curve || kind.shape == Shape::map;
    if (hasAxes) parameter.axes.resize(counts.size());
    for (ParameterAxis& axis : parameter.axes)
        axis.kind = kind.axes;
    return object;
}

Result<void> DcmObject::take(const DcmStatement& statement) {
    auto taken = takeTexts(statement);
    if (taken && !taken.value()) taken = takePoints(statement);
    if (!taken) return taken.error();
    if (taken.value()) return {};
    if (statement.keyword == "WERT" || statement.keyword == "TEXT")
        return append(statement, statement.keyword == "TEXT", parameter_.values);
    reading_->warn(statement.line, fmt::format("'{}' in {} is not known, passed over",
                                               printableText(statement.keyword), parameter_.name));
    return {};
}

/// Whether it was a line of this sort.
Result<bool> DcmObject::takeTexts(const DcmStatement& statement) {
    const std::string_view keyword = statement.keyword;
    const std::string text = asLine(firstWord(statement));
    const std::size_t axes = parameter_.axes.size();
    if (keyword == "LANGNAME") {
        parameter_.description = text;
    } else if (keyword == "FUNKTION") {
        parameter_.function = text;
    } else if (keyword == "EINHEIT_W" || (keyword == "EINHEIT_X" && kind_->shape == Shape::axis)) {
        parameter_.unit = text;
    } else if (keyword == "EINHEIT_X" && axes > 0) {
        parameter_.axes[0].unit = text;
    } else if (keyword == "EINHEIT_Y" && axes > 1) {
        parameter_.axes[1].unit = text;
    } else if (keyword == "*SSTX" || keyword == "*SSTY") {
        const std::size_t at = keyword == "*SSTX" ? 0 : 1;
        // Beside axes of its own, such a line is a comment.
        if (at < axes && kind_->axes == AxisKind::common)
            parameter_.axes[at].reference = firstWord(statement);
    } else {
        return keyword == "DISPLAYNAME" || keyword == "VAR" || keyword.starts_with("EINHEIT_");
    }
    return true;
}

/// Whether it was a line of this sort.
Result<bool> DcmObject::takePoints(const DcmStatement& statement) {
    const std::string_view keyword = statement.keyword;
    const bool isText = keyword.starts_with("ST_TX/");
    if (!isText && !keyword.starts_with("ST/")) return false;
    Result<void> done;
    if (keyword.ends_with("/X") && kind_->shape == Shape::axis) {
        done = append(statement, isText, parameter_.values);
    } else if (keyword.ends_with("/X") && !parameter_.axes.empty()) {
        done = append(statement, isText, parameter_.axes[0].points);
    } else if (keyword.ends_with("/Y") && parameter_.axes.size() > 1) {
        done = takeRow(statement);
    } else {
        return reading_->error(statement.line, fmt::format("{}: a {} has no {}", parameter_.name,
                                                           kind_->keyword, printableText(keyword)));
    }
    if (!done) return done.error();
    return true;
}

Result<void> DcmObject::takeRow(const DcmStatement& statement) {
    std::vector<value::Value>& points = parameter_.axes[1].points;
    const std::size_t wanted = parameter_.dimensions[0] * points.size();
    if (parameter_.values.size() != wanted) {
        return reading_->error(statement.line,
                               fmt::format("{}: {} value(s) before this row, {} expected", parameter_.name,
                                           parameter_.values.size(), wanted));
    }
    if (statement.words.size() != 1) {
        return reading_->error(statement.line, fmt::format("{}: {} wants one point, that of the row below",
                                                           parameter_.name, statement.keyword));
    }
    return append(statement, statement.keyword == "ST_TX/Y", points);
}

Result<void> DcmObject::append(const DcmStatement& statement, bool isText,
                               std::vector<value::Value>& values) const {
    for (const std::string& word : statement.words) {
        if (isText) {
            values.emplace_back(word);
            continue;
        }
        const auto number = parseNumber(word);
        if (!number) {
            return reading_->error(statement.line, fmt::format("{}: '{}' is not a number", parameter_.name,
                                                               printableText(word)));
        }
        values.push_back(*number);
    }
    return {};
}

Result<void> DcmObject::checkCount(std::string_view what, std::size_t count, std::size_t wanted) const {
    if (count == wanted) return {};
    return reading_->error(line_, fmt::format("{}: {} {}, where {} expected", parameter_.name, count, what,
                                              wanted == 1 ? "one is" : fmt::format("{} are", wanted)));
}

Result<void> DcmObject::finish() {
    std::size_t wanted = 1;
    for (const std::size_t dimension : parameter_.dimensions)
        wanted *= dimension;
    if (auto fits = checkCount("value(s)", parameter_.values.size(), wanted); !fits) return fits;
    for (std::size_t i = 0; i < parameter_.axes.size(); ++i) {
        const std::size_t points = parameter_.axes[i].points.size();
        const bool areElsewhere = points == 0 && !parameter_.axes[i].reference.empty();
        if (areElsewhere) continue;
        if (auto fits = checkCount(i == 0 ? "ST/X" : "ST/Y", points, parameter_.dimensions[i]); !fits)
            return fits;
    }
    const bool isText = std::holds_alternative<std::string>(parameter_.values.front());
    if (kind_->shape == Shape::text && !isText)
        return reading_->error(line_, fmt::format("{}: a TEXTSTRING wants TEXT", parameter_.name));
    return reading_->add(std::move(parameter_), line_);
}

}  // namespace lm::params
