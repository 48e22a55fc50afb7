// The samples of one group in an MDF file: as one block of plain records, or as a list of deflated blocks.
//
// Threads: one at a time. Lifetime: borrows everything it is given; memory for two blocks of 4 MB (and at
// least for one record).
#pragma once

#include <cstdint>

#include "core/result.h"
#include "exporter/export_plan.h"
#include "exporter/mf4_layout.h"
#include "exporter/output_file.h"
#include "storage/read/gap_search.h"

namespace lm::exporter {

/// Both show `gaps` every record of the group's range. Both append to `file` and return the place of the
/// block that the data group links to, 0 when there are no records. Errors: of reading the records, of
/// writing the file, of `progress`.
Result<std::uint64_t> writePlainSamples(OutputFile& file, const ExportGroup& group, const Mf4Layout& layout,
                                        storage::GapSearch& gaps, Progress& progress);
Result<std::uint64_t> writeDeflatedSamples(OutputFile& file, const ExportGroup& group,
                                           const Mf4Layout& layout, storage::GapSearch& gaps,
                                           Progress& progress);

}  // namespace lm::exporter
