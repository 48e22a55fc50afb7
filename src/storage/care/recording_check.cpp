#include "storage/care/recording_check.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "storage/care/event_check.h"
#include "storage/care/record_proof.h"
#include "storage/format/summary_file.h"
#include "storage/read/entry_reader.h"
#include "storage/read/group_reader.h"
#include "storage/read/recording_reader.h"
#include "storage/write/summary_builder.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMadeAgain = "makes it again from the records";
constexpr std::int64_t kLeastNs = std::numeric_limits<std::int64_t>::min();
/// What was on its way when the recording started is older by far less.
constexpr std::int64_t kClockBeforeStartNs = 60'000'000'000;

/// One summary file and how far it has been compared.
struct ComparedFile {
    std::optional<EntryReader> reader;
    std::string trouble;  ///< why there is no reader
    std::span<const std::uint8_t> entries;
    std::uint64_t entriesFrom = 0;
    std::uint64_t expected = 0;  ///< entries that the records have given so far
    std::uint64_t wrong = 0;
    std::uint64_t firstWrong = 0;
};

/// Two pairs of floats; what a NaN looks like inside does not count.
bool sameLevelEntry(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
    for (std::size_t at = 0; at < a.size(); at += 4) {
        const auto left = std::bit_cast<float>(readLittle<std::uint32_t>(&a[at]));
        const auto right = std::bit_cast<float>(readLittle<std::uint32_t>(&b[at]));
        if (left != right && !(std::isnan(left) && std::isnan(right))) return false;
    }
    return true;
}

class GroupChecker {
  public:
    GroupChecker(fs::path directory, std::size_t number, const RecordingInfo& recording,
                 const StopToken& stop)
        : directory_(std::move(directory)),
          number_(number),
          group_(recording.groups[number]),
          earliestNs_(std::max(recording.startHostNs, kLeastNs + kClockBeforeStartNs) - kClockBeforeStartNs),
          stop_(stop),
          proof_(recording, group_) {}

    Result<GroupCheck> run();

  private:
    void checkHeader(const GroupReader& reader);
    Result<void> compareAll(const GroupReader& reader);
    void checkOrder(const RecordBatch& batch, std::uint64_t fileOffset);
    bool takeEntry(std::size_t file, std::span<const std::uint8_t> entry);
    void lookAtIndex(std::span<const std::uint8_t> stored);
    bool indexIsOfAnother() const;
    ComparedFile& fileNumber(std::size_t number);
    void report(std::string text, std::string repair = {}) {
        check_.findings.push_back({std::move(text), std::move(repair)});
    }
    void reportOrder();
    void reportSummaries();
    void reportSummary(std::size_t number, const ComparedFile& file);
    void reportSurplusLevels();

    fs::path directory_;
    std::size_t number_;
    const GroupInfo& group_;
    const std::int64_t earliestNs_;
    const StopToken& stop_;
    GroupCheck check_;
    std::optional<Error> headerError_;
    RecordProof proof_;
    std::vector<ComparedFile> files_;
    std::optional<Error> readError_;

    std::int64_t indexedNs_ = 0;   ///< last time of the latest index entry
    bool indexMakesSense_ = true;  ///< by itself: its times rise
    std::int64_t lastNs_ = 0;
    std::uint64_t beforeStart_ = 0;
    std::uint64_t unordered_ = 0;
    std::string firstUnordered_;
};

Result<GroupCheck> GroupChecker::run() {
    auto opened = GroupReader::openUnchecked(directory_, number_, group_);
    if (!opened) {
        check_.header = GroupCheck::Header::unreadable;
        report(opened.error().text() + "; the records of group " + group_.name + " are lost");
        return std::move(check_);
    }
    const GroupReader& reader = opened.value();
    check_.records = reader.recordCount();
    check_.tornBytes = reader.tornBytes();
    check_.beingWritten = reader.isBeingWritten();
    if (auto fits = reader.checkHeader(); !fits) headerError_ = fits.error();
    if (headerError_ && headerError_->code != ErrorCode::invalidArgument) {
        check_.header = GroupCheck::Header::unreadable;
        report(headerError_->text());
        return std::move(check_);
    }
    if (auto compared = compareAll(reader); !compared) {
        if (compared.error().isStop()) return compared.error();
        report(compared.error().text());
        return std::move(check_);
    }
    if (!headerError_ && indexIsOfAnother()) {
        check_.header = GroupCheck::Header::unreadable;
        report(reader.file().path().string() +
               ": no entry of its index fits the records; one of the two may be of another recording");
        return std::move(check_);
    }
    checkHeader(reader);
    if (check_.header == GroupCheck::Header::unreadable) return std::move(check_);
    reportOrder();
    reportSummaries();
    reportSurplusLevels();
    return std::move(check_);
}

