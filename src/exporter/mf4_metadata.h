// All of an MDF file in front of its samples: identification, header, history, groups, channels, conversions.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <vector>

#include "exporter/export_plan.h"
#include "exporter/mf4_blocks.h"
#include "exporter/mf4_layout.h"
#include "storage/read/gap_search.h"

namespace lm::exporter {

/// Indices of links that are set when the samples are written.
inline constexpr std::size_t kDataGroupDataLink = 2;
inline constexpr std::size_t kHeaderEventLink = 4;
/// Where the header block stands in every file.
inline constexpr std::uint64_t kMf4HeaderPlace = 64;

struct Mf4Metadata {
    Mf4Blocks blocks = Mf4Blocks(0);
    std::vector<Mf4Blocks::Link> dataGroups;     ///< in the order of the groups
    std::vector<Mf4Blocks::Link> channelGroups;  ///< likewise
};

/// One layout per group. `nowUtcNs` goes into the file's history.
Mf4Metadata makeMetadata(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                         const std::vector<Mf4Layout>& layouts, std::int64_t nowUtcNs);

struct Mf4Events {
    Mf4Blocks blocks;
    Mf4Blocks::Link first = 0;  ///< 0: there are none
};

/// Events of the gaps, which stand at `place` of the file and behind.
Mf4Events makeEvents(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                     const std::vector<storage::Gaps>& gaps, const Mf4Metadata& metadata,
                     std::uint64_t place);

}  // namespace lm::exporter
