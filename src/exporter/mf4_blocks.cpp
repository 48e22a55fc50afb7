#include "exporter/mf4_blocks.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace lm::exporter {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::size_t roundedUp(std::size_t size) {
    return (size + 7) & ~std::size_t{7};
}

}  // namespace

Mf4Fields& Mf4Fields::put(double value) {
    return put(std::bit_cast<std::uint64_t>(value));
}

Mf4Fields& Mf4Fields::zeros(std::size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
}

Mf4Fields& Mf4Fields::text(std::string_view text, std::size_t width, char fill) {
    text = text.substr(0, width);
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    bytes_.resize(bytes_.size() + width - text.size(), static_cast<std::uint8_t>(fill));
    return *this;
}

std::vector<std::uint8_t> mf4Head(std::string_view id, const std::vector<std::uint64_t>& links,
                                  std::uint64_t dataSize) {
    Mf4Fields head;
    head.text("##", 2, ' ').text(id, 2, ' ').zeros(4);
    head.put(kMf4HeaderSize + 8 * links.size() + dataSize).put(std::uint64_t{links.size()});
    for (const std::uint64_t link : links)
        head.put(link);
    return head.bytes();
}

std::string xmlText(std::string_view text) {
    std::string xml;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '&') {
            xml += "&amp;";
        } else if (c == '<') {
            xml += "&lt;";
        } else if (c == '>') {
            xml += "&gt;";
        } else if (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') {
            xml += kReplacement;
        } else {
            xml += c;
        }
    }
    return xml;
}

void Mf4Blocks::raw(const Mf4Fields& fields) {
    bytes_.insert(bytes_.end(), fields.bytes().begin(), fields.bytes().end());
    bytes_.resize(roundedUp(bytes_.size()));
}

Mf4Blocks::Link Mf4Blocks::add(std::string_view id, const std::vector<Link>& links, const Mf4Fields& data) {
    const Link place = end();
    const std::vector<std::uint8_t> head = mf4Head(id, links, data.bytes().size());
    bytes_.insert(bytes_.end(), head.begin(), head.end());
    raw(data);
    return place;
}

Mf4Blocks::Link Mf4Blocks::text(std::string_view text) {
    return pooled("TX", std::string(text));
}

Mf4Blocks::Link Mf4Blocks::comment(std::string_view root, std::string_view inner) {
    const std::string name(root);
    return pooled(
        "MD", "<" + name + " xmlns=\"http://www.asam.net/mdf/v4\">" + std::string(inner) + "</" + name + ">");
}

Mf4Blocks::Link Mf4Blocks::pooled(std::string_view id, std::string text) {
    const std::string key = std::string(id) + text;
    if (const auto found = pool_.find(key); found != pool_.end()) return found->second;
    // The text ends at the first zero byte.
    std::replace(text.begin(), text.end(), '\0', ' ');
    Mf4Fields data;
    data.text(text, roundedUp(text.size() + 1), '\0');
    const Link place = add(id, {}, data);
    pool_.emplace(key, place);
    return place;
}

void Mf4Blocks::setLink(Link block, std::size_t index, Link target) {
    writeLittle(&bytes_[static_cast<std::size_t>(mf4LinkPlace(block, index) - base_)], target);
}

}  // namespace lm::exporter
