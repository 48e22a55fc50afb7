#include "params/xml_input.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/physical_form.h"

namespace lm::params {
namespace {

constexpr std::size_t kMostDepth = 100;

struct Fault {
    std::size_t offset;
    std::string what;
};

/// What the declaration calls the encoding, in small letters; empty when it does not say.
std::string declaredEncoding(std::string_view text) {
    const std::string_view declaration =
        text.starts_with("<?xml") ? text.substr(0, text.find("?>")) : std::string_view();
    const std::size_t at = declaration.find("encoding");
    if (at == std::string_view::npos) return {};
    const std::size_t first = declaration.find_first_of("\"'", at);
    if (first == std::string_view::npos) return {};
    const std::size_t end = declaration.find(declaration[first], first + 1);
    std::string name;
    if (end != std::string_view::npos) lowerAsciiInto(name, declaration.substr(first + 1, end - first - 1));
    return name;
}

bool isLatin(std::string_view encoding) {
    return encoding == "iso-8859-1" || encoding == "latin1" || encoding == "windows-1252";
}

bool isCharacter(std::uint32_t code) {
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code <= 0x10FFFF && !isSurrogate);
}

/// `name` is what stands between & and ;
bool isKnownReference(std::string_view name) {
    constexpr std::array<std::string_view, 5> kNames = {"amp", "lt", "gt", "quot", "apos"};
    if (!name.starts_with('#')) return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
    const bool isHexadecimal = name.starts_with("#x");
    const std::string_view digits = name.substr(isHexadecimal ? 2 : 1);
    std::uint32_t code = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, failure] = std::from_chars(digits.data(), end, code, isHexadecimal ? 16 : 10);
    return failure == std::errc() && stop == end && isCharacter(code);
}

/// The end of a part in which & and < mean nothing, when one begins here.
std::optional<std::size_t> skipped(std::string_view text, std::size_t at) {
    struct Part {
        std::string_view begin;
        std::string_view end;
    };
    constexpr std::array<Part, 3> kParts = {{{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}}};
    for (const Part& part : kParts) {
        if (!text.substr(at).starts_with(part.begin)) continue;
        const std::size_t end = text.find(part.end, at + part.begin.size());
        return end == std::string_view::npos ? text.size() : end + part.end.size();
    }
    return std::nullopt;
}

std::optional<Fault> faultAt(std::string_view text, std::size_t at) {
    constexpr std::size_t kLongestReference = 12;
    const std::string_view rest = text.substr(at);
    if (rest[0] == '<') {
        std::string start;
        lowerAsciiInto(start, rest.substr(0, std::string_view("<!entity").size()));
        if (start != "<!entity") return std::nullopt;
        return Fault{at, "it defines an entity; entities are not read, write the text itself"};
    }
    const std::size_t end = rest.substr(0, kLongestReference).find(';');
    if (end != std::string_view::npos && isKnownReference(rest.substr(1, end - 1))) return std::nullopt;
    return Fault{at, "'&' begins no character that XML knows; write &amp; for an ampersand"};
}

std::optional<Fault> findFault(std::string_view text) {
    const auto control = std::find_if(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
    });
    if (control != text.end()) {
        return Fault{static_cast<std::size_t>(control - text.begin()),
                     "a control character, so this is no XML text"};
    }
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] != '<' && text[at] != '&') {
            ++at;
            continue;
        }
        if (const auto end = skipped(text, at)) {
            at = *end;
            continue;
        }
        if (auto fault = faultAt(text, at)) return fault;
        ++at;
    }
    return std::nullopt;
}

}  // namespace

std::size_t XmlInput::lineAt(std::size_t offset) const {
    const auto after = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
    return static_cast<std::size_t>(after - lineStarts_.begin());
}

std::size_t XmlInput::lineOf(pugi::xml_node node) const {
    return lineAt(static_cast<std::size_t>(std::max<std::ptrdiff_t>(node.offset_debug(), 0)));
}

Error XmlInput::fault(std::size_t offset, std::string_view what) const {
    return {ErrorCode::invalidArgument, fmt::format("XML line {}: {}", lineAt(offset), what)};
}

