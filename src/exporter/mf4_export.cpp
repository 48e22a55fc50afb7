#include "exporter/mf4_export.h"

#include <array>
#include <chrono>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "exporter/mf4_events.h"
#include "exporter/mf4_metadata.h"
#include "exporter/mf4_samples.h"
#include "exporter/output_file.h"
#include "storage/read/gap_search.h"

namespace lm::exporter {
namespace {

Result<void> setLink(OutputFile& file, Mf4Blocks::Link block, std::size_t index, std::uint64_t target) {
    std::array<std::uint8_t, 8> bytes{};
    writeLittle(bytes.data(), target);
    return file.writeAt(mf4LinkPlace(block, index), bytes);
}

/// The samples of a group, and its gaps.
Result<storage::Gaps> writeGroup(OutputFile& file, const ExportGroup& group, const Mf4Layout& layout,
                                 Mf4Blocks::Link dataGroup, bool compress, Progress& progress) {
    storage::GapSearch search(group.reader.info().cycleNs);
    auto samples = compress ? writeDeflatedSamples(file, group, layout, search, progress)
                            : writePlainSamples(file, group, layout, search, progress);
    if (!samples) return samples.error();
    if (auto set = setLink(file, dataGroup, kDataGroupDataLink, samples.value()); !set) return set.error();
    return search.take();
}

Result<void> writeEvents(OutputFile& file, const Mf4Events& events) {
    if (events.first == 0) return {};
    file.skipTo(events.blocks.end() - events.blocks.bytes().size());
    if (auto written = file.append(events.blocks.bytes()); !written) return written;
    return setLink(file, kMf4HeaderPlace, kHeaderEventLink, events.first);
}

std::vector<std::string> notesOf(const std::vector<ExportGroup>& groups,
                                 const std::vector<storage::Gaps>& gaps) {
    std::vector<std::string> notes;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const std::string& name = groups[i].reader.info().name;
        if (gaps[i].count > gaps[i].gaps.size()) {
            notes.push_back(fmt::format("{}: {} gaps, the first {} are in the file as events", name,
                                        gaps[i].count, gaps[i].gaps.size()));
        } else if (gaps[i].count > 0) {
            notes.push_back(fmt::format("{}: {} gap(s), in the file as events", name, gaps[i].count));
        }
    }
    return notes;
}

}  // namespace

Result<std::vector<std::string>> exportMf4(const storage::RecordingInfo& info,
                                           const std::vector<ExportGroup>& groups,
                                           const storage::RecordingEvents& happenings,
                                           const ExportOptions& options, Progress& progress) {
    std::vector<Mf4Layout> layouts;
    for (const ExportGroup& group : groups) {
        auto layout = Mf4Layout::make(group, info.startHostNs);
        if (!layout) return layout.error();
        layouts.push_back(std::move(layout).value());
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const Mf4Metadata metadata = makeMetadata(
        info, groups, layouts, std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    auto created = OutputFile::create(options.output, options.force);
    if (!created) return created.error();
    OutputFile& file = created.value();
    if (auto written = file.append(metadata.blocks.bytes()); !written) return written.error();
    std::vector<storage::Gaps> gaps;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        auto found =
            writeGroup(file, groups[i], layouts[i], metadata.dataGroups[i], options.compress, progress);
        if (!found) return found.error();
        gaps.push_back(std::move(found).value());
    }
    const std::uint64_t place = (file.size() + 7) & ~std::uint64_t{7};
    Mf4Events events = makeEvents(info, groups, gaps, metadata, place);
    addHappenings(events, info, happenings);
    if (auto written = writeEvents(file, events); !written) return written.error();
    if (auto committed = file.commit(); !committed) return committed.error();
    return notesOf(groups, gaps);
}

}  // namespace lm::exporter
