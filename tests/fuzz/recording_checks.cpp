#include <algorithm>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "recording_files.h"
#include "storage/read/entry_reader.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/write/summary_builder.h"

namespace lm::fuzz {
namespace {

namespace fs = std::filesystem;

void checkSearch(const storage::GroupReader& reader, const PlainRecords& plain, storage::TimeRange times,
                 bool sound) {
    auto found = reader.find(times);
    require(found.ok(), "a search ends");
    require(found.value().end <= plain.times.size() && found.value().first <= found.value().end,
            "in the group");
    if (!sound || !plain.inOrder()) return;
    const auto place = [&plain](std::int64_t time) {
        return static_cast<std::uint64_t>(std::count_if(plain.times.begin(), plain.times.end(),
                                                        [time](std::int64_t at) { return at < time; }));
    };
    require(found.value().first == place(times.fromNs), "the first record of a stretch of time");
    require(found.value().end == std::max(place(times.fromNs), place(times.endNs)), "the one behind it");
}

/// A step of 16 cycles makes any block long; one of 1.5 cycles may hide behind records that came early.
void checkGaps(const storage::GroupReader& reader, const PlainRecords& plain, bool sound) {
    auto found = storage::findGaps(reader);
    require(found.ok(), "a search for gaps ends");
    const storage::Gaps& gaps = found.value();
    constexpr std::int64_t kFarNs = std::int64_t{1} << 61U;
    if (!sound || !plain.inOrder() || plain.times.front() < -kFarNs || plain.times.back() > kFarNs) return;
    const std::int64_t cycle = reader.info().cycleNs;
    std::uint64_t all = 0;
    std::uint64_t sure = 0;
    std::int64_t longest = 0;
    for (std::size_t n = 1; n < plain.times.size(); ++n) {
        const std::int64_t step = plain.times[n] - plain.times[n - 1];
        if (storage::isGap(0, step, cycle)) ++all;
        if (cycle > 0 && step / 16 >= cycle) ++sure;
        longest = std::max(longest, step);
    }
    require(gaps.count <= all && gaps.longest.lengthNs() <= longest, "no gap is invented");
    constexpr std::int64_t kDayNs = std::int64_t{86400} * 1'000'000'000;
    if (cycle > kDayNs) return;
    require(gaps.count >= sure, "every long gap is found");
    if (sure > 0) require(gaps.longest.lengthNs() == longest, "the longest one too");
}

storage::ValueRange plainRange(const storage::SignalInfo& signal, const PlainRecords& plain,
                               storage::RecordRange records) {
    storage::ValueRange range;
    for (std::uint64_t n = records.first; n < records.end; ++n) {
        const double value =
            plainValue(signal, plain.bytes.data() + n * plain.stride + storage::kTimestampSize);
        if (value < range.minimum) range.minimum = value;
        if (value > range.maximum) range.maximum = value;
    }
    return range;
}

void checkExtremes(const storage::GroupReader& reader, const PlainRecords& plain,
                   storage::RecordRange records, bool sound) {
    const auto& signals = reader.info().signals;
    std::vector<std::size_t> places(std::min<std::size_t>(signals.size(), 4));
    std::iota(places.begin(), places.end(), 0);
    auto found = storage::PyramidReader(reader).extremes(records, places);
    require(found.ok() && found.value().size() == places.size(), "extremes are found");
    for (std::size_t i = 0; sound && i < places.size(); ++i) {
        const storage::ValueRange& range = found.value()[i];
        const storage::ValueRange exact = plainRange(signals[i], plain, records);
        require(range.isEmpty() == exact.isEmpty(), "values where there are values");
        if (exact.isEmpty()) continue;
        const storage::FloatRange wide = storage::narrowOutward(exact);
        require(wide.minimum <= range.minimum && range.minimum <= exact.minimum, "the least value");
        require(exact.maximum <= range.maximum && range.maximum <= wide.maximum, "the greatest value");
    }
}

/// Index and levels as long as the records make them, and the index with their times.
void checkSummaries(const fs::path& directory, const storage::GroupReader& reader,
                    const PlainRecords& plain) {
    for (std::size_t number = 0; number <= storage::SummaryFile::kMaxLevel; ++number) {
        const std::size_t blocks = plain.times.size() / storage::SummaryFile::span(number);
        const std::size_t size = blocks * storage::SummaryFile::entrySize(number, reader.info());
        const fs::path path = storage::SummaryFile::path(directory, reader.number(), number);
        if (number > 0 && size == 0) {
            require(!fs::exists(path), "no level without an entry");
            continue;
        }
        const Bytes file = readFile(path);
        require(file.size() == storage::kHeaderSize + size, "an entry for each block");
        for (std::size_t k = 0; number == 0 && k < 2 * blocks; ++k) {
            const auto time =
                static_cast<std::int64_t>(readLittle<std::uint64_t>(&file[storage::kHeaderSize + 8 * k]));
            require(time == plain.times[k / 2 * 16 + k % 2 * 15], "the times of a block");
        }
    }
}

/// Lines that CR LF ends, outside quoted cells.
std::uint64_t csvLines(const Bytes& text) {
    std::uint64_t lines = 0;
    bool quoted = false;
    for (const std::uint8_t c : text) {
        if (c == '"') quoted = !quoted;
        if (c == '\n' && !quoted) ++lines;
    }
    require(!quoted && !text.empty() && text.back() == '\n', "a CSV file ends with a whole line");
    return lines;
}

/// Follows the links from block to block: the records that the groups are said to have.
std::uint64_t mf4Records(const Bytes& file) {
    constexpr std::size_t kHeader = 64;
    constexpr std::size_t kLinks = 24;  // from the start of a block
    const auto link = [&file](std::uint64_t block, std::size_t number) {
        require(block + kLinks + 8 * number + 8 <= file.size(), "a link lies in the file");
        return readLittle<std::uint64_t>(&file[block + kLinks + 8 * number]);
    };
    std::uint64_t records = 0;
    for (std::uint64_t group = link(kHeader, 0); group != 0; group = link(group, 0)) {
        const std::uint64_t cycles = link(link(group, 1), 7);  // behind six links and the record's number
        records += cycles;
        require((cycles == 0) == (link(group, 2) == 0), "records where there are records");
    }
    return records;
}

}  // namespace

void checkReading(const fs::path& directory, const storage::GroupReader& reader, Input input, bool sound) {
    const PlainRecords plain(reader.file().path(), reader.info());
    require(reader.recordCount() == plain.times.size(), "all whole records");
    Bytes read;
    auto stream = reader.read(reader.all(), 1 + input.takeBelow(1000));
    for (auto batch = stream.next(); batch.value().count > 0; batch = stream.next())
        read.insert(read.end(), batch.value().bytes,
                    batch.value().bytes + batch.value().count * plain.stride);
    require(read == plain.bytes, "records are read as they are");
    if (sound) checkSummaries(directory, reader, plain);
    if (plain.times.empty()) return;
    const std::size_t from = input.takeBelow(plain.times.size());
    const std::size_t end = input.takeBelow(plain.times.size());
    // One nanosecond beside a record, too.
    const std::int64_t beside = input.take<std::uint8_t>() & 1;
    checkSearch(reader, plain, {plain.times[from] ^ beside, plain.times[end] ^ beside}, sound);
    checkGaps(reader, plain, sound);
    checkExtremes(reader, plain, {std::min(from, end), std::max(from, end) + 1}, sound);
}

void checkExport(const storage::RecordingReader& recording, const fs::path& to, Input& input) {
    const auto shape = input.take<std::uint8_t>();
    const auto flag = [shape](unsigned bit) { return (shape >> bit & 1U) != 0; };
    exporter::ExportOptions options;
    options.output = to / "out";
    options.format = flag(0) ? exporter::Format::csv : exporter::Format::mf4;
    options.force = flag(1);
    options.compress = options.merge = flag(2);
    options.raw = flag(3);
    options.absolute = flag(4);
    options.a2lFormat = flag(5);
    options.every = 1 + input.takeBelow(20);
    if (flag(6)) options.from = std::to_string(input.take<std::uint8_t>()) + "e-2";
    const auto done = exporter::exportRecording(recording, options, {});
    std::set<fs::path> files;
    for (const auto& entry : fs::directory_iterator(to))
        files.insert(entry.path());
    if (!done) return require(files.empty(), "a failure leaves nothing behind");
    const exporter::ExportSummary& summary = done.value();
    require(files == std::set<fs::path>(summary.files.begin(), summary.files.end()) &&
                files.size() == summary.files.size(),
            "the files that are told are there, each its own");
    if (options.format == exporter::Format::mf4) {
        require(mf4Records(readFile(options.output)) == summary.records, "all records are in the file");
        return;
    }
    std::uint64_t lines = 0;
    for (const fs::path& file : files)
        lines += csvLines(readFile(file));
    const bool merged = summary.groups > 1 && options.merge;
    require(lines <= summary.records + files.size(), "no line without a record");
    if (!merged) require(lines == summary.records + files.size(), "a line for each record");
}

}  // namespace lm::fuzz
