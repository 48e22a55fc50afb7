#include "session/undo_file.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <system_error>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <spdlog/fmt/fmt.h>

#include "core/durable_file.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "core/sha256.h"
#include "core/whole_file.h"
#include "session/state_folder.h"
#include "session/whole_number.h"

namespace lm::session {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using nlohmann::ordered_json;

constexpr int kSchema = 1;
constexpr std::string_view kKind = "xcplumo undo";
constexpr std::size_t kMostBytes = std::size_t{1} << 30U;
constexpr std::size_t kMostKept = 100;  ///< of a kind, when they are old
constexpr std::size_t kMostYoung = 1000;
constexpr std::chrono::hours kYoung{24 * 7};
constexpr std::string_view kSet = "-set.json";  ///< how the names of those end that `set` makes

std::string digitsOf(const std::vector<std::uint8_t>& bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xFU];
    }
    return text;
}

std::vector<std::uint8_t> bytesOf(const std::string& digits) {
    constexpr int kHex = 16;
    std::vector<std::uint8_t> bytes(digits.size() / 2);
    if (digits.size() % 2 != 0) throw std::invalid_argument("an odd number of digits");
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char* const begin = digits.data() + 2 * i;
        const auto [end, failure] = std::from_chars(begin, begin + 2, bytes[i], kHex);
        if (failure != std::errc() || end != begin + 2)
            throw std::invalid_argument("'" + digits + "' are no hexadecimal digits");
    }
    return bytes;
}

ordered_json documentOf(const BytePiece& piece) {
    ordered_json entry;
    entry["address"] = piece.address.address;
    entry["addressExtension"] = piece.address.extension;
    entry["old"] = digitsOf(piece.before);
    entry["new"] = digitsOf(piece.after);
    const bool isAll =
        std::all_of(piece.mask.begin(), piece.mask.end(), [](auto bits) { return bits == 0xFF; });
    if (!isAll) entry["mask"] = digitsOf(piece.mask);
    return entry;
}

BytePiece pieceFrom(const json& entry) {
    BytePiece piece;
    piece.address.address = wholeNumber<std::uint32_t>(entry.at("address"));
    piece.address.extension = wholeNumber<std::uint8_t>(entry.at("addressExtension"));
    piece.before = bytesOf(entry.at("old").get<std::string>());
    piece.after = bytesOf(entry.at("new").get<std::string>());
    piece.mask.assign(piece.before.size(), 0xFF);
    if (entry.contains("mask")) piece.mask = bytesOf(entry.at("mask").get<std::string>());
    const bool fits = piece.after.size() == piece.before.size() && piece.mask.size() == piece.before.size();
    if (!fits || piece.before.empty()) throw std::invalid_argument("old and new bytes are not as many");
    if (std::uint64_t{piece.address.address} + piece.before.size() > std::uint64_t{1} << 32U)
        throw std::invalid_argument("bytes beyond the last address");
    return piece;
}

/// Eight digits tell ECUs apart whose names and places look the same in a file's name.
std::string prefixOf(const EcuPlace& ecu) {
    constexpr std::size_t kDigits = 8;
    const std::string digits = sha256Hex(ecu.ecu + '\n' + ecu.place).substr(0, kDigits);
    return fmt::format("undo-{}-{}-{}", fileNamePart(ecu.ecu), fileNamePart(ecu.place), digits);
}

/// Whether a name is the prefix and "-2026-11-23T035107264Z-18232-0000.json": "a" is not to have what is of
/// "a-b".
bool isNameOf(std::string_view name, std::string_view prefix) {
    constexpr std::string_view kForm = "-0000-00-00T000000000Z-";
    if (!name.starts_with(prefix) || !name.ends_with(".json")) return false;
    name.remove_prefix(prefix.size());
    if (name.size() < kForm.size()) return false;
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const bool isDigit = name[i] >= '0' && name[i] <= '9';
        if (kForm[i] == '0' ? !isDigit : name[i] != kForm[i]) return false;
    }
    return true;
}

