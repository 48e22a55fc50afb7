#include "exporter/csv_export.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "exporter/csv_column.h"
#include "exporter/number_text.h"
#include "exporter/output_file.h"
#include "storage/signal_selection.h"

namespace lm::exporter {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{1} << 20U;
constexpr std::string_view kLineEnd = "\r\n";

/// The times of the first column.
class TimeText {
  public:
    TimeText(const storage::RecordingInfo& info, bool absolute) : info_(info), absolute_(absolute) {}

    std::string_view unit() const { return absolute_ ? " [UTC]" : " [s]"; }

    void append(std::string& line, std::int64_t timestampNs) {
        if (absolute_) {
            appendUtc(line, timestampNs);
            return;
        }
        const auto sinceStart =
            static_cast<std::uint64_t>(timestampNs) - static_cast<std::uint64_t>(info_.startHostNs);
        std::array<char, kNumberWidth> text{};
        line.append(text.data(), writeSeconds(text.data(), static_cast<std::int64_t>(sinceStart)));
    }

  private:
    void appendUtc(std::string& line, std::int64_t timestampNs) {
        // Only the fraction changes from one record to most next ones.
        constexpr std::size_t kDecimals = 9;
        // Damaged timestamps may be any numbers.
        const std::uint64_t inSecond = static_cast<std::uint64_t>(timestampNs) - secondNs_;
        if (second_.empty() || inSecond >= 1000000000) {
            const std::string text = storage::utcText(timestampNs, info_, kDecimals);
            second_ = text.substr(0, text.size() - kDecimals - 1);
            std::uint64_t nanoseconds = 0;
            std::from_chars(text.data() + second_.size(), text.data() + text.size(), nanoseconds);
            secondNs_ = static_cast<std::uint64_t>(timestampNs) - nanoseconds;
            line += text;
            return;
        }
        line += second_;
        std::uint64_t unit = 100000000;
        for (std::size_t i = 0; i < kDecimals; ++i, unit /= 10)
            line += static_cast<char>('0' + inSecond / unit % 10);
        line += 'Z';
    }

    const storage::RecordingInfo& info_;
    bool absolute_;
    std::string second_;  ///< "2026-03-01T12:00:00." of the last time
    std::uint64_t secondNs_ = 0;
};

/// The records of a group one after the other, with their columns.
class GroupCursor {
  public:
    GroupCursor(const ExportGroup& group, const ExportOptions& options, Progress& progress)
        : pass_(group, progress), empty_(group.signals.size(), ',') {
        for (const storage::SignalInfo* signal : group.signals)
            columns_.emplace_back(*signal, options);
    }

    /// Goes to the next record.
    Result<void> advance() {
        at_ += batch_.step;
        while (!ended_ && at_ >= batch_.records.count) {
            auto batch = pass_.next();
            if (!batch) return batch.error();
            batch_ = batch.value();
            at_ = batch_.first;
            ended_ = batch_.records.count == 0;
        }
        if (!ended_) timestampNs_ = batch_.records.timestampNs(at_);
        return {};
    }

    bool ended() const { return ended_; }
    std::int64_t timestampNs() const { return timestampNs_; }

    void appendCells(std::string& line) {
        const std::uint8_t* data = batch_.records.data(at_);
        for (CsvColumn& column : columns_) {
            line += ',';
            column.append(line, data);
        }
    }
    void appendEmptyCells(std::string& line) const { line += empty_; }

  private:
    ExportPass pass_;
    std::vector<CsvColumn> columns_;
    std::string empty_;
    ExportPass::Batch batch_{};
    std::size_t at_ = 0;
    std::int64_t timestampNs_ = 0;
    bool ended_ = false;
};

/// "NAME [UNIT]", or "NAME@GROUP [UNIT]" where another column has the same name. Raw values have no unit.
std::string headingLine(std::span<const ExportGroup> groups, std::string_view timeHeading, bool raw) {
    std::map<std::string_view, int> uses;
    for (const ExportGroup& group : groups) {
        for (const storage::SignalInfo* signal : group.signals)
            ++uses[signal->name];
    }
    std::string line(timeHeading);
    for (const ExportGroup& group : groups) {
        for (const storage::SignalInfo* signal : group.signals) {
            std::string heading = signal->name;
            if (uses[signal->name] > 1) heading += "@" + group.reader.info().name;
            const std::string& unit = signal->conversion.unit();
            if (!unit.empty() && !raw) heading += " [" + unit + "]";
            line += ',';
            appendField(line, heading);
        }
    }
    line += kLineEnd;
    return line;
}

class CsvWriter {
  public:
    /// `timeName`: what the first column is called.
    CsvWriter(const storage::RecordingInfo& info, const ExportOptions& options, const std::string& timeName,
              Progress& progress)
        : options_(options), progress_(progress), time_(info, options.absolute) {
        timeHeading_ = timeName + std::string(time_.unit());
    }

