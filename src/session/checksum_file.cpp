#include "session/checksum_file.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/durable_file.h"
#include "session/whole_number.h"

namespace lm::session {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int kSumsSchema = 1;
constexpr std::string_view kSumsKind = "xcplumo checksums";
constexpr std::size_t kMostSumsBytes = std::size_t{64} << 20U;

SavedSums segmentFrom(const json& entry) {
    SavedSums saved;
    saved.segment = wholeNumber<std::uint8_t>(entry.at("segment"));
    if (entry.contains("page")) saved.page = wholeNumber<std::uint8_t>(entry.at("page"));
    saved.address = wholeNumber<std::uint32_t>(entry.at("address"));
    saved.addressExtension = wholeNumber<std::uint8_t>(entry.at("addressExtension"));
    saved.size = wholeNumber<std::uint32_t>(entry.at("size"));
    saved.sums.computedHere = entry.at("computedHere").get<bool>();
    saved.sums.type = static_cast<xcp::ChecksumType>(wholeNumber<std::uint8_t>(entry.at("type")));
    for (const json& size : entry.at("blockSizes"))
        saved.sums.sizes.push_back(wholeNumber<std::uint32_t>(size));
    for (const json& sum : entry.at("sums"))
        saved.sums.sums.push_back(wholeNumber<std::uint32_t>(sum));
    return saved;
}

ordered_json documentOf(const SavedSums& saved) {
    ordered_json entry;
    entry["segment"] = saved.segment;
    if (saved.page) entry["page"] = *saved.page;
    entry["address"] = saved.address;
    entry["addressExtension"] = saved.addressExtension;
    entry["size"] = saved.size;
    entry["computedHere"] = saved.sums.computedHere;
    entry["type"] = static_cast<std::uint8_t>(saved.sums.type);
    entry["blockSizes"] = saved.sums.sizes;
    entry["sums"] = saved.sums.sums;
    return entry;
}

}  // namespace

const SavedSums* ChecksumFile::find(std::uint8_t segment) const {
    const auto found = std::find_if(segments.begin(), segments.end(),
                                    [&](const SavedSums& saved) { return saved.segment == segment; });
    return found == segments.end() ? nullptr : &*found;
}

std::string checksumFileText(const ChecksumFile& file) {
    ordered_json document;
    document["kind"] = kSumsKind;
    document["schema"] = kSumsSchema;
    if (!file.ecuEpk.empty()) document["ecuEpk"] = file.ecuEpk;
    document["segments"] = ordered_json::array();
    for (const SavedSums& saved : file.segments)
        document["segments"].push_back(documentOf(saved));
    return document.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

Result<ChecksumFile> checksumFileFrom(std::string_view text, const std::string& name) {
    const auto wrong = [&](const std::string& what) {
        return Error{ErrorCode::invalidArgument, name + ": " + what};
    };
    try {
        const json document = json::parse(text, &refuseDeepNesting);
        if (!document.is_object() || document.value("kind", "") != kSumsKind)
            return wrong("no file that `check --save` wrote");
        if (document.value("schema", 0) != kSumsSchema) return wrong("of another version of this program");
        ChecksumFile file;
        file.ecuEpk = document.value("ecuEpk", "");
        for (const json& entry : document.at("segments"))
            file.segments.push_back(segmentFrom(entry));
        return file;
    } catch (const std::exception& error) {
        return wrong(error.what());
    }
}

Result<ChecksumFile> loadChecksums(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return Error::fromErrno(errno, "cannot open " + path.string());
    std::string text;
    char piece[4096];
    while (file.read(piece, sizeof piece) || file.gcount() > 0) {
        text.append(piece, static_cast<std::size_t>(file.gcount()));
        if (text.size() > kMostSumsBytes)
            return Error{ErrorCode::invalidArgument, path.string() + ": larger than 64 MiB"};
    }
    if (file.bad()) return Error::fromErrno(errno, "cannot read " + path.string());
    return checksumFileFrom(text, path.string());
}

Result<void> saveChecksums(const std::filesystem::path& path, const ChecksumFile& file) {
    const int failure = replaceOrWrite(path, checksumFileText(file));
    if (failure != 0) return Error::fromErrno(failure, "cannot write " + path.string());
    return {};
}

}  // namespace lm::session