void GroupChecker::checkHeader(const GroupReader& reader) {
    const std::string path = reader.file().path().string();
    if (reader.file().size() < kHeaderSize) {
        check_.header = GroupCheck::Header::mendable;
        report(path + ": shorter than its header, holds no records", "writes the header");
    } else if (headerError_) {
        const bool proven = proof_.holds();
        check_.header = proven ? GroupCheck::Header::mendable : GroupCheck::Header::unreadable;
        report(headerError_->text() + (proven ? "; the records behind the header are this group's"
                                              : "; nothing shows whose records stand behind the header"),
               proven ? "writes the header again" : "");
    } else if (check_.tornBytes > 0 && !check_.beingWritten) {
        report(fmt::format("{}: {} bytes of a torn record at byte {}, behind {} whole records", path,
                           check_.tornBytes, reader.offsetOf(check_.records), check_.records),
               "cuts them off");
    }
}

Result<void> GroupChecker::compareAll(const GroupReader& reader) {
    fileNumber(SummaryFile::kIndex);
    SummaryBuilder summary(group_);
    const auto take = [this](std::size_t file, std::span<const std::uint8_t> entry) {
        return takeEntry(file, entry);
    };
    RecordStream stream = reader.read(reader.all());
    for (;;) {
        if (stop_.requested()) return Error::stopped("stopped");
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (batch.value().count == 0) return {};
        checkOrder(batch.value(), reader.offsetOf(batch.value().firstNumber));
        if (headerError_) proof_.look(batch.value());
        if (!summary.add(batch.value().bytes, batch.value().count, take)) return *readError_;
    }
}

void GroupChecker::checkOrder(const RecordBatch& batch, std::uint64_t fileOffset) {
    for (std::size_t i = 0; i < batch.count; ++i) {
        const std::int64_t time = batch.timestampNs(i);
        const std::uint64_t n = batch.firstNumber + i;
        if (time < earliestNs_) ++beforeStart_;
        if (n > 0 && time < lastNs_) {
            if (unordered_++ == 0) {
                firstUnordered_ = fmt::format("record {} (byte {})", n, fileOffset + i * batch.stride);
            }
        }
        lastNs_ = time;
    }
}

ComparedFile& GroupChecker::fileNumber(std::size_t number) {
    while (files_.size() <= number) {
        ComparedFile file;
        auto opened = EntryReader::open(directory_, number_, group_, files_.size());
        if (opened) {
            file.reader = std::move(opened).value();
        } else {
            file.trouble = opened.error().text();
        }
        files_.push_back(std::move(file));
    }
    return files_[number];
}

/// False when the file cannot be read; the reason is in readError_.
bool GroupChecker::takeEntry(std::size_t number, std::span<const std::uint8_t> entry) {
    ComparedFile& file = fileNumber(number);
    const std::uint64_t k = file.expected++;
    if (!file.reader || k >= file.reader->count()) return true;
    const std::size_t size = entry.size();
    if (k >= file.entriesFrom + file.entries.size() / size) {
        auto entries = file.reader->read(k, file.reader->count() - k);
        if (!entries) {
            readError_ = entries.error();
            return false;
        }
        file.entries = entries.value();
        file.entriesFrom = k;
    }
    const auto stored = file.entries.subspan(static_cast<std::size_t>(k - file.entriesFrom) * size, size);
    const bool same = number == SummaryFile::kIndex ? std::equal(entry.begin(), entry.end(), stored.begin())
                                                    : sameLevelEntry(entry, stored);
    if (!same && file.wrong++ == 0) file.firstWrong = k;
    if (number == SummaryFile::kIndex) lookAtIndex(stored);
    return true;
}

