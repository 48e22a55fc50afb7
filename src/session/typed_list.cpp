#include "session/typed_list.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <optional>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"

namespace lm::session {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

Error refused(const std::string& where, const std::string& why) {
    return {ErrorCode::invalidArgument, where + ": " + why};
}

std::size_t product(std::span<const std::uint32_t> dimensions) {
    return std::accumulate(dimensions.begin(), dimensions.end(), std::size_t{1}, std::multiplies());
}

/// How many there are beside how many there should be.
std::string wrongCount(std::size_t needed, std::size_t found, const char* what) {
    return fmt::format("{} {} are needed, there are {}", needed, what, found);
}

class ListReader {
  public:
    ListReader(const std::string& name, std::string_view text, std::span<const std::uint32_t> dimensions)
        : name_(name), rest_(text), dimensions_(dimensions), texts_(product(dimensions)) {}

    Result<std::vector<std::string>> read() {
        if (auto all = list(0, 0, 1, name_); !all) return all.error();
        skipBlanks();
        if (!rest_.empty())
            return refused(name_, fmt::format("'{}' stands behind the end of the list", rest_));
        return std::move(texts_);
    }

  private:
    void skipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size())); }
    bool take(char wanted) {
        skipBlanks();
        if (!rest_.starts_with(wanted)) return false;
        rest_.remove_prefix(1);
        return true;
    }

    /// The items along one dimension; `number` is that of the first, `stride` their distance.
    Result<void> list(std::size_t level, std::size_t number, std::size_t stride, const std::string& where) {
        const std::size_t needed = dimensions_[level];
        const bool isLast = level + 1 == dimensions_.size();
        const char* const what = isLast ? "values" : "lists";
        if (!take('[')) return refused(where, fmt::format("a list of {} {} is needed", needed, what));
        std::size_t found = 0;
        for (bool more = !take(']'); more; ++found) {
            const std::string inner = fmt::format("{}[{}]", where, found);
            const std::size_t at = number + found * stride;
            if (found == needed)
                return refused(where, fmt::format("{} {} are needed, there are more", needed, what));
            auto item = isLast ? value(at, inner) : list(level + 1, at, stride * needed, inner);
            if (!item) return item;
            more = take(',');
            if (!more && !take(']')) return refused(where, "',' or ']' is missing in the list");
        }
        if (found == needed) return {};
        return refused(where, wrongCount(needed, found, what));
    }

    Result<void> value(std::size_t number, const std::string& where) {
        skipBlanks();
        if (rest_.starts_with('[')) return refused(where, "a value is needed, not a list");
        auto text = word(where);
        if (!text) return text.error();
        texts_[number] = std::move(text).value();
        return {};
    }

    Result<std::string> word(const std::string& where) {
        skipBlanks();
        if (rest_.starts_with('"')) return quoted(where);
        const std::size_t end = std::min(rest_.find_first_of(",[]"), rest_.size());
        const std::string_view text = trimmed(rest_.substr(0, end));
        rest_.remove_prefix(end);
        if (text.empty()) return refused(where, "a value is missing");
        return std::string(text);
    }

    Result<std::string> quoted(const std::string& where) {
        std::string text;
        for (std::size_t i = 1; i < rest_.size(); ++i) {
            if (rest_[i] == '"') {
                rest_.remove_prefix(i + 1);
                return text;
            }
            if (rest_[i] == '\\' && i + 1 < rest_.size()) ++i;
            text += rest_[i];
        }
        return refused(where, "the closing quote is missing");
    }

    const std::string& name_;
    std::string_view rest_;
    const std::span<const std::uint32_t> dimensions_;
    std::vector<std::string> texts_;
};

/// The cells of one line. None: a quote is not closed.
std::optional<std::vector<std::string>> cellsOf(std::string_view line, char separator) {
    std::vector<std::string> cells(1);
    bool inQuotes = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"' && inQuotes && line.substr(i + 1).starts_with('"')) {
            cells.back() += line[++i];
        } else if (c == '"') {
            inQuotes = !inQuotes;
        } else if (c == separator && !inQuotes) {
            cells.back() = trimmed(cells.back());
            cells.emplace_back();
        } else {
            cells.back() += c;
        }
    }
    cells.back() = trimmed(cells.back());
    if (inQuotes) return std::nullopt;
    return cells;
}

char separatorOf(std::string_view line) {
    for (const char separator : {';', '\t'}) {
        if (line.find(separator) != std::string_view::npos) return separator;
    }
    return ',';
}

}  // namespace

bool isList(std::string_view text) {
    return trimmed(text).starts_with('[');
}

Result<std::vector<std::string>> parseList(const std::string& name, std::string_view text,
                                           std::span<const std::uint32_t> dimensions) {
    return ListReader(name, text, dimensions).read();
}

Result<std::vector<std::string>> parseCsv(const std::string& file, std::string_view text,
                                          std::span<const std::uint32_t> dimensions) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
    const std::size_t all = product(dimensions);
    std::vector<std::string> texts;
    char separator = 0;
    std::size_t lines = 0;
    bool isColumn = false;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty()) continue;
        if (separator == 0) separator = separatorOf(line);
        const auto cells = cellsOf(line, separator);
        const std::string where = fmt::format("{} line {}", file, number);
        if (!cells) return refused(where, "the closing quote is missing");
        if (lines++ == 0) isColumn = dimensions.size() == 1 && cells->size() == 1;
        const std::size_t needed = isColumn ? 1 : dimensions.front();
        if (cells->size() != needed) return refused(where, wrongCount(needed, cells->size(), "values"));
        texts.insert(texts.end(), cells->begin(), cells->end());
        if (texts.size() > all) break;
    }
    if (texts.size() == all) return texts;
    const std::size_t needed = isColumn ? all : all / dimensions.front();
    if (texts.size() > all)
        return refused(file, fmt::format("there are more lines than the {} needed", needed));
    return refused(file, wrongCount(needed, lines, "lines"));
}

}  // namespace lm::session
