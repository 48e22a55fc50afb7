#include "exporter/csv_export.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "exporter/csv_column.h"
#include "exporter/csv_gaps.h"
#include "exporter/csv_time.h"
#include "exporter/output_file.h"
#include "storage/read/gap_search.h"

namespace lm::exporter {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{1} << 20U;
constexpr std::string_view kLineEnd = "\r\n";

/// The records of a group one after the other, with their columns.
class GroupCursor {
  public:
    GroupCursor(const ExportGroup& group, const ExportOptions& options, Progress& progress)
        : pass_(group, progress),
          empty_(group.signals.size(), ','),
          gaps_(options.gaps ? group.reader.info().cycleNs : 0) {
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
            gaps_.look(batch_.records);
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
    storage::Gaps takeGaps() { return gaps_.take(); }

  private:
    ExportPass pass_;
    std::vector<CsvColumn> columns_;
    std::string empty_;
    ExportPass::Batch batch_{};
    std::size_t at_ = 0;
    std::int64_t timestampNs_ = 0;
    bool ended_ = false;
    storage::GapSearch gaps_;
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
            const std::string& unit = signal->conversion->unit();
            if (!unit.empty() && !raw) heading += " [" + unit + "]";
            line += ',';
            appendField(line, heading);
        }
    }
    line += kLineEnd;
    return line;
}

using TextSink = std::function<Result<void>(std::string_view)>;

class CsvWriter {
  public:
    /// `timeName`: what the first column is called.
    CsvWriter(const storage::RecordingInfo& info, const ExportOptions& options, const std::string& timeName,
              Progress& progress)
        : options_(options), progress_(progress), time_(info, options.absolute) {
        timeHeading_ = timeName + " " + std::string(time_.unit());
    }

    /// One line per time at which a group has a record; the cells of the others are empty.
    Result<void> write(const TextSink& sink, std::span<const ExportGroup> groups) {
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
            if (auto written = sink(text); !written) return written;
            text.clear();
        }
        for (GroupCursor& cursor : cursors)
            gaps_.push_back(cursor.takeGaps());
        return sink(text);
    }

    /// Of all groups that were written, in their order.
    const std::vector<storage::Gaps>& gaps() const { return gaps_; }

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
    CsvTime time_;
    std::string timeHeading_;
    std::vector<storage::Gaps> gaps_;
};

/// A name for a part of a file name.
std::string fileNamePart(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '/' || static_cast<unsigned char>(c) < 0x20; },
        '_');
    return name;
}

Result<void> oneTable(const std::vector<ExportGroup>& groups, const ExportOptions& options) {
    if (options.merge || groups.size() == 1) return {};
    return Error{ErrorCode::invalidArgument,
                 "standard output takes one table, not the " + std::to_string(groups.size()) +
                     " of these groups: --merge, or -s for signals of one of them"};
}

}  // namespace

std::vector<std::filesystem::path> csvFiles(const std::vector<ExportGroup>& groups,
                                            const ExportOptions& options) {
    std::vector<std::filesystem::path> files;
    const std::string extension = options.output.extension().string();
    const auto add = [&](const std::string& part, const std::string& otherwise) {
        std::string name = options.output.stem().string() + "_" + fileNamePart(part);
        std::filesystem::path file = options.output;
        file.replace_filename(name + extension);
        // The name with the number may be another group's own.
        while (std::find(files.begin(), files.end(), file) != files.end()) {
            name += otherwise;
            file.replace_filename(name + extension);
        }
        files.push_back(file);
    };
    if (options.merge || groups.size() == 1) {
        files.push_back(options.output);
    } else {
        for (const ExportGroup& group : groups)
            add(group.reader.info().name, "_" + std::to_string(group.reader.number()));
    }
    if (options.gaps) add("gaps", "_gaps");
    return files;
}

Result<std::vector<std::filesystem::path>> exportCsv(const storage::RecordingInfo& info,
                                                     const std::vector<ExportGroup>& groups,
                                                     const std::vector<storage::Outage>& outages,
                                                     const ExportOptions& options, Progress& progress) {
    CsvWriter writer(info, options, timeName(groups), progress);
    const std::span<const ExportGroup> all(groups);
    if (options.stream) {
        auto written = oneTable(groups, options);
        if (written) written = writer.write(options.stream, all);
        if (!written) return written.error();
        return std::vector<std::filesystem::path>();
    }
    // The groups' files stand beside it: "/dev/null" must not give files in /dev.
    if (auto fits = checkTarget(options.output, true); !fits) return fits.error();
    const std::vector<std::filesystem::path> names = csvFiles(groups, options);
    std::vector<OutputFile> files;
    for (const std::filesystem::path& name : names) {
        auto file = OutputFile::create(name, options.force);
        if (!file) return file.error();
        files.push_back(std::move(file).value());
    }
    const std::size_t parts = files.size() - (options.gaps ? 1 : 0);
    for (std::size_t i = 0; i < parts; ++i) {
        const auto append = [&file = files[i]](std::string_view text) { return file.append(text); };
        auto written = writer.write(append, parts == 1 ? all : all.subspan(i, 1));
        if (!written) return written.error();
    }
    if (options.gaps) {
        auto written = files.back().append(gapList(info, groups, writer.gaps(), outages, options.absolute));
        if (!written) return written.error();
    }
    for (OutputFile& file : files) {
        if (auto committed = file.commit(); !committed) return committed.error();
    }
    return names;
}

}  // namespace lm::exporter
