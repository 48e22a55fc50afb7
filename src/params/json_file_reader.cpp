#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/json_file.h"
#include "params/json_members.h"
#include "params/json_reader.h"

namespace lm::params {
namespace {

using value::Exact;
using value::Value;

/// A double holds all whole numbers of so many digits.
constexpr std::size_t kWholeDigits = 15;
/// Any double has a text of so many digits or fewer.
constexpr std::size_t kDoubleDigits = 17;

/// Of the rows of a table, the one with that name; its place tells it apart from others.
template <typename Row, std::size_t kCount>
std::optional<std::size_t> rowOf(const Row (&table)[kCount], std::string_view name) {
    const auto found =
        std::find_if(std::begin(table), std::end(table), [&](const Row& row) { return row.first == name; });
    if (found == std::end(table)) return std::nullopt;
    return static_cast<std::size_t>(found - std::begin(table));
}

/// Editors of other systems put it before UTF-8.
std::string_view withoutMark(std::string_view text) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (text.starts_with(kMark)) text.remove_prefix(kMark.size());
    return text;
}

class Reading {
  public:
    Reading(std::string_view text, std::vector<std::string>& warnings)
        : json_(withoutMark(text)), warnings_(warnings) {}

    Result<ParameterSet> run() {
        readObject(kTop);
        json_.end();
        if (!format_)
            json_.fail(fmt::format("this is no parameter set: \"format\": \"{}\" is missing", kJsonFormat));
        if (!schema_) json_.fail("\"schema\" is missing");
        if (!parameters_) json_.fail("\"parameters\" is missing");
        if (!json_.ok()) return json_.error();
        if (auto once = checkNames(); !once) return once.error();
        if (auto sorted = set_.sortByName(); !sorted) return sorted.error();
        return std::move(set_);
    }

  private:
    /// A name and what reads its value.
    using Member = std::pair<std::string_view, void (Reading::*)()>;

    /// Each member once; what has no row is skipped with a warning.
    template <std::size_t kCount>
    void readObject(const Member (&members)[kCount]) {
        std::uint32_t seen = 0;
        json_.begin('{');
        for (bool isFirst = true; json_.next('}', isFirst);) {
            const std::string_view name = json_.key();
            const auto row = rowOf(members, name);
            if (!row) {
                skipUnknown(name);
                continue;
            }
            if ((seen >> *row & 1U) != 0)
                json_.fail(fmt::format("\"{}\" is there twice", members[*row].first));
            seen |= 1U << *row;
            (this->*members[*row].second)();
        }
    }

    void skipUnknown(std::string_view name) {
        if (json_.ok() && unknown_.emplace(name).second) {
            warnings_.push_back(fmt::format("line {}: \"{}\" is not known to this version and passed over",
                                            json_.line(), printableText(name)));
        }
        json_.skip();
    }

    void readFormat() {
        format_ = json_.text() == kJsonFormat;
        if (!format_)
            json_.fail(fmt::format("this is no parameter set: \"format\" is not \"{}\"", kJsonFormat));
    }
    void readSchema() {
        const std::string_view number = json_.number();
        schema_ = number == std::to_string(kJsonSchema);
        if (!schema_) {
            json_.fail(fmt::format("schema version {}, this version reads {}: use the version that wrote it",
                                   number, kJsonSchema));
        }
    }
    void readOrigin() {
        json_.begin('{');
        for (bool isFirst = true; json_.next('}', isFirst);) {
            const std::string_view name = json_.key();
            if (const auto row = rowOf(kJsonOrigin, name)) {
                set_.origin.*kJsonOrigin[*row].second = json_.text();
            } else {
                skipUnknown(name);
            }
        }
    }

    void readParameters() {
        parameters_ = true;
        json_.begin('[');
        for (bool isFirst = true; json_.next(']', isFirst);) {
            // The place of the parameter, not that of what comes after it.
            json_.peek();
            lines_.push_back(json_.line());
            parameter_ = &set_.parameters.emplace_back();
            hasShape_ = false;
            readObject(kParameter);
            finishParameter();
        }
    }

    void finishParameter() {
        if (!json_.ok()) return;
        if (parameter_->name.empty()) return json_.fail("a parameter has no \"name\"");
        if (!hasShape_) return json_.fail(parameter_->name + ": \"shape\" is missing");
        if (auto fits = checkShape(*parameter_); !fits) json_.fail(fits.error().text());
    }

    void readName() { parameter_->name = json_.text(); }
    void readDescription() { parameter_->description = json_.text(); }
    void readUnit() { parameter_->unit = json_.text(); }
    void readFunction() { parameter_->function = json_.text(); }
    void readDigest() { parameter_->digest = json_.text(); }
    void readShape() {
        const std::string_view name = json_.text();
        for (int i = 0; i <= static_cast<int>(Shape::axis); ++i) {
            if (name != shapeName(static_cast<Shape>(i))) continue;
            parameter_->shape = static_cast<Shape>(i);
            hasShape_ = true;
        }
        if (!hasShape_) json_.fail(fmt::format("'{}' is no shape of a parameter", printableText(name)));
    }
    void readDimensions() {
        json_.begin('[');
        for (bool isFirst = true; json_.next(']', isFirst);) {
            const auto count =
                parseUnsigned(json_.number(), NumberBase::decimal, std::numeric_limits<std::uint32_t>::max());
            if (!count) return json_.fail("a dimension is a whole number from 0 to 4294967295");
            parameter_->dimensions.push_back(count.value());
        }
    }
    void readSingle() { parameter_->values.push_back(value()); }
    void readValues() { readList(parameter_->values); }
    void readRaw() { parameter_->raws.push_back(value()); }
    void readRaws() { readList(parameter_->raws); }

