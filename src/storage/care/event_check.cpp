#include "storage/care/event_check.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include <spdlog/fmt/fmt.h>

#include "core/durable_file.h"
#include "core/file_lock.h"
#include "core/file_write.h"
#include "core/unique_fd.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_meta.h"

namespace lm::storage {
namespace {

enum class Mend : std::uint8_t { none, cut, endLine, begin };

Mend mendOf(const RecordingEvents& events) {
    if (events.beingWritten) return Mend::none;
    if (events.file == RecordingEvents::File::beginLost) return Mend::begin;
    if (events.file != RecordingEvents::File::read || events.tornBytes == 0) return Mend::none;
    return events.lastLineIsWhole ? Mend::endLine : Mend::cut;
}

/// Returns 0 or an errno; the file is flushed to the disk.
int mend(int descriptor, const RecordingEvents& events, const std::string& start) {
    const std::uint64_t fileEnd = events.wholeBytes + events.tornBytes;
    std::string_view text;
    std::uint64_t at = events.wholeBytes;
    if (mendOf(events) == Mend::endLine) {
        text = "\n";
        at = fileEnd;
    } else if (::ftruncate(descriptor, static_cast<off_t>(events.wholeBytes)) != 0) {
        return errno;
    } else if (mendOf(events) == Mend::begin) {
        text = start;
    }
    const Written written = writeAt(descriptor, at, text.data(), text.size());
    if (written.systemError == 0) return flushToDisk(descriptor);
    // Half of it would be the next repair's to cut off.
    [[maybe_unused]] const int cut = ::ftruncate(descriptor, static_cast<off_t>(at));
    return written.systemError;
}

}  // namespace

std::vector<Finding> checkEvents(const std::filesystem::path& directory, const RecordingInfo& info) {
    const RecordingEvents events = readEvents(directory, info);
    const std::string path = (directory / kEventFileName).string();
    std::vector<Finding> findings;
    const bool isWhole = events.file == RecordingEvents::File::read;
    switch (mendOf(events)) {
        case Mend::begin:
            findings.push_back({events.trouble, "begins it again, the outages stay unknown"});
            break;
        case Mend::endLine:
            findings.push_back({path + ": the last line lacks its line feed", "adds it"});
            break;
        case Mend::cut:
            findings.push_back({fmt::format("{}: {} bytes of a torn line at byte {}", path, events.tornBytes,
                                            events.wholeBytes),
                                "cuts them off"});
            break;
        case Mend::none:
            // One that was begun again is as sound as it can be.
            if (!isWhole && !events.trouble.empty()) findings.push_back({events.trouble, ""});
            break;
    }
    for (const EventFault& fault : events.faults)
        findings.push_back({fmt::format("{}: line {} {}", path, fault.line, fault.text), ""});
    return findings;
}

Result<void> repairEvents(const std::filesystem::path& directory, const RecordingInfo& info,
                          const RepairListener& tell) {
    const std::filesystem::path path = directory / kEventFileName;
    RecordingEvents events = readEvents(directory, info);
    if (mendOf(events) == Mend::none) return {};
    const auto failed = [&path](int reason) {
        return Error::fromErrno(reason, "cannot write " + path.string());
    };
    // A recording from elsewhere must not lead the repair to other files.
    UniqueFd file(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid()) return failed(errno);
    if (!lockForWriting(file.get())) return stillRecorded(directory);
    if (const int failure = mend(file.get(), events, startAgainLine(info)); failure != 0) {
        return failed(failure);
    }
    if (const int failure = file.close(); failure != 0) return failed(failure);
    switch (mendOf(events)) {
        case Mend::begin:
            tell(path.string() + ": begun again, what it told is lost");
            break;
        case Mend::endLine:
            tell(path.string() + ": last line ended");
            break;
        default:
            tell(fmt::format("{}: cut {} bytes of a torn line", path.string(), events.tornBytes));
            break;
    }
    return {};
}

}  // namespace lm::storage