/// Of an ECU, the oldest first: their names begin with the time.
std::vector<fs::path> undoFilesOf(const fs::path& folder, const EcuPlace& ecu) {
    std::vector<fs::path> found;
    std::error_code failure;
    const std::string prefix = prefixOf(ecu);
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        const std::string name = entry->path().filename().string();
        if (isNameOf(name, prefix)) found.push_back(entry->path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::string timePart(std::string time) {
    std::erase_if(time, [](char letter) { return letter == ':' || letter == '.'; });
    return time;
}

/// Makes room for one more: many writes of `set` do not push out what an `apply` left.
void prune(const fs::path& folder, const EcuPlace& ecu, bool ofSet) {
    const std::string prefix = prefixOf(ecu);
    const std::string begin =
        fmt::format("{}-{}", prefix, timePart(utcTime(std::chrono::system_clock::now() - kYoung)));
    auto old = undoFilesOf(folder, ecu);
    std::erase_if(old, [&](const fs::path& path) { return path.string().ends_with(kSet) != ofSet; });
    for (std::size_t i = 0; i + kMostKept <= old.size(); ++i) {
        const bool isYoung = old[i].filename().string() >= begin;
        if (isYoung && i + kMostYoung > old.size()) return;
        std::error_code ignored;  // the next one tries again
        fs::remove(old[i], ignored);
    }
}

Result<fs::path> newPath(const UndoFile& file) {
    const auto folder = stateFolder();
    if (!folder) return folder.error();
    const EcuPlace ecu{file.ecu, file.place};
    const bool ofSet = file.command.starts_with("set ");
    prune(folder.value(), ecu, ofSet);
    static std::atomic<unsigned> count{0};  // several within a thousandth of a second
    return folder.value() / fmt::format("{}-{}-{}-{:04}{}", prefixOf(ecu), timePart(file.time), ::getpid(),
                                        count++, ofSet ? kSet : ".json");
}

/// For lastUndoFile(). The file itself is where it was wanted, whatever comes of this.
void linkFromFolder(const UndoFile& file, const fs::path& target) {
    std::error_code failure;
    const fs::path whole = fs::absolute(target, failure);
    const auto link = newPath(file);
    if (link && !failure) fs::create_symlink(whole, link.value(), failure);
    if (!link || failure)
        log::info("'last' will not find {}: {}", target.string(),
                  link ? failure.message() : link.error().text());
}

}  // namespace

std::string undoFileText(const UndoFile& file) {
    ordered_json document;
    document["kind"] = kKind;
    document["schema"] = kSchema;
    document["ecu"] = file.ecu;
    if (!file.place.empty()) document["place"] = file.place;
    if (!file.ecuText.empty()) document["ecuText"] = file.ecuText;
    document["epk"] = file.epk;
    document["a2lSha256"] = file.a2lSha256;
    document["time"] = file.time;
    document["command"] = file.command;
    if (!file.used.empty()) document["used"] = file.used;
    for (const WrittenPage& place : file.pages)
        document["pages"].push_back({{"segment", place.segment},
                                     {"ecuPage", place.ecuPage},
                                     {"xcpPage", place.xcpPage},
                                     {"writtenPage", place.page}});
    document["objects"] = ordered_json::array();
    for (const ObjectBytes& object : file.objects) {
        ordered_json entry;
        entry["name"] = object.name;
        entry["pieces"] = ordered_json::array();
        for (const BytePiece& piece : object.pieces)
            entry["pieces"].push_back(documentOf(piece));
        document["objects"].push_back(std::move(entry));
    }
    return document.dump(1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

Result<UndoFile> undoFileFrom(std::string_view text, const std::string& name) {
    const auto wrong = [&](const std::string& what) {
        return Error{ErrorCode::invalidArgument, name + ": " + what};
    };
    try {
        const json document = json::parse(text, &refuseDeepNesting);
        if (!document.is_object() || document.value("kind", "") != kKind)
            return wrong("this is no undo file");
        if (document.value("schema", 0) != kSchema) return wrong("of another version of this program");
        UndoFile file{document.value("ecu", ""),       document.value("epk", ""),
                      document.value("a2lSha256", ""), document.value("time", ""),
                      document.value("command", ""),   {}};
        for (const json& entry : document.value("pages", json::array()))
            file.pages.push_back({wholeNumber<std::uint8_t>(entry.at("segment")),
                                  wholeNumber<std::uint8_t>(entry.at("ecuPage")),
                                  wholeNumber<std::uint8_t>(entry.at("xcpPage")),
                                  wholeNumber<std::uint8_t>(entry.at("writtenPage"))});
        for (const json& entry : document.at("objects")) {
            ObjectBytes& object = file.objects.emplace_back();
            object.name = entry.at("name").get<std::string>();
            for (const json& piece : entry.at("pieces"))
                object.pieces.push_back(pieceFrom(piece));
        }
        file.place = document.value("place", "");
        file.ecuText = document.value("ecuText", "");
        file.used = document.value("used", "");
        return file;
    } catch (const std::exception& error) {
        return wrong(std::string("this is no undo file: ") + error.what());
    }
}

Result<UndoFile> loadUndoFile(const fs::path& path, const StopToken& stop) {
    auto text = readWholeFile(path, kMostBytes, stop);
    if (!text) return text.error();
    return undoFileFrom(text.value(), path.string());
}

Result<fs::path> keepUndoFile(const UndoFile& file, const std::optional<fs::path>& path) {
    auto target = path ? Result<fs::path>(*path) : newPath(file);
    if (!target) return target.error();
    const fs::path& place = target.value();
    StagedFile staged;
    int failure = staged.createBeside(place);
    if (failure == 0) failure = staged.write(undoFileText(file));
    if (failure == 0) failure = staged.close();
    if (failure == 0) failure = staged.place(place, StagedFile::Existing::kept);
    if (failure == 0) failure = flushDirectoryToDisk(place.has_parent_path() ? place.parent_path() : ".");
    if (failure == EEXIST) return Error{ErrorCode::alreadyOpen, place.string() + " already exists"};
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + place.string());
    if (path) linkFromFolder(file, place);
    return target;
}

Result<fs::path> lastUndoFile(const EcuPlace& ecu, const StopToken& stop) {
    const auto folder = stateFolder();
    if (!folder) return folder.error();
    const auto files = undoFilesOf(folder.value(), ecu);
    for (auto path = files.rbegin(); path != files.rend(); ++path) {
        const auto loaded = loadUndoFile(*path, stop);
        std::error_code failure;
        if (!loaded && !fs::exists(*path, failure) && !failure) {
            log::warn("{} is gone", fs::read_symlink(*path, failure).string());
        } else if (!loaded) {
            return loaded.error();
        } else if (loaded.value().used.empty()) {
            return *path;
        }
    }
    Error error{ErrorCode::notFound,
                fmt::format("there is no undo file of {} ({}) in {} that was not used yet",
                            printableText(ecu.ecu), printableText(ecu.place), folder.value().string())};
    error.hint = "--undo FILE names another one";
    return error;
}

Result<void> markUsed(const fs::path& path) {
    auto loaded = loadUndoFile(path, StopToken());
    if (!loaded) return loaded.error();
    loaded.value().used = utcTime();
    return rewriteUndoFile(loaded.value(), path);
}

Result<void> rewriteUndoFile(const UndoFile& file, const fs::path& path) {
    const int failure = replaceOrWrite(path, undoFileText(file));
    return failure == 0 ? Result<void>() : Error::fromErrno(failure, "cannot write " + path.string());
}

Result<void> checkSameEcu(const UndoFile& file, std::string_view place, std::string_view ecuText) {
    const bool isElsewhere = !file.place.empty() && file.place != place;
    const bool isOther = !file.ecuText.empty() && !ecuText.empty() && file.ecuText != ecuText;
    if (!isElsewhere && !isOther) return {};
    Error error{ErrorCode::permissionDenied,
                isElsewhere
                    ? fmt::format("the file is of an ECU at {}, this one is at {}", printableText(file.place),
                                  printableText(place))
                    : fmt::format("the file is of an ECU that calls itself \"{}\", this one is \"{}\"",
                                  printableText(file.ecuText), printableText(ecuText))};
    error.hint = "--ignore-identity goes on all the same";
    return error;
}

Result<void> checkSameSoftware(const SoftwareOf& file, const Identity& identity, std::string_view a2lSha256) {
    const auto other = [](const std::string& what) {
        Error error{ErrorCode::permissionDenied, "the file is for " + what};
        error.hint = "--ignore-identity goes on all the same";
        return error;
    };
    if (!file.epk.empty() && !identity.ecu.empty()) {
        if (file.epk == identity.ecu) return {};
        return other(
            fmt::format("\"{}\", the ECU runs \"{}\"", printableText(file.epk), printableText(identity.ecu)));
    }
    if (file.a2lSha256.empty() || file.a2lSha256 == a2lSha256) return {};
    return other("another A2L, and no EPK tells whether the ECU is the same");
}

}  // namespace lm::session
