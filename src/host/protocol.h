// What the programs that share an ECU tell each other, as JSON: bytes of another program, which are checked.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/result.h"
#include "session/object_bytes.h"
#include "storage/format/recording_events.h"
#include "xcp/packet.h"

namespace lm::host {

// Routes, over the Unix socket alone.
inline constexpr std::string_view kAttachRoute =
    "/v1/share/attach";                                             ///< who is there, and is it the same A2L
inline constexpr std::string_view kBeginRoute = "/v1/share/begin";  ///< a lease: the right to send commands
inline constexpr std::string_view kCommandRoute =
    "/v1/share/command";  ///< commands of a lease, and their answers
inline constexpr std::string_view kAnnounceRoute = "/v1/share/announce";
inline constexpr std::string_view kWrittenRoute = "/v1/share/written";
inline constexpr std::string_view kEndRoute = "/v1/share/end";

// Members of an object, when they are there and of this type.
std::optional<std::int64_t> numberAt(const nlohmann::json& json, const char* key);
std::optional<std::string> textAt(const nlohmann::json& json, const char* key);
bool flagAt(const nlohmann::json& json, const char* key);

std::string hexOf(const std::uint8_t* bytes, std::size_t count);
std::optional<std::vector<std::uint8_t>> bytesOfHex(std::string_view text);

nlohmann::json packetsJson(const std::vector<xcp::Packet>& packets);
/// Errors (invalidArgument): what is no list of packets of 1 to 255 bytes, at most 4096.
Result<std::vector<xcp::Packet>> packetsOf(const nlohmann::json& json);

nlohmann::json changesJson(const std::vector<session::ObjectBytes>& changes);
/// Errors (invalidArgument): likewise.
Result<std::vector<session::ObjectBytes>> changesOf(const nlohmann::json& json);

/// An error as it travels inside an answer, with all of its parts.
nlohmann::json errorToJson(const Error& error);
std::optional<Error> errorOf(const nlohmann::json& json);

/// What tells whether two programs read the same A2L.
struct A2lFile {
    std::string path = {};  ///< empty: there is none
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t changedNs = 0;
    std::string sha256 = {};  ///< only where it is asked for

    /// As the system tells it now. A file that is not there has a path alone.
    static A2lFile of(const std::string& path);
    /// The same file that has not changed: no digest is needed.
    bool isFile(const A2lFile& other) const;
};
nlohmann::json a2lJson(const A2lFile& file);
A2lFile a2lOf(const nlohmann::json& json);
/// The digest of what the file holds now; empty when it cannot be read.
std::string digestOf(const std::string& path);

}  // namespace lm::host
