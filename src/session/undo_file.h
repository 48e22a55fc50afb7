// What was there before a set of parameters was written: a file that is on the disk, whole, before the first
// byte of the ECU changes, and from which all of it is put back.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/identity.h"
#include "session/object_bytes.h"

namespace lm::session {

/// Which ECU: several of one name are told apart by how they are reached.
struct EcuPlace {
    std::string ecu;
    std::string place;  ///< as MediumTexts has it; empty when it is not known
};

/// A segment with calibration pages: which page was written, and which ones were in use before.
struct WrittenPage {
    std::uint8_t segment = 0;
    std::uint8_t ecuPage = 0;
    std::uint8_t xcpPage = 0;
    std::uint8_t page = 0;
};

struct UndoFile {
    std::string ecu;
    std::string epk;  ///< as the ECU held it; empty when it is not known
    std::string a2lSha256;
    std::string time;
    std::string command;
    std::vector<ObjectBytes> objects;     ///< in the order in which they are written
    std::vector<WrittenPage> pages = {};  ///< as far as they are known; the rest lies where XCP is
    std::string place = {};               ///< how the ECU was reached; empty when it is not known
    std::string ecuText = {};             ///< what the ECU calls itself; empty when it was not asked
    std::string used = {};                ///< when all of it had been put back; empty: not yet
};

std::string undoFileText(const UndoFile& file);
/// Errors (invalidArgument): "NAME: ..." for what is no such file, or is one of another version.
Result<UndoFile> undoFileFrom(std::string_view text, const std::string& name);
/// Errors: "cannot open PATH" and the like, undoFileFrom()'s, Error::stopped.
Result<UndoFile> loadUndoFile(const std::filesystem::path& path, const StopToken& stop);

/// File and directory are on the disk when it returns. No path: a new one in the state folder; a file
/// elsewhere is linked to from there. Of an ECU the latest hundred of `set` and the latest hundred of other
/// commands are kept there, and up to a thousand that are younger than a week. Returns where it is. Errors:
/// stateFolder()'s, "PATH already exists", "cannot write PATH".
Result<std::filesystem::path> keepUndoFile(const UndoFile& file,
                                           const std::optional<std::filesystem::path>& path);

/// Gives a file that was kept another content, as a whole and on the disk. Error: "cannot write PATH".
Result<void> rewriteUndoFile(const UndoFile& file, const std::filesystem::path& path);

/// The latest of this ECU in the state folder that was not used up. A linked one that is gone is one warning.
/// Errors: stateFolder()'s, loadUndoFile()'s, "there is no undo file of ECU".
Result<std::filesystem::path> lastUndoFile(const EcuPlace& ecu, const StopToken& stop);

/// Nothing of it is left to be put back. Errors: loadUndoFile()'s, "cannot write PATH".
Result<void> markUsed(const std::filesystem::path& path);

/// Error (permissionDenied): that the file is of an ECU that was reached another way, or has another name for
/// itself. A text that is empty is not known.
Result<void> checkSameEcu(const UndoFile& file, std::string_view place, std::string_view ecuText);

/// Of which software something is: `epk` and `a2lSha256` may be empty.
struct SoftwareOf {
    std::string_view epk;
    std::string_view a2lSha256;
};
/// Whether a file belongs to the ECU that is connected: by their EPKs, else by the digests of the A2L, as far
/// as they are known. Error (permissionDenied): that it is another one's.
Result<void> checkSameSoftware(const SoftwareOf& file, const Identity& identity, std::string_view a2lSha256);

}  // namespace lm::session
