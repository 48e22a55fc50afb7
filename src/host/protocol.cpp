#include "host/protocol.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <sys/stat.h>

#include <fmt/format.h>

#include "core/platform.h"
#include "core/sha256.h"

namespace lm::host {
namespace {

using Json = nlohmann::json;

Error malformed(const char* what) {
    return {ErrorCode::invalidArgument, std::string(what) + " is not as it should be"};
}

std::optional<std::vector<std::uint8_t>> hexAt(const Json& json, const char* key) {
    const auto text = textAt(json, key);
    return text ? bytesOfHex(*text) : std::nullopt;
}

std::optional<session::BytePiece> pieceOf(const Json& json) {
    const auto address = numberAt(json, "address");
    const auto extension = numberAt(json, "extension");
    auto before = hexAt(json, "before");
    auto after = hexAt(json, "after");
    auto mask = hexAt(json, "mask");
    if (!address || !extension || !before || !after || !mask) return std::nullopt;
    if (before->size() != after->size() || after->size() != mask->size() || after->empty())
        return std::nullopt;
    session::BytePiece piece;
    piece.address = {static_cast<std::uint32_t>(*address), static_cast<std::uint8_t>(*extension)};
    piece.before = std::move(*before);
    piece.after = std::move(*after);
    piece.mask = std::move(*mask);
    return piece;
}

}  // namespace

std::optional<std::int64_t> numberAt(const Json& json, const char* key) {
    if (!json.is_object()) return std::nullopt;
    const auto found = json.find(key);
    if (found == json.end() || !found->is_number_integer()) return std::nullopt;
    return found->get<std::int64_t>();
}

std::optional<std::string> textAt(const Json& json, const char* key) {
    if (!json.is_object()) return std::nullopt;
    const auto found = json.find(key);
    if (found == json.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

bool flagAt(const Json& json, const char* key) {
    if (!json.is_object()) return false;
    const auto found = json.find(key);
    return found != json.end() && *found == true;
}

std::string hexOf(const std::uint8_t* bytes, std::size_t count) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text(2 * count, '0');
    for (std::size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4U];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0FU];
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> bytesOfHex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char* const first = text.data() + 2 * i;
        const auto [end, failure] = std::from_chars(first, first + 2, bytes[i], 16);
        if (failure != std::errc() || end != first + 2) return std::nullopt;
    }
    return bytes;
}

Json packetsJson(const std::vector<xcp::Packet>& packets) {
    Json list = Json::array();
    for (const xcp::Packet& packet : packets)
        list.push_back(hexOf(packet.data(), packet.size()));
    return list;
}

Result<std::vector<xcp::Packet>> packetsOf(const Json& json) {
    constexpr std::size_t kMost = 4096;
    if (!json.is_array() || json.size() > kMost) return malformed("the list of packets");
    std::vector<xcp::Packet> packets;
    packets.reserve(json.size());
    for (const Json& text : json) {
        const auto bytes = text.is_string() ? bytesOfHex(text.get_ref<const std::string&>()) : std::nullopt;
        if (!bytes || bytes->empty() || bytes->size() > xcp::Packet::kCapacity) return malformed("a packet");
        xcp::Packet& packet = packets.emplace_back();
        std::copy(bytes->begin(), bytes->end(), packet.bytes.begin());
        packet.length = static_cast<std::uint8_t>(bytes->size());
    }
    return packets;
}

Json changesJson(const std::vector<session::ObjectBytes>& changes) {
    Json list = Json::array();
    for (const session::ObjectBytes& change : changes) {
        Json pieces = Json::array();
        for (const session::BytePiece& piece : change.pieces)
            pieces.push_back({{"address", piece.address.address},
                              {"extension", piece.address.extension},
                              {"before", hexOf(piece.before.data(), piece.before.size())},
                              {"after", hexOf(piece.after.data(), piece.after.size())},
                              {"mask", hexOf(piece.mask.data(), piece.mask.size())}});
        list.push_back({{"name", change.name}, {"pieces", std::move(pieces)}});
    }
    return list;
}

Result<std::vector<session::ObjectBytes>> changesOf(const Json& json) {
    constexpr std::size_t kMost = 100'000;
    if (!json.is_array() || json.size() > kMost) return malformed("the list of changes");
    std::vector<session::ObjectBytes> changes;
    for (const Json& told : json) {
        session::ObjectBytes change;
        const auto name = textAt(told, "name");
        const auto pieces = told.is_object() ? told.find("pieces") : told.end();
        if (!name || pieces == told.end() || !pieces->is_array()) return malformed("a change");
        change.name = *name;
        for (const Json& one : *pieces) {
            auto piece = pieceOf(one);
            if (!piece) return malformed("a change");
            change.pieces.push_back(std::move(*piece));
        }
        changes.push_back(std::move(change));
    }
    return changes;
}

Json errorToJson(const Error& error) {
    return {{"code", static_cast<int>(error.code)},
            {"message", error.message},
            {"errno", error.sysErrno},
            {"detail", error.detail},
            {"hint", error.hint}};
}

std::optional<Error> errorOf(const Json& json) {
    const auto code = numberAt(json, "code");
    if (!code || *code < 0 || *code > static_cast<int>(ErrorCode::closed)) return std::nullopt;
    Error error{static_cast<ErrorCode>(*code), textAt(json, "message").value_or("")};
    error.sysErrno = static_cast<std::int32_t>(numberAt(json, "errno").value_or(0));
    error.detail = static_cast<std::int32_t>(numberAt(json, "detail").value_or(Error::kNoDetail));
    error.hint = textAt(json, "hint").value_or("");
    return error;
}

A2lFile A2lFile::of(const std::string& path) {
    A2lFile file;
    std::error_code failure;
    const auto whole = std::filesystem::absolute(path, failure);
    file.path = failure || path.empty() ? path : whole.string();
    struct stat about {};
    if (path.empty() || ::stat(path.c_str(), &about) != 0) return file;
    constexpr std::int64_t kSecond = 1'000'000'000;
    file.device = about.st_dev;
    file.inode = about.st_ino;
    file.size = static_cast<std::uint64_t>(about.st_size);
    file.changedNs = about.st_mtim.tv_sec * kSecond + about.st_mtim.tv_nsec;
    return file;
}

bool A2lFile::isFile(const A2lFile& other) const {
    return inode != 0 && device == other.device && inode == other.inode && size == other.size &&
           changedNs == other.changedNs;
}

Json a2lJson(const A2lFile& file) {
    return {{"path", file.path}, {"device", file.device},       {"inode", file.inode},
            {"size", file.size}, {"changedNs", file.changedNs}, {"sha256", file.sha256}};
}

A2lFile a2lOf(const Json& json) {
    const auto number = [&json](const char* key) {
        return static_cast<std::uint64_t>(numberAt(json, key).value_or(0));
    };
    return {textAt(json, "path").value_or(""),
            number("device"),
            number("inode"),
            number("size"),
            numberAt(json, "changedNs").value_or(0),
            textAt(json, "sha256").value_or("")};
}

std::string digestOf(const std::string& path) {
    const auto file = MappedFile::open(path);
    return file ? sha256Hex(file.value().text()) : "";
}

}  // namespace lm::host