    void readAxes() {
        json_.begin('[');
        for (bool isFirst = true; json_.next(']', isFirst);) {
            axis_ = &parameter_->axes.emplace_back();
            readObject(kAxis);
        }
    }
    void readKind() {
        const std::string_view name = json_.text();
        for (int i = 0; i <= static_cast<int>(AxisKind::curve); ++i) {
            if (name != axisKindName(static_cast<AxisKind>(i))) continue;
            axis_->kind = static_cast<AxisKind>(i);
            return;
        }
        json_.fail(fmt::format("'{}' is no kind of an axis", printableText(name)));
    }
    void readReference() { axis_->reference = json_.text(); }
    void readAxisUnit() { axis_->unit = json_.text(); }
    void readPoints() { readList(axis_->points); }
    void readPointRaws() { readList(axis_->raws); }

    void readList(std::vector<Value>& list) {
        // As far as the dimensions tell it, and no more than a large parameter has.
        constexpr std::size_t kMostReserved = 1U << 16U;
        std::size_t count = 1;
        for (const std::size_t dimension : parameter_->dimensions)
            count = dimension < kMostReserved ? count * dimension : kMostReserved;
        list.reserve(std::min(count, kMostReserved));
        json_.begin('[');
        for (bool isFirst = true; json_.next(']', isFirst);)
            list.push_back(value());
    }

    Value value() {
        switch (json_.peek()) {
            case '0':
                return number(json_.number());
            case '"':
                return std::string(json_.text());
            case 'n':
                json_.null();
                return std::numeric_limits<double>::quiet_NaN();
            default:
                json_.fail("a number, a text or null is missing");
                return 0.0;
        }
    }

    Value number(std::string_view text) {
        double number = 0;
        const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
        if (read.ec == std::errc::result_out_of_range && std::fabs(parseDouble(text).value_or(0)) > 1)
            json_.fail(fmt::format("{} is beyond what a number can be", text));
        if (text.size() <= kWholeDigits) return number;
        const bool isWhole = text.find_first_of(".eE") == std::string_view::npos;
        if (!isWhole && text.size() <= kDoubleDigits + 1) return number;
        // A double has no digits more than it needs, and is quickly known by that.
        if (!isWhole && formatShortest(number) == text) return number;
        const auto exact = Exact::parse(text);
        if (exact && (isWhole || exact->shortest() == text)) return *exact;
        return number;
    }

    Result<void> checkNames() const {
        std::map<std::string_view, std::size_t> first;
        const auto& all = set_.parameters;
        if (std::is_sorted(all.begin(), all.end(),
                           [](const Parameter& a, const Parameter& b) { return a.name <= b.name; }))
            return {};
        for (std::size_t i = 0; i < all.size(); ++i) {
            const auto [known, isNew] = first.try_emplace(all[i].name, lines_[i]);
            if (isNew) continue;
            return Error{ErrorCode::invalidArgument,
                         fmt::format("line {}: '{}' is there twice, first in line {}: remove one", lines_[i],
                                     printableText(all[i].name), known->second)};
        }
        return {};
    }

    static constexpr Member kTop[] = {{"format", &Reading::readFormat},
                                      {"schema", &Reading::readSchema},
                                      {"origin", &Reading::readOrigin},
                                      {"parameters", &Reading::readParameters}};
    static constexpr Member kParameter[] = {{"name", &Reading::readName},
                                            {"shape", &Reading::readShape},
                                            {"dimensions", &Reading::readDimensions},
                                            {"unit", &Reading::readUnit},
                                            {"value", &Reading::readSingle},
                                            {"values", &Reading::readValues},
                                            {"raw", &Reading::readRaw},
                                            {"raws", &Reading::readRaws},
                                            {"axes", &Reading::readAxes},
                                            {"function", &Reading::readFunction},
                                            {"description", &Reading::readDescription},
                                            {"digest", &Reading::readDigest}};
    static constexpr Member kAxis[] = {{"kind", &Reading::readKind},
                                       {"reference", &Reading::readReference},
                                       {"unit", &Reading::readAxisUnit},
                                       {"points", &Reading::readPoints},
                                       {"raws", &Reading::readPointRaws}};

    JsonReader json_;
    std::vector<std::string>& warnings_;
    ParameterSet set_;
    std::vector<std::size_t> lines_;  ///< of the parameters
    Parameter* parameter_ = nullptr;  ///< the one that is being read
    ParameterAxis* axis_ = nullptr;
    bool format_ = false;
    bool schema_ = false;
    bool parameters_ = false;
    bool hasShape_ = false;
    std::set<std::string, std::less<>> unknown_;
};

}  // namespace

Result<ParameterSet> readJson(std::string_view text, std::vector<std::string>& warnings) {
    if (!isValidUtf8(text)) {
        std::size_t valid = 0;
        while (valid < text.size() && isValidUtf8(text.substr(valid, text.find('\n', valid) - valid))) {
            const std::size_t end = text.find('\n', valid);
            valid = end == std::string_view::npos ? text.size() : end + 1;
        }
        const auto line =
            1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(valid), '\n');
        return Error{ErrorCode::invalidArgument,
                     fmt::format("line {}: a character that is not UTF-8: save the file as UTF-8", line)};
    }
    return Reading(text, warnings).run();
}

}  // namespace lm::params