    /// One line per time at which a group has a record; the cells of the others are empty.
    Result<void> write(OutputFile& file, std::span<const ExportGroup> groups) {
        std::string text = headingLine(groups, timeHeading_, options_.raw);
        std::vector<GroupCursor> cursors;
        for (const ExportGroup& group : groups) {
            cursors.emplace_back(group, options_, progress_);
            if (auto moved = cursors.back().advance(); !moved) return moved;
        }
        while (const auto next = earliest(cursors)) {
            time_.append(text, *next);
            if (auto appended = appendLine(text, cursors, *next); !appended) return appended;
            text += kLineEnd;
            if (text.size() < kBufferBytes) continue;
            if (auto written = file.append(text); !written) return written;
            text.clear();
        }
        return file.append(text);
    }

  private:
    static std::optional<std::int64_t> earliest(const std::vector<GroupCursor>& cursors) {
        std::optional<std::int64_t> time;
        for (const GroupCursor& cursor : cursors) {
            if (!cursor.ended() && (!time || cursor.timestampNs() < *time)) time = cursor.timestampNs();
        }
        return time;
    }

    Result<void> appendLine(std::string& text, std::vector<GroupCursor>& cursors, std::int64_t timeNs) {
        for (GroupCursor& cursor : cursors) {
            if (cursor.ended() || cursor.timestampNs() != timeNs) {
                cursor.appendEmptyCells(text);
                continue;
            }
            cursor.appendCells(text);
            if (auto moved = cursor.advance(); !moved) return moved;
        }
        return {};
    }

    const ExportOptions& options_;
    Progress& progress_;
    TimeText time_;
    std::string timeHeading_;
};

/// A name for a part of a file name.
std::string fileNamePart(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '/' || static_cast<unsigned char>(c) < 0x20; },
        '_');
    return name;
}

std::vector<std::filesystem::path> fileNames(const std::vector<ExportGroup>& groups,
                                             const ExportOptions& options) {
    if (options.merge || groups.size() == 1) return {options.output};
    std::vector<std::filesystem::path> files;
    const std::string extension = options.output.extension().string();
    for (const ExportGroup& group : groups) {
        std::string name = options.output.stem().string() + "_" + fileNamePart(group.reader.info().name);
        std::filesystem::path file = options.output;
        file.replace_filename(name + extension);
        // The name with the number may be another group's own.
        while (std::find(files.begin(), files.end(), file) != files.end()) {
            name += "_" + std::to_string(group.reader.number());
            file.replace_filename(name + extension);
        }
        files.push_back(file);
    }
    return files;
}

}  // namespace

Result<std::vector<std::filesystem::path>> exportCsv(const storage::RecordingInfo& info,
                                                     const std::vector<ExportGroup>& groups,
                                                     const ExportOptions& options, Progress& progress) {
    // The groups' files stand beside it: "/dev/null" must not give files in /dev.
    if (auto fits = checkTarget(options.output, true); !fits) return fits.error();
    const std::vector<std::filesystem::path> names = fileNames(groups, options);
    std::vector<OutputFile> files;
    for (const std::filesystem::path& name : names) {
        auto file = OutputFile::create(name, options.force);
        if (!file) return file.error();
        files.push_back(std::move(file).value());
    }
    CsvWriter writer(info, options, timeName(groups), progress);
    const std::span<const ExportGroup> all(groups);
    for (std::size_t i = 0; i < files.size(); ++i) {
        auto written = writer.write(files[i], files.size() == 1 ? all : all.subspan(i, 1));
        if (!written) return written.error();
    }
    for (OutputFile& file : files) {
        if (auto committed = file.commit(); !committed) return committed.error();
    }
    return names;
}

}  // namespace lm::exporter