Result<void> XmlInput::decode(std::string_view bytes) {
    constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
    if (bytes.size() > kMostFileBytes) {
        return Error{ErrorCode::unsupported,
                     fmt::format("{} of XML; at most {} are read", formatSize(bytes.size()),
                                 formatSize(kMostFileBytes))};
    }
    const bool isMarked = bytes.starts_with(kUtf8Mark);
    if (isMarked) bytes.remove_prefix(kUtf8Mark.size());
    const std::string encoding = declaredEncoding(bytes);
    if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF")) {
        text_ = utf16ToUtf8(bytes.substr(2), bytes[0] == '\xFE');
    } else if (!isMarked && isLatin(encoding)) {
        text_ = windows1252ToUtf8(bytes);
    } else if (isMarked || encoding.empty() || encoding == "utf-8" || encoding == "us-ascii") {
        text_ = bytes;
    } else {
        return fault(
            0, fmt::format("encoding '{}' is not read; save the file as UTF-8", printableText(encoding)));
    }
    return {};
}

Result<void> XmlInput::checkText() const {
    if (!isValidUtf8(text_)) {
        for (std::size_t line = 0; line < lineStarts_.size(); ++line) {
            const std::size_t end = line + 1 < lineStarts_.size() ? lineStarts_[line + 1] : text_.size();
            const std::string_view bytes = std::string_view(text_).substr(0, end);
            if (!isValidUtf8(bytes.substr(lineStarts_[line])))
                return fault(lineStarts_[line], "not UTF-8; the first line has to name the encoding");
        }
    }
    if (const auto found = findFault(text_)) return fault(found->offset, found->what);
    return {};
}

Result<void> XmlInput::parse() {
    constexpr unsigned kHow = pugi::parse_default | pugi::parse_ws_pcdata_single;
    // The parser turns line ends into one kind in place; line starts were counted before.
    const auto parsed = document_.load_buffer_inplace(text_.data(), text_.size(), kHow, pugi::encoding_utf8);
    if (parsed) return {};
    std::string what = parsed.description();
    if (!what.empty()) what[0] = static_cast<char>(what[0] | 0x20);
    return fault(static_cast<std::size_t>(std::max<std::ptrdiff_t>(parsed.offset, 0)),
                 "the XML is broken here: " + what);
}

Result<void> XmlInput::checkDepth() const {
    std::size_t depth = 0;
    for (pugi::xml_node node = document_.first_child(); node;) {
        if (depth > kMostDepth) {
            return Error{ErrorCode::invalidArgument,
                         fmt::format("XML line {}: nested more than {} deep", lineOf(node), kMostDepth)};
        }
        if (const pugi::xml_node child = node.first_child()) {
            node = child;
            ++depth;
            continue;
        }
        while (node && !node.next_sibling()) {
            node = node.parent();
            if (depth > 0) --depth;
        }
        if (node) node = node.next_sibling();
    }
    return {};
}

Result<void> XmlInput::load(std::string_view bytes) {
    lineStarts_ = {0};
    if (auto decoded = decode(bytes); !decoded) return decoded;
    for (std::size_t i = text_.find('\n'); i != std::string::npos; i = text_.find('\n', i + 1))
        lineStarts_.push_back(i + 1);
    if (auto checked = checkText(); !checked) return checked;
    if (auto parsed = parse(); !parsed) return parsed;
    return checkDepth();
}

std::string_view localName(pugi::xml_node node) {
    const std::string_view name = node.name();
    return name.substr(name.rfind(':') + 1);
}

pugi::xml_node childOf(pugi::xml_node parent, std::string_view name) {
    for (const pugi::xml_node child : parent.children()) {
        if (localName(child) == name) return child;
    }
    return {};
}

std::vector<pugi::xml_node> childrenOf(pugi::xml_node parent, std::string_view name) {
    std::vector<pugi::xml_node> found;
    for (const pugi::xml_node child : parent.children()) {
        if (localName(child) == name) found.push_back(child);
    }
    return found;
}

std::string textOf(pugi::xml_node node) {
    std::string text;
    for (const pugi::xml_node part : node.children()) {
        if (part.type() == pugi::node_pcdata || part.type() == pugi::node_cdata) text += part.value();
    }
    return text;
}

}  // namespace lm::params
