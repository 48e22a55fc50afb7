#include "params/dcm_reader.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/dcm_kinds.h"
#include "params/dcm_object.h"
#include "params/dcm_statements.h"
#include "params/set_reading.h"

namespace lm::params {
namespace {

/// What the comment in the first line calls the encoding, in small letters; empty when it does not.
std::string encodingOfDcm(std::string_view bytes) {
    const std::string_view line = bytes.substr(0, bytes.find_first_of("\r\n"));
    std::string lowered;
    lowerAsciiInto(lowered, line);
    const std::size_t at = lowered.find("encoding");
    const std::size_t first = lowered.find_first_not_of(" \t=\"'", at == std::string::npos ? at : at + 8);
    if (at == std::string::npos || first == std::string::npos) return {};
    return lowered.substr(first, lowered.find_first_of(" \t\"'", first) - first);
}

/// Of the byte at `offset`, counted from 1.
std::size_t lineOf(std::string_view text, std::size_t offset) {
    return static_cast<std::size_t>(std::count(text.begin(), text.begin() + offset, '\n')) + 1;
}

/// How many bytes there are before the first line that is not UTF-8.
std::size_t lengthOfUtf8(std::string_view text) {
    std::size_t good = 0;
    while (good < text.size()) {
        const std::size_t end = std::min(text.find('\n', good), text.size() - 1) + 1;
        if (!isValidUtf8(text.substr(good, end - good))) break;
        good = end;
    }
    return good;
}

const DcmKind* kindOf(std::string_view keyword) {
    const auto* kind = std::find_if(kDcmKinds.begin(), kDcmKinds.end(),
                                    [&](const DcmKind& known) { return known.keyword == keyword; });
    return kind == kDcmKinds.end() ? nullptr : kind;
}

class DcmReader {
  public:
    Result<ReadSet> read(std::string_view bytes) {
        if (auto decoded = decode(bytes); !decoded) return decoded.error();
        statements_ = DcmStatements(text_);
        if (auto version = readVersion(); !version) return version.error();
        for (;;) {
            auto statement = next();
            if (!statement) return statement.error();
            if (!statement.value()) return std::move(reading_).finish();
            if (auto done = readPart(*statement.value()); !done) return done.error();
        }
    }

  private:
    Result<void> decode(std::string_view bytes);
    Result<void> readVersion();
    Result<void> readPart(const DcmStatement& statement);
    Result<void> readList(const DcmStatement& head, std::string_view row);
    Result<void> readObject(const DcmKind& kind, const DcmStatement& head);

    Result<std::optional<DcmStatement>> next() {
        auto statement = statements_.next();
        if (!statement) return reading_.error(statements_.line(), statement.error().text());
        return statement;
    }

    SetReading reading_{"DCM"};
    std::string text_;
    DcmStatements statements_{{}};
    bool afterModuleHead_ = false;
};

Result<void> DcmReader::decode(std::string_view bytes) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (bytes.size() > kMostFileBytes) {
        return Error{ErrorCode::unsupported,
                     fmt::format("{} of DCM; at most {} are read", formatSize(bytes.size()),
                                 formatSize(kMostFileBytes))};
    }
    if (const std::size_t zero = bytes.find('\0'); zero != std::string_view::npos)
        return reading_.error(lineOf(bytes, zero), "a byte 0, so this is no DCM text; save it as UTF-8");
    const bool isMarked = bytes.starts_with(kMark);
    if (isMarked) bytes.remove_prefix(kMark.size());
    const std::string encoding = encodingOfDcm(bytes);
    if (isMarked || encoding == "utf-8" || encoding == "utf8") {
        if (const std::size_t good = lengthOfUtf8(bytes); good < bytes.size())
            return reading_.error(lineOf(bytes, good), "not UTF-8, though the first line says so");
        text_ = bytes;
        return {};
    }
    if (!encoding.empty() && encoding != "iso-8859-1" && encoding != "windows-1252") {
        return reading_.error(
            1, fmt::format("encoding '{}' is not read; save the file as UTF-8", printableText(encoding)));
    }
    text_ = windows1252ToUtf8(bytes);
    if (encoding.empty() && text_.size() != bytes.size() && isValidUtf8(bytes)) {
        reading_.warn(1,
                      "read as ISO-8859-1, though it looks like UTF-8; if so, begin with: "
                      "* encoding=\"UTF-8\"");
    }
    return {};
}

Result<void> DcmReader::readVersion() {
    auto first = next();
    if (!first) return first.error();
    if (!first.value() || first.value()->keyword != "KONSERVIERUNG_FORMAT") {
        const std::size_t line =
            first.value() ? first.value()->line : std::max<std::size_t>(statements_.line(), 1);
        return reading_.error(line, "no KONSERVIERUNG_FORMAT 2.0 at the beginning: is it a DCM file?");
    }
    const auto& words = first.value()->words;
    const std::string version = words.empty() ? "" : words.front();
    if (version == "2.0") return {};
    return reading_.error(
        first.value()->line,
        fmt::format("KONSERVIERUNG_FORMAT '{}'; 2.0 is read, export it so", printableText(version)));
}

Result<void> DcmReader::readPart(const DcmStatement& statement) {
    const bool mayEnd = std::exchange(afterModuleHead_, statement.keyword == "MODULKOPF");
    if (const DcmKind* kind = kindOf(statement.keyword)) return readObject(*kind, statement);
    if (statement.keyword == "FUNKTIONEN") return readList(statement, "FKT");
    if (statement.keyword == "VARIANTENKODIERUNG") return readList(statement, "KRITERIUM");
    const bool isModuleEnd = mayEnd && statement.keyword == "END";
    if (afterModuleHead_ || isModuleEnd || statement.keyword.starts_with('*')) return {};
    return reading_.error(
        statement.line, fmt::format("'{}' is no keyword of DCM 2.0 here", printableText(statement.keyword)));
}

Result<void> DcmReader::readList(const DcmStatement& head, std::string_view row) {
    for (;;) {
        auto statement = next();
        if (!statement) return statement.error();
        if (statement.value() && statement.value()->keyword == "END") return {};
        const bool isRow = statement.value() && statement.value()->keyword == row;
        if (isRow || (statement.value() && statement.value()->keyword.starts_with('*'))) continue;
        return reading_.error(statements_.line(),
                              fmt::format("{} (line {}) has no END before this", head.keyword, head.line));
    }
}

Result<void> DcmReader::readObject(const DcmKind& kind, const DcmStatement& head) {
    auto object = DcmObject::begin(kind, head, reading_);
    if (!object) return object.error();
    for (;;) {
        auto statement = next();
        if (!statement) return statement.error();
        if (!statement.value() || kindOf(statement.value()->keyword) != nullptr) {
            return reading_.error(statements_.line(),
                                  fmt::format("{} (line {}) has no END before this",
                                              printableText(object.value().name()), head.line));
        }
        if (statement.value()->keyword == "END") return object.value().finish();
        if (auto done = object.value().take(*statement.value()); !done) return done;
    }
}

}  // namespace

Result<ReadSet> readDcm(std::string_view bytes) {
    return DcmReader().read(bytes);
}

}  // namespace lm::params
