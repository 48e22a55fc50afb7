#include "exporter/mf4_samples.h"

#include <algorithm>
#include <span>
#include <vector>

#include "exporter/deflater.h"
#include "exporter/mf4_blocks.h"

namespace lm::exporter {
namespace {

/// What a block of deflated samples holds before it is deflated; the format allows 4 MiB.
constexpr std::size_t kBlockBytes = 4000000;
/// Small enough to stay in the processor's cache between reading, looking for gaps and writing.
constexpr std::size_t kCopyBytes = std::size_t{256} << 10U;

std::size_t recordsPerBlock(const Mf4Layout& layout) {
    return std::max<std::size_t>(kBlockBytes / layout.stride(), 1);
}

/// Packs the records of a group into blocks and hands each to `take`; all are full but the last.
template <typename Take>
Result<void> forEachBlock(const ExportGroup& group, const Mf4Layout& layout, storage::GapSearch& gaps,
                          Progress& progress, const Take& take) {
    const std::uint64_t most = std::min<std::uint64_t>(recordsPerBlock(layout), group.recordCount());
    std::vector<std::uint8_t> block(static_cast<std::size_t>(most) * layout.stride());
    std::size_t filled = 0;
    ExportPass pass(group, progress);
    for (;;) {
        auto batch = pass.next();
        if (!batch) return batch.error();
        const storage::RecordBatch& records = batch.value().records;
        gaps.look(records);
        for (std::size_t i = batch.value().first; i < records.count; i += batch.value().step) {
            layout.pack(records.bytes + i * records.stride, &block[filled]);
            filled += layout.stride();
            if (filled < block.size()) continue;
            if (auto taken = take(std::span(block)); !taken) return taken;
            filled = 0;
        }
        if (records.count == 0) break;
    }
    if (filled == 0) return {};
    return take(std::span(block.data(), filled));
}

/// Links and lengths of a list of equally long blocks but for the last.
Result<std::uint64_t> writeList(OutputFile& file, const std::vector<std::uint64_t>& blocks,
                                std::uint64_t blockBytes) {
    constexpr std::uint8_t kEqualLength = 1;
    constexpr std::uint8_t kTransposed = 1;
    Mf4Blocks list(file.size());
    std::vector<std::uint64_t> links = {0};
    links.insert(links.end(), blocks.begin(), blocks.end());
    Mf4Fields data;
    data.put(kEqualLength).zeros(3).put(static_cast<std::uint32_t>(blocks.size())).put(blockBytes);
    const Mf4Blocks::Link first = list.add("DL", links, data);
    Mf4Fields head;
    head.put(std::uint16_t{kEqualLength}).put(kTransposed).zeros(5);
    const Mf4Blocks::Link top = list.add("HL", {first}, head);
    if (auto written = file.append(list.bytes()); !written) return written.error();
    return top;
}

/// The bytes of each record after those of the others: what changes slowly becomes long runs.
void transpose(std::span<const std::uint8_t> records, std::size_t stride, std::vector<std::uint8_t>& to) {
    constexpr std::size_t kTile = 64;  // records whose bytes stay in the cache
    const std::size_t count = records.size() / stride;
    to.resize(records.size());
    for (std::size_t begin = 0; begin < count; begin += kTile) {
        const std::size_t end = std::min(begin + kTile, count);
        for (std::size_t column = 0; column < stride; ++column) {
            std::uint8_t* out = &to[column * count];
            for (std::size_t row = begin; row < end; ++row)
                out[row] = records[row * stride + column];
        }
    }
}

void alignTo8(OutputFile& file) {
    file.skipTo((file.size() + 7) & ~std::uint64_t{7});
}

class BlockWriter {
  public:
    BlockWriter(OutputFile& file, std::size_t stride) : file_(file), stride_(stride) {}

    Result<void> write(std::span<const std::uint8_t> records) {
        transpose(records, stride_, turned_);
        auto deflated = deflater_.deflate(turned_);
        if (!deflated) return deflated.error();
        alignTo8(file_);
        places_.push_back(file_.size());
        // Readers stumble over tiny deflated blocks, and nothing is won by larger ones.
        constexpr std::size_t kFewestBytes = 100;
        const std::span<const std::uint8_t> packed = deflated.value();
        if (records.size() < kFewestBytes || packed.size() >= records.size()) {
            return writeBlock(mf4Head("DT", {}, records.size()), records);
        }
        Mf4Fields fields;
        constexpr std::uint8_t kTransposed = 1;
        fields.text("DT", 2, ' ').put(kTransposed).zeros(1).put(static_cast<std::uint32_t>(stride_));
        fields.put(std::uint64_t{records.size()}).put(std::uint64_t{packed.size()});
        std::vector<std::uint8_t> head = mf4Head("DZ", {}, fields.bytes().size() + packed.size());
        head.insert(head.end(), fields.bytes().begin(), fields.bytes().end());
        return writeBlock(head, packed);
    }

    const std::vector<std::uint64_t>& places() const { return places_; }

  private:
    Result<void> writeBlock(std::span<const std::uint8_t> head, std::span<const std::uint8_t> data) {
        if (auto written = file_.append(head); !written) return written;
        return file_.append(data);
    }

    OutputFile& file_;
    std::size_t stride_;
    Deflater deflater_;
    std::vector<std::uint8_t> turned_;
    std::vector<std::uint64_t> places_;
};

Result<void> copyRecords(OutputFile& file, const ExportGroup& group, std::int64_t startNs,
                         storage::GapSearch& gaps, Progress& progress) {
    storage::RecordStream stream = group.reader.read(group.range, kCopyBytes);
    for (;;) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        const storage::RecordBatch& records = batch.value();
        if (records.count == 0) return {};
        gaps.look(records);
        stream.countTimesFrom(startNs);
        const std::size_t size = records.count * records.stride;
        if (auto written = file.append(std::span(records.bytes, size)); !written) return written;
        if (auto goOn = progress.advance(size); !goOn) return goOn;
    }
}

}  // namespace

Result<std::uint64_t> writePlainSamples(OutputFile& file, const ExportGroup& group, const Mf4Layout& layout,
                                        storage::GapSearch& gaps, Progress& progress) {
    if (group.recordCount() == 0) return std::uint64_t{0};
    alignTo8(file);
    const std::uint64_t place = file.size();
    const std::uint64_t bytes = group.recordCount() * layout.stride();
    if (auto written = file.append(mf4Head("DT", {}, bytes)); !written) return written.error();
    Result<void> done;
    if (layout.isAsStored()) {
        done = copyRecords(file, group, layout.startNs(), gaps, progress);
    } else {
        done = forEachBlock(group, layout, gaps, progress,
                            [&file](std::span<const std::uint8_t> records) { return file.append(records); });
    }
    if (!done) return done.error();
    return place;
}

Result<std::uint64_t> writeDeflatedSamples(OutputFile& file, const ExportGroup& group,
                                           const Mf4Layout& layout, storage::GapSearch& gaps,
                                           Progress& progress) {
    // A record that no deflated block can hold.
    if (layout.stride() > kBlockBytes) return writePlainSamples(file, group, layout, gaps, progress);
    if (group.recordCount() == 0) return std::uint64_t{0};
    BlockWriter writer(file, layout.stride());
    auto done = forEachBlock(group, layout, gaps, progress, [&writer](std::span<const std::uint8_t> records) {
        return writer.write(records);
    });
    if (!done) return done.error();
    alignTo8(file);
    if (writer.places().size() == 1) return writer.places().front();
    return writeList(file, writer.places(), recordsPerBlock(layout) * layout.stride());
}

}  // namespace lm::exporter