void GroupChecker::lookAtIndex(std::span<const std::uint8_t> stored) {
    const auto first = static_cast<std::int64_t>(readLittle<std::uint64_t>(stored.data()));
    const auto last = static_cast<std::int64_t>(readLittle<std::uint64_t>(stored.data() + kTimestampSize));
    if (first < std::max(earliestNs_, indexedNs_) || last <= first) indexMakesSense_ = false;
    indexedNs_ = last;
}

/// An index that makes sense and fits nowhere is no damaged one: to make it again would hide a mix-up.
bool GroupChecker::indexIsOfAnother() const {
    const ComparedFile& index = files_[SummaryFile::kIndex];
    constexpr std::uint64_t kLeastEntries = 2;
    return index.reader && indexMakesSense_ && index.wrong >= kLeastEntries &&
           index.wrong == std::min(index.reader->count(), index.expected);
}

void GroupChecker::reportOrder() {
    if (beforeStart_ > 0) {
        report(
            fmt::format("{}: {} record(s) far before the start of the recording, as in a file of another one",
                        (directory_ / recordFileName(number_)).string(), beforeStart_));
    }
    if (unordered_ == 0) return;
    report(fmt::format("{}: {} older than the record before, the first is {}; its place in time is lost",
                       (directory_ / recordFileName(number_)).string(),
                       unordered_ == 1 ? "1 record is" : fmt::format("{} records are", unordered_),
                       firstUnordered_));
}

void GroupChecker::reportSummaries() {
    for (std::size_t number = 0; number < files_.size(); ++number) {
        const std::size_t before = check_.findings.size();
        reportSummary(number, files_[number]);
        if (check_.findings.size() != before) check_.wrongFiles.push_back(number);
    }
}

void GroupChecker::reportSummary(std::size_t number, const ComparedFile& file) {
    const std::string path = SummaryFile::path(directory_, number_, number).string();
    if (!file.reader) {
        // The writer makes a level with its first entry.
        if (!check_.beingWritten) report(file.trouble, kMadeAgain);
        return;
    }
    if (file.wrong > 0) {
        report(fmt::format("{}: {} the records, the first is entry {} (byte {})", path,
                           file.wrong == 1 ? "1 entry does not fit"
                                           : fmt::format("{} entries do not fit", file.wrong),
                           file.firstWrong, file.reader->offsetOf(file.firstWrong)),
               kMadeAgain);
    }
    if (check_.beingWritten) return;
    const std::uint64_t count = file.reader->count();
    if (count != file.expected) {
        report(fmt::format("{}: {} entries instead of {}", path, count, file.expected), kMadeAgain);
    } else if (file.reader->tornBytes() > 0) {
        report(fmt::format("{}: {} bytes behind the last entry (byte {})", path, file.reader->tornBytes(),
                           file.reader->offsetOf(count)),
               kMadeAgain);
    }
}

void GroupChecker::reportSurplusLevels() {
    if (check_.beingWritten) return;
    for (std::size_t level = files_.size(); level <= SummaryFile::kMaxLevel; ++level) {
        const fs::path path = SummaryFile::path(directory_, number_, level);
        std::error_code failure;
        if (!fs::exists(fs::symlink_status(path, failure))) continue;
        check_.surplusFiles.push_back(level);
        report(path.string() + ": belongs to no record of this recording", "removes it");
    }
}

}  // namespace

Result<GroupCheck> checkGroup(const fs::path& directory, std::size_t number, const RecordingInfo& recording,
                              const StopToken& stop) {
    return GroupChecker(directory, number, recording, stop).run();
}

Result<RecordingCheck> checkRecording(const fs::path& directory, const StopToken& stop) {
    auto recording = RecordingReader::open(directory);
    if (!recording) return recording.error();
    RecordingCheck result;
    const std::vector<GroupInfo>& groups = recording.value().info().groups;
    result.groups = groups.size();
    for (std::size_t i = 0; i < groups.size(); ++i) {
        auto group = checkGroup(directory, i, recording.value().info(), stop);
        if (!group) return group.error();
        result.records += group.value().records;
        result.beingWritten = result.beingWritten || group.value().beingWritten;
        for (Finding& finding : group.value().findings)
            result.findings.push_back(std::move(finding));
    }
    for (Finding& finding : checkEvents(directory, recording.value().info()))
        result.findings.push_back(std::move(finding));
    return result;
}

}  // namespace lm::storage
