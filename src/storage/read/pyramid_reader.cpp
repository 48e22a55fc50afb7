#include "storage/read/pyramid_reader.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "core/bytes.h"
#include "storage/format/recording_format.h"

namespace lm::storage {
namespace {

float floatAt(const std::uint8_t* bytes) {
    return std::bit_cast<float>(readLittle<std::uint32_t>(bytes));
}

}  // namespace

PyramidReader::PyramidReader(const GroupReader& group) : group_(&group) {
    const GroupInfo& info = group.info();
    decoders_.reserve(info.signals.size());
    for (const SignalInfo& signal : info.signals)
        decoders_.emplace_back(signal);
    for (const GroupPiece& records : group.pieces()) {
        Piece& piece = pieces_.emplace_back(Piece{&records});
        piece.levels.resize(1);
        if (info.signals.empty()) continue;
        for (std::size_t level = 1;
             level <= SummaryFile::kMaxLevel && SummaryFile::span(level) <= records.count; ++level) {
            auto file = EntryReader::open(records.directory(), group.number(), info, level);
            piece.levels.push_back(file ? std::optional(std::move(file).value()) : std::nullopt);
        }
    }
}

/// Entries that whole blocks of records stand behind.
std::uint64_t PyramidReader::Piece::entriesOf(std::size_t level) const {
    if (!levels[level]) return 0;
    return std::min(levels[level]->count(), records->count / SummaryFile::span(level));
}

Result<std::vector<ValueRange>> PyramidReader::extremes(RecordRange records,
                                                        std::span<const std::size_t> signals) {
    std::vector<ValueRange> ranges(signals.size());
    for (Piece& piece : pieces_) {
        const GroupPiece& here = *piece.records;
        const RecordRange part{std::max(records.first, here.first), std::min(records.end, here.end())};
        if (part.count() == 0) continue;
        auto added = addPiece(piece, {part.first - here.first, part.end - here.first}, signals, ranges);
        if (!added) return added.error();
    }
    return ranges;
}

Result<void> PyramidReader::addPiece(Piece& piece, RecordRange records, std::span<const std::size_t> signals,
                                     std::vector<ValueRange>& ranges) {
    while (records.count() > 0) {
        const Step step = piece.nextStep(records);
        if (step.level == 0) {
            const std::uint64_t first = piece.records->first + records.first;
            if (auto added = addRecords({first, first + step.entries}, signals, ranges); !added) return added;
            records.first += step.entries;
        } else {
            const std::uint64_t span = SummaryFile::span(step.level);
            auto added =
                addEntries(*piece.levels[step.level], records.first / span, step.entries, signals, ranges);
            if (!added) return added;
            records.first += step.entries * span;
        }
    }
    return {};
}

// The highest level with an entry that begins here and ends in time, up to where a higher one takes over.
PyramidReader::Step PyramidReader::Piece::nextStep(RecordRange range) const {
    for (std::size_t level = levels.size() - 1; level > 0; --level) {
        const std::uint64_t span = SummaryFile::span(level);
        const std::uint64_t first = range.first / span;
        const std::uint64_t end = std::min(range.end / span, entriesOf(level));
        if (range.first % span != 0 || first >= end) continue;
        const std::uint64_t untilHigher = kBlockLength - first % kBlockLength;
        const bool isHighest = level + 1 == levels.size();
        return {level, isHighest ? end - first : std::min(untilHigher, end - first)};
    }
    // To the next entry of level 1, if there is one to come.
    const std::uint64_t nextBlock = (range.first / kBlockLength + 1) * kBlockLength;
    const bool levelFollows = levels.size() > 1 && nextBlock / kBlockLength < entriesOf(1);
    return {0, levelFollows ? std::min(nextBlock - range.first, range.count()) : range.count()};
}

Result<void> PyramidReader::addRecords(RecordRange records, std::span<const std::size_t> signals,
                                       std::vector<ValueRange>& ranges) const {
    RecordStream stream = group_->read(records);
    for (;;) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        const RecordBatch& read = batch.value();
        if (read.count == 0) return {};
        for (std::size_t i = 0; i < signals.size(); ++i)
            decoders_[signals[i]].extend(ranges[i], read.data(0), read.stride, read.count);
    }
}

Result<void> PyramidReader::addEntries(EntryReader& file, std::uint64_t first, std::uint64_t count,
                                       std::span<const std::size_t> signals,
                                       std::vector<ValueRange>& ranges) {
    while (count > 0) {
        auto bytes = file.read(first, count);
        if (!bytes) return bytes.error();
        const std::span<const std::uint8_t> entries = bytes.value();
        for (std::size_t at = 0; at < entries.size(); at += file.entrySize()) {
            for (std::size_t i = 0; i < signals.size(); ++i) {
                const std::uint8_t* pair = &entries[at + 8 * signals[i]];
                // NaN is neither below nor above.
                const double minimum = floatAt(pair);
                const double maximum = floatAt(pair + 4);
                if (minimum < ranges[i].minimum) ranges[i].minimum = minimum;
                if (maximum > ranges[i].maximum) ranges[i].maximum = maximum;
            }
        }
        const std::uint64_t read = entries.size() / file.entrySize();
        first += read;
        count -= read;
    }
    return {};
}

}  // namespace lm::storage
